#include "protocol/messages/session_log.h"

#include "platform/log.h"
#include "platform/os.h"
#include "platform/support.h"
#include "protocol/transport/ip_address.h"

namespace lindqvar {

namespace {

constexpr uint32_t kEventSingleSignOnId = 96980;
constexpr uint32_t kSessionLogLevel = 6;

std::string DottedIPv4(uint32_t networkOrder) {
  IpAddress a;
  a.SetIPv4(networkOrder);
  return a.Text();
}

}  // namespace

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
