#include "protocol/session_message.h"

#include <ctime>

#include "identity/terminal_session.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/support.h"
#include "protocol/ip_address.h"

namespace lindqvar {

namespace {

constexpr uint32_t kEventSingleSignOnId = 96980;
constexpr uint32_t kSessionLogLevel = 6;
constexpr uint32_t kFixedValue = 4096;

uint32_t HostOrder(uint32_t networkOrder) {
  const auto* b = reinterpret_cast<const uint8_t*>(&networkOrder);
  return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]};
}

void AddIfNotEmpty(CEncoder& e, uint8_t code, const std::string& text) {
  if (!text.empty()) e.add_string(code, text, 1);
}

std::string DottedIPv4(uint32_t networkOrder) {
  IpAddress a;
  a.SetIPv4(networkOrder);
  return a.Text();
}

}  // namespace

void add_session_record(CEncoder& e, const SessionRecordFields& f) {
  e.begin_group(MSG_SESSION_INFO);
  e.add_u32(ATTR_LOGON, f.logon ? 1 : 0);
  e.add_u32(ATTR_FIXED_VALUE, kFixedValue);
  e.add_string(ATTR_DOMAIN, f.domain, 1);
  e.add_string(ATTR_USER, f.user, 1);
  e.add_string(ATTR_WORKSTATION, f.workstation, 1);
  AddIfNotEmpty(e, ATTR_AZURE_ACCOUNT, f.azureAccount);
  AddIfNotEmpty(e, ATTR_DEVICE_UUID, f.deviceUuid);
  AddIfNotEmpty(e, ATTR_VRX_SERIAL, f.vrxSerial);
  AddIfNotEmpty(e, ATTR_TENANT_ID, f.tenantId);
  // The u32 goes out big-endian, so the address bytes stay in network order.
  for (uint32_t a : f.ipv4) {
    if (a != 0) e.add_u32(ATTR_IPV4, HostOrder(a));
  }
  for (const IPv6Address& a : f.ipv6) {
    if (a[0] != 0 || a[1] != 0) e.add_bytes(ATTR_IPV6, a.data(), 16);
  }
  e.add_u32(ATTR_TIME, f.time);
  e.end_group(MSG_SESSION_INFO);
}

std::string WorkstationName(const WorkstationFacts& machine, const std::string& userDomain) {
  return machine.computerName + "." + (machine.dnsDomain.empty() ? userDomain : machine.dnsDomain);
}

int build_session_record(CEncoder& encoder, const CTerminalSession& entry,
                         const WorkstationFacts& machine, const IPv4List& ipv4,
                         const IPv6List& ipv6, uint32_t logon, uint32_t now) {
  SessionRecordFields f;
  f.logon = logon;
  f.domain = entry.Domain();
  f.user = entry.UserName();
  f.workstation = WorkstationName(machine, entry.Domain());
  if (machine.preferAzure == 1) f.azureAccount = entry.TenantId();
  f.deviceUuid = machine.deviceUuid;
  f.vrxSerial = machine.vrxSerial;
  f.tenantId = machine.tenantId;
  f.ipv4 = ipv4;
  f.ipv6 = ipv6;
  f.time = now != 0 ? now : static_cast<uint32_t>(std::time(nullptr));
  add_session_record(encoder, f);
  return 1;
}

std::string SessionLogDomainText(const SessionLogRecord& r) {
  std::string text = r.domain + "," + "Workstation Name:" + WideToUtf8(AnsiToWide(r.computerName)) +
                     "," + "IP:" + DottedIPv4(r.localIPv4) + "," + "BRK:" +
                     DottedIPv4(r.serverIPv4) + ",";
  const int tid = static_cast<int>(r.threadId);
  if (!r.tickLogging) return text + Format("TID:%d", tid);
  return text + Format(r.delivered ? "succeeded to send session info, TICC:%d, TID:%d"
                                   : "failed to send session info, TICC:%d, TID:%d",
                       static_cast<int>(r.tickCount), tid);
}

void write_session_log(ISupportLibrary& support, const SessionLogRecord& record) {
  const LogField fields[] = {
      {u"action", AnsiToWide(std::to_string(record.action))},
      {u"domain", Utf8ToWide(SessionLogDomainText(record))},
      {u"user", Utf8ToWide(record.user)},
  };
  support.LogW(kEventSingleSignOnId, kSessionLogLevel, fields);
}

}  // namespace lindqvar
