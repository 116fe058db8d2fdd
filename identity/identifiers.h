// The identifiers of the machine's management context that every event
// carries: the endpoint client's UUID, the serial number of the management
// server ("VRX SN") and its tenant id. Read from the support library and
// the endpoint client's registry key, never written. The session manager
// owns one.
#pragma once

#include <string>

#include "platform/log.h"
#include "platform/network.h"
#include "platform/registry.h"
#include "platform/support.h"

namespace lindqvar {

// The endpoint client's management data, under HKEY_LOCAL_MACHINE.
inline constexpr char16_t kEsnacKeyPath[] = u"software\\Orvane\\Velmora\\FA_ESNAC";
inline constexpr char16_t kVelmoraKeyPath[] = u"software\\Orvane\\Velmora";
inline constexpr char16_t kEsnacSubKey[] = u"FA_ESNAC";

class CIdentifiers {
 public:
  CIdentifiers(CLog& log, ISupportLibrary& support, IRegistry& registry)
      : m_log(log), m_support(support), m_registry(registry) {}

  // Once, at start-up. Left as it was when the client has no GUID.
  void LoadClientUuid();
  // Each time event data are gathered; always cleared first.
  void LoadVrxSerial();
  // Right after the serial; kept from the last read while the key is missing.
  void LoadVrxTenantId();

  // 8-bit texts (ANSI code page), empty when unknown.
  const std::string& ClientUuid() const { return m_strClientUuid; }
  const std::string& VrxSerial() const { return m_strVrxSerial; }
  const std::string& VrxTenantId() const { return m_strVrxTenantId; }

 private:
  // "hvq_sn" as "<client GUID>;<serial>": the serial when the GUID is this
  // client's, else empty.
  std::u16string PrimarySerialCandidate();
  // "secondary_sn" when "SecondaryPingServer" is longer than one character.
  std::u16string SecondarySerialCandidate();
  // Opens the Velmora key through the support library and FA_ESNAC below it
  // with KEY_READ; null when either fails.
  std::unique_ptr<IRegistryKey> OpenEsnacForRead();

  CLog& m_log;
  ISupportLibrary& m_support;
  IRegistry& m_registry;
  std::string m_strClientUuid;
  std::string m_strVrxSerial;
  std::string m_strVrxTenantId;
};

// The machine's own names as every record carries them: the host name, cut
// to 255 bytes (empty when the system gives none), and the computer's DNS
// domain in the ANSI code page, cut to 255 bytes (empty, with an error line,
// when the system gives none).
std::string ReadHostName(INetwork& network);
std::string ReadComputerDomain(INetwork& network, CLog& log);

}  // namespace lindqvar
