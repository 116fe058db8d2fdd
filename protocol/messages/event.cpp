#include "protocol/messages/event.h"

#include <cstring>
#include <ctime>

#include "identity/terminal_session.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/socket.h"
#include "platform/support.h"
#include "protocol/transport/ip_address.h"

namespace lindqvar {

namespace {

constexpr uint32_t kEventSingleSignOnId = 96980;
constexpr uint32_t kSessionLogLevel = 6;

// Network byte order to host order; the same swap turns a host-order
// value back into network order.
uint32_t HostOrder(uint32_t networkOrder) {
  const auto* b = reinterpret_cast<const uint8_t*>(&networkOrder);
  return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]};
}

void AddIfNotEmpty(CEncoder& e, uint8_t code, const std::string& text) {
  if (!text.empty()) e.add_string(code, text, 1);
}

// A received address for people (the lab authenticator, tests), in the
// system's text form; the agent's own log lines use IpAddress's.
std::string AddressText(uint16_t family, const uint8_t* bytes, size_t size) {
  SocketAddress a;
  a.family = family;
  std::memcpy(a.bytes.data(), bytes, size);
  return a.AddressText();
}

std::string DottedIPv4(uint32_t networkOrder) {
  IpAddress a;
  a.SetIPv4(networkOrder);
  return a.Text();
}

}  // namespace

void SessionRecord::Write(CEncoder& e) const {
  e.begin_group(MSG_SESSION_INFO);
  e.add_u32(ATTR_LOGON, logon ? 1 : 0);
  e.add_u32(ATTR_FIXED_VALUE, fixedValue);
  e.add_string(ATTR_DOMAIN, domain, 1);
  e.add_string(ATTR_USER, user, 1);
  e.add_string(ATTR_WORKSTATION, workstation, 1);
  AddIfNotEmpty(e, ATTR_AZURE_ACCOUNT, azureAccount);
  AddIfNotEmpty(e, ATTR_DEVICE_UUID, deviceUuid);
  AddIfNotEmpty(e, ATTR_VRX_SERIAL, vrxSerial);
  AddIfNotEmpty(e, ATTR_TENANT_ID, tenantId);
  // The u32 goes out big-endian, so the address bytes stay in network order.
  for (uint32_t a : ipv4) {
    if (a != 0) e.add_u32(ATTR_IPV4, HostOrder(a));
  }
  for (const IPv6Address& a : ipv6) {
    if (a[0] != 0 || a[1] != 0) e.add_bytes(ATTR_IPV6, a.data(), 16);
  }
  e.add_u32(ATTR_TIME, time);
  e.end_group(MSG_SESSION_INFO);
}

std::vector<std::string> SessionRecord::IPv4Text() const {
  std::vector<std::string> out;
  for (uint32_t a : ipv4)
    out.push_back(AddressText(kFamilyIPv4, reinterpret_cast<const uint8_t*>(&a), 4));
  return out;
}

std::vector<std::string> SessionRecord::IPv6Text() const {
  std::vector<std::string> out;
  for (const IPv6Address& a : ipv6) out.push_back(AddressText(kFamilyIPv6, a.data(), 16));
  return out;
}

void EventMessage::Write(CEncoder& e) const {
  e.begin_group(MSG_EVENT);
  for (const SessionRecord& record : records) record.Write(e);
  e.end_group(MSG_EVENT);
}

bool EventMessage::Read(CDecoder& d) {
  if (!d.next() || d.Code() != MSG_EVENT) return false;
  SessionRecord* r = nullptr;
  while (d.next()) {
    if (d.Code() == MSG_SESSION_INFO && d.Type() == TYPE_GROUP) {
      r = &records.emplace_back();
      r->fixedValue = 0;  // as received: 0 when the record carries none
      continue;
    }
    if (!r) continue;
    switch (d.Code()) {
      case ATTR_LOGON: r->logon = d.ValueU32(); break;
      case ATTR_FIXED_VALUE: r->fixedValue = d.ValueU32(); break;
      case ATTR_DOMAIN: r->domain = d.Text(); break;
      case ATTR_USER: r->user = d.Text(); break;
      case ATTR_WORKSTATION: r->workstation = d.Text(); break;
      case ATTR_AZURE_ACCOUNT: r->azureAccount = d.Text(); break;
      case ATTR_DEVICE_UUID: r->deviceUuid = d.Text(); break;
      case ATTR_VRX_SERIAL: r->vrxSerial = d.Text(); break;
      case ATTR_TENANT_ID: r->tenantId = d.Text(); break;
      case ATTR_TIME: r->time = d.ValueU32(); break;
      case ATTR_IPV4:
        if (d.Type() == TYPE_U32) r->ipv4.push_back(HostOrder(d.ValueU32()));
        break;
      case ATTR_IPV6:
        if (d.Type() == TYPE_BYTES && d.ValueSize() == 16) {
          IPv6Address a;
          std::memcpy(a.data(), d.ValueData(), a.size());
          r->ipv6.push_back(a);
        }
        break;
      default: break;
    }
  }
  return true;
}

void EventAck::Write(CEncoder& e) const {
  e.begin_group(MSG_EVENT_ACK);
  e.add_u32(ATTR_EVENT_RESULT, result);
  if (keepAliveInterval) e.add_u32(ATTR_KEEPALIVE_INTERVAL, keepAliveInterval);
  e.end_group(MSG_EVENT_ACK);
}

bool EventAck::Read(CDecoder& d) {
  if (!d.next() || d.Code() != MSG_EVENT_ACK) return false;
  while (d.next()) {
    if (d.Code() == ATTR_EVENT_RESULT) result = d.ValueU32();
    if (d.Code() == ATTR_KEEPALIVE_INTERVAL && d.ValueU32() != 0) keepAliveInterval = d.ValueU32();
  }
  return true;
}

std::string WorkstationName(const WorkstationFacts& machine, const std::string& userDomain) {
  return machine.computerName + "." + (machine.dnsDomain.empty() ? userDomain : machine.dnsDomain);
}

int build_session_record(CEncoder& encoder, const CTerminalSession& entry,
                         const WorkstationFacts& machine, const IPv4List& ipv4,
                         const IPv6List& ipv6, uint32_t logon, uint32_t now) {
  SessionRecord r;
  r.logon = logon;
  r.domain = entry.Domain();
  r.user = entry.UserName();
  r.workstation = WorkstationName(machine, entry.Domain());
  if (machine.preferAzure == 1) r.azureAccount = entry.TenantId();
  r.deviceUuid = machine.deviceUuid;
  r.vrxSerial = machine.vrxSerial;
  r.tenantId = machine.tenantId;
  r.ipv4.assign(ipv4.begin(), ipv4.end());
  r.ipv6.assign(ipv6.begin(), ipv6.end());
  r.time = now != 0 ? now : static_cast<uint32_t>(std::time(nullptr));
  r.Write(encoder);
  return 1;
}

std::string SessionLogDomainText(const SessionLogRecord& r) {
  std::string text = r.domain + "," + "Workstation Name:" + WideToUtf8(AnsiToWide(r.computerName)) +
                     "," + "IP:" + DottedIPv4(r.localIPv4) + "," +
                     "BRK:" + DottedIPv4(r.serverIPv4) + ",";
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
