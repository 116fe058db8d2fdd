#include "platform/win32/hyperv_win32.h"

#include "platform/win32/scoped_handle.h"
#include "platform/win32/windows_include.h"

#include <objbase.h>
#include <oleauto.h>
#include <wbemidl.h>

namespace lindqvar::win32 {

namespace {

template <typename T>
struct ComTraits {
  using Handle = T*;
  static Handle Invalid() { return nullptr; }
  static void Close(Handle h) { h->Release(); }
};
template <typename T>
using ScopedCom = CScopedGeneric<ComTraits<T>>;

struct BstrTraits {
  using Handle = BSTR;
  static Handle Invalid() { return nullptr; }
  static void Close(Handle h) { ::SysFreeString(h); }
};
using ScopedBstr = CScopedGeneric<BstrTraits>;

// Uninitialises COM when the initialisation succeeded.
class CComScope {
 public:
  CComScope() : m_hr(::CoInitialize(nullptr)) {}
  ~CComScope() {
    if (SUCCEEDED(m_hr)) ::CoUninitialize();
  }
  CComScope(const CComScope&) = delete;
  CComScope& operator=(const CComScope&) = delete;
  bool Ok() const { return SUCCEEDED(m_hr); }

 private:
  HRESULT m_hr;
};

std::optional<std::u16string> StringProperty(IWbemClassObject* object, const wchar_t* name) {
  VARIANT value;
  ::VariantInit(&value);
  std::optional<std::u16string> out;
  if (SUCCEEDED(object->Get(name, 0, &value, nullptr, nullptr)) && value.vt == VT_BSTR &&
      value.bstrVal) {
    out = U(value.bstrVal, ::SysStringLen(value.bstrVal));
  }
  ::VariantClear(&value);
  return out;
}

// False only when the Hyper-V Virtual Machine Management service is not
// installed (its service key is absent). That service supplies every object
// of the "root\virtualization\v2" namespace, so without it the query can
// find no port; asking anyway would load the whole WMI client into this
// process for nothing (under Wine the in-process WMI provider, which brings
// the graphics and printing libraries with it, and keeps them loaded). Any
// other answer, a key that cannot be read included, lets the query run.
bool VirtualMachineManagementInstalled() {
  ScopedRegKey key;
  const LSTATUS rc =
      ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\vmms", 0,
                      KEY_QUERY_VALUE, key.receive());
  return rc != ERROR_FILE_NOT_FOUND && rc != ERROR_PATH_NOT_FOUND;
}

}  // namespace

void CHyperVWin32::QueryExternalPorts(std::vector<HyperVPortRow>& rows) {
  if (!VirtualMachineManagementInstalled()) return;
  CComScope com;
  if (!com.Ok()) return;

  ScopedCom<IWbemLocator> locator;
  if (FAILED(::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                reinterpret_cast<void**>(locator.receive())))) {
    return;
  }
  // Machines without Hyper-V have no such namespace: nothing is found.
  ScopedBstr space(::SysAllocString(L"root\\virtualization\\v2"));
  ScopedCom<IWbemServices> services;
  if (FAILED(locator.get()->ConnectServer(space.get(), nullptr, nullptr, nullptr, 0, nullptr,
                                          nullptr, services.receive()))) {
    return;
  }
  ScopedBstr language(::SysAllocString(L"WQL"));
  ScopedBstr query(::SysAllocString(L"SELECT * FROM Msvm_ExternalEthernetPort"));
  ScopedCom<IEnumWbemClassObject> enumerator;
  if (FAILED(services.get()->ExecQuery(language.get(), query.get(),
                                       WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                                       nullptr, enumerator.receive()))) {
    return;
  }
  for (;;) {
    ScopedCom<IWbemClassObject> object;
    ULONG returned = 0;
    enumerator.get()->Next(WBEM_INFINITE, 1, object.receive(), &returned);
    if (returned == 0 || !object) break;
    HyperVPortRow row;
    row.permanentAddress = StringProperty(object.get(), L"PermanentAddress");
    row.elementName = StringProperty(object.get(), L"ElementName");
    row.description = StringProperty(object.get(), L"Description");
    rows.push_back(std::move(row));
  }
}

}  // namespace lindqvar::win32
