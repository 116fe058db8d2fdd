// Hyper-V's external switch ports, from WMI ("root\virtualization\v2").
// platform/win32/identity_win32.h has the Windows implementation.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace lindqvar {

// One Msvm_ExternalEthernetPort object; a property is present when it is a
// string (VT_BSTR).
struct HyperVPortRow {
  std::optional<std::u16string> permanentAddress;
  std::optional<std::u16string> elementName;
  std::optional<std::u16string> description;
};

class IHyperV {
 public:
  virtual ~IHyperV() = default;
  // "SELECT * FROM Msvm_ExternalEthernetPort", forward only, one object at
  // a time. Rows read before any failure are kept; a machine without the
  // namespace gives none.
  virtual void QueryExternalPorts(std::vector<HyperVPortRow>& rows) = 0;
};

}  // namespace lindqvar
