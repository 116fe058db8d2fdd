#include "protocol/ntlm/ntlm_package.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "platform/log.h"
#include "platform/os.h"
#include "protocol/wire/base64.h"

namespace lindqvar {

namespace {
constexpr char16_t kPackage[] = u"NTLM";
constexpr size_t kPackageNameMax = 32;
constexpr uint32_t kOldSessionAge = 600;

bool Continues(int32_t status) {
  return status == sec::kContinueNeeded || status == sec::kCompleteAndContinue;
}
}  // namespace

std::vector<uint8_t> ChannelBindingsBlock(const std::vector<uint8_t>& applicationData) {
  constexpr uint32_t kHeaderSize = 32;
  std::vector<uint8_t> block(kHeaderSize + applicationData.size(), 0);
  auto put = [&block](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) block[at + i] = static_cast<uint8_t>(v >> (8 * i));
  };
  put(24, static_cast<uint32_t>(applicationData.size()));  // cbApplicationDataLength
  put(28, kHeaderSize);                                    // dwApplicationDataOffset
  std::copy(applicationData.begin(), applicationData.end(), block.begin() + kHeaderSize);
  return block;
}

CNtlmPackage::CNtlmPackage(ISecurityPackage& package, Print print, Clock clock)
    : m_package(package), m_print(std::move(print)), m_clock(std::move(clock)) {
  if (!m_print)
    m_print = [](const std::string& text) {
      std::fputs(text.c_str(), stdout);
      std::fflush(stdout);
    };
  if (!m_clock) m_clock = [] { return static_cast<uint32_t>(std::time(nullptr)); };
}

CNtlmPackage::~CNtlmPackage() {
  std::lock_guard<std::mutex> lock(m_tableLock);
  for (Entry& e : m_table) Cleanup(*e.record);
}

void CNtlmPackage::Printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  m_print(FormatV(format, args));
  va_end(args);
}

int CNtlmPackage::PreparePackage() {
  std::u16string name;
  const int32_t status = m_package.QueryPackageInfo(kPackage, name);
  int result = 0;
  if (status >= 0) {
    m_packageName = name.substr(0, kPackageNameMax);
    m_trace = 1;
    Printf("Using package: %s\n", WideToUtf8(m_packageName).c_str());
  } else {
    Printf("Couldn't query package info for %s, error 0x%08x\n", "NTLM",
           static_cast<unsigned>(status));
    result = -1;
  }
  // The table lock is a member and ready from construction on.
  return result;
}

bool CNtlmPackage::Add(uint32_t key1, uint32_t key2, std::unique_ptr<ContextRecord> record) {
  std::lock_guard<std::mutex> lock(m_tableLock);
  if (FindLocked(key1, key2) != m_table.end()) return false;
  m_table.push_front(Entry{key1, key2, m_clock(), std::move(record)});
  return true;
}

std::list<CNtlmPackage::Entry>::const_iterator CNtlmPackage::FindLocked(uint32_t key1,
                                                                        uint32_t key2) const {
  return std::find_if(m_table.begin(), m_table.end(),
                      [&](const Entry& e) { return e.key1 == key1 && e.key2 == key2; });
}

CNtlmPackage::ContextRecord* CNtlmPackage::Find(uint32_t key1, uint32_t key2) {
  std::lock_guard<std::mutex> lock(m_tableLock);
  const auto found = FindLocked(key1, key2);
  return found != m_table.end() ? found->record.get() : nullptr;
}

void CNtlmPackage::Cleanup(ContextRecord& record) {
  if (record.contextHeld) m_package.DeleteContext(record.context);
  if (record.credentialHeld) m_package.FreeCredentials(record.credential);
}

bool CNtlmPackage::Remove(uint32_t key1, uint32_t key2) {
  std::list<Entry> gone;
  {
    std::lock_guard<std::mutex> lock(m_tableLock);
    const auto found = FindLocked(key1, key2);
    if (found != m_table.end()) gone.splice(gone.begin(), m_table, found);
  }
  if (gone.empty()) {
    Printf("failed to delete entry: %d:%d\n", static_cast<int>(key1), static_cast<int>(key2));
    return false;
  }
  Cleanup(*gone.front().record);
  return true;
}

void CNtlmPackage::Purge(uint32_t key, uint32_t age) {
  if (age == kOldSessionAge) Printf("purge old NTLM sessions...\n");
  std::lock_guard<std::mutex> lock(m_tableLock);
  const uint32_t now = m_clock();
  // The key test looks at the predecessor's key1, not the entry's own; the
  // stand-in for the head has key1 0.
  uint32_t predecessorKey = 0;
  for (auto e = m_table.begin(); e != m_table.end();) {
    const bool keyMatches = key == 0 || predecessorKey == key;
    const bool old = age == 0 || e->created + age < now;
    if (keyMatches && old) {
      Cleanup(*e->record);
      e = m_table.erase(e);
    } else {
      predecessorKey = e->key1;
      ++e;
    }
  }
}

size_t CNtlmPackage::ExchangeCount() const {
  std::lock_guard<std::mutex> lock(m_tableLock);
  return m_table.size();
}

bool CNtlmPackage::HasExchange(uint32_t key1, uint32_t key2) const {
  std::lock_guard<std::mutex> lock(m_tableLock);
  return FindLocked(key1, key2) != m_table.end();
}

bool CNtlmPackage::TokenStep(uint32_t key1, uint32_t key2, const uint8_t* input, uint32_t inputSize,
                             const AuthIdentity* identity, uint32_t flags, PackageBuffer& output) {
  // Only the relay thread that owns the key pair uses the record.
  ContextRecord* record = Find(key1, key2);
  if (!record) return false;

  if (record->isNew) {
    const AuthIdentity* given = identity && !identity->user.empty() ? identity : nullptr;
    const int32_t status = m_package.AcquireCredentials(kPackage, sec::kCredentialsOutbound, given,
                                                        record->credential);
    if (status < 0) {
      Printf("AcquireCreds failed: 0x%08x\n", static_cast<unsigned>(status));
      return false;
    }
    record->credentialHeld = 1;
  } else if (m_trace) {
    Printf("token buffer recieved(%lu bytes):\n", static_cast<unsigned long>(inputSize));
  }

  uint32_t attributes = 0;
  const int32_t status = m_package.InitializeContext(
      record->credential, record->isNew ? nullptr : &record->context, flags | sec::kAllocateMemory,
      record->binding, record->isNew ? nullptr : input, record->isNew ? 0 : inputSize,
      record->context, output, attributes);
  if (status < 0) {
    Printf("InitializeSecurityContext failed: 0x%08x\n", static_cast<unsigned>(status));
    return false;
  }
  record->contextHeld = 1;
  if (status == sec::kCompleteNeeded || status == sec::kCompleteAndContinue) {
    const int32_t completed = m_package.CompleteToken(record->context, output);
    if (completed < 0) {
      Printf("complete failed: 0x%08x\n", static_cast<unsigned>(completed));
      return false;
    }
  }
  record->isNew = 0;
  if (m_trace)
    Printf("token buffer generated (%lu bytes):\n", static_cast<unsigned long>(output.size));

  if (!Continues(status)) {
    ContextAttribute value;
    for (uint32_t attribute : {sec::kAttrSizes, sec::kAttrNegotiationInfo, sec::kAttrFlags}) {
      const int32_t queried = m_package.QueryAttribute(record->context, attribute, value);
      if (queried < 0) {
        Printf("QueryContextAttributes failed: 0x%08x\n", static_cast<unsigned>(queried));
        return false;
      }
      if (attribute == sec::kAttrNegotiationInfo)
        Printf("Package Name: %s\n", WideToUtf8(value.packageName).c_str());
      if (attribute == sec::kAttrFlags) Printf("FLags: %x\n", value.flags);
    }
  }
  Printf("InitializeSecurityContext result = 0x%08x\n", static_cast<unsigned>(status));
  return true;
}

std::string CNtlmPackage::EncodeAndFree(PackageBuffer& output) {
  std::string text;
  if (output.data && output.size) text = Base64Text(output.data, output.size);
  if (output.data) m_package.FreeBuffer(output.data);
  output = {};
  return text;
}

int CNtlmPackage::MakeFirstToken(uint32_t key1, uint32_t key2, std::string& token,
                                 const AuthIdentity* identity, const ContextBinding* binding) {
  token.clear();
  auto record = std::unique_ptr<ContextRecord>(new (std::nothrow) ContextRecord);
  if (!record) {
    Printf("InitSession malloc failed\n");
    return -1;
  }
  if (binding) record->binding = *binding;
  if (!Add(key1, key2, std::move(record))) {
    Printf("after: AddEntry failed, key1:%d key2:%d\n", static_cast<int>(key1),
           static_cast<int>(key2));
    return -1;
  }
  PackageBuffer output;
  const bool ok = TokenStep(key1, key2, nullptr, 0, identity, 0, output);
  token = EncodeAndFree(output);
  if (!ok) token.clear();
  return ok ? 0 : -1;
}

int CNtlmPackage::MakeFinalToken(uint32_t key1, uint32_t key2, const char* challenge,
                                 uint32_t length, std::string& token) {
  token.clear();
  int32_t decodedLength = 0;
  std::unique_ptr<uint8_t[]> decoded;
  if (challenge) decoded = Base64Decode(challenge, length, &decodedLength);
  if (decoded && decodedLength > 0) {
    PackageBuffer output;
    const bool ok = TokenStep(key1, key2, decoded.get(), static_cast<uint32_t>(decodedLength),
                              nullptr, 0, output);
    std::string text = EncodeAndFree(output);
    if (ok) token = std::move(text);
  }
  Remove(key1, key2);
  return 0;
}

int CNtlmPackage::DropExchange(uint32_t key1, uint32_t key2) {
  Remove(key1, key2);
  return 0;
}

}  // namespace lindqvar
