#include "tools/lab_authenticator/lab_output.h"

#include <cstdio>

namespace lindqvar::lab {

namespace {

std::string JsonStrings(const std::vector<std::string>& items) {
  std::string out = "[";
  for (size_t i = 0; i < items.size(); ++i) out += (i ? "," : "") + JsonQuote(items[i]);
  return out + "]";
}

std::string Field(const char* name, const std::string& value) {
  return std::string(",\"") + name + "\":" + JsonQuote(value);
}
std::string Field(const char* name, uint64_t value) {
  return std::string(",\"") + name + "\":" + std::to_string(value);
}
std::string Field(const char* name, bool value) {
  return std::string(",\"") + name + "\":" + (value ? "true" : "false");
}

std::string JsonRecord(const SessionRecord& r) {
  std::string out = "{\"logon\":" + std::to_string(r.logon);
  out += Field("fixed", uint64_t{r.fixedValue});
  out += Field("domain", r.domain);
  out += Field("user", r.user);
  out += Field("workstation", r.workstation);
  if (!r.azureAccount.empty()) out += Field("azure", r.azureAccount);
  if (!r.deviceUuid.empty()) out += Field("device_uuid", r.deviceUuid);
  if (!r.vrxSerial.empty()) out += Field("serial", r.vrxSerial);
  if (!r.tenantId.empty()) out += Field("tenant", r.tenantId);
  out += ",\"ipv4\":" + JsonStrings(r.IPv4Text());
  out += ",\"ipv6\":" + JsonStrings(r.IPv6Text());
  out += Field("time", uint64_t{r.time});
  return out + "}";
}

std::string Who(const SessionRecord& r) {
  std::string who = r.domain.empty() ? r.user : r.domain + "\\" + r.user;
  std::string where;
  for (const auto& a : r.IPv4Text()) where += (where.empty() ? "" : ", ") + a;
  for (const auto& a : r.IPv6Text()) where += (where.empty() ? "" : ", ") + a;
  return who + " at " + r.workstation + " (" + (where.empty() ? "no addresses" : where) + ")";
}

}  // namespace

std::string JsonQuote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char esc[8];
          std::snprintf(esc, sizeof esc, "\\u%04x", c);
          out += esc;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string JsonListening(const SocketAddress& address) {
  return "{\"event\":\"listening\"" + Field("address", address.AddressText()) +
         Field("port", uint64_t{address.port}) + "}";
}

std::string JsonConnection(const ConnectionReport& r) {
  std::string out = "{\"event\":\"connection\"";
  out += Field("number", r.number);
  out += Field("peer", r.peer);
  out += Field("listener", r.listener);
  out += Field("fault", std::string(FaultName(r.fault)));
  out += Field("tls", r.tlsUp);
  if (!r.tlsError.empty()) out += Field("tls_error", r.tlsError);
  out += Field("tls_version", r.tlsVersion);
  out += Field("client", r.clientSubject);
  out += Field("sni", r.serverName);
  out += Field("hello_sent", r.helloSent);
  out += Field("hello_id", uint64_t{r.helloId});
  out += Field("hello_flags", uint64_t{r.helloFlags});
  out += Field("hello_reply", r.helloReplyReceived);
  out += Field("client_version", r.clientVersion);
  out += Field("client_guid", r.clientGuid);
  out += Field("digest", std::string(DigestCheckName(r.digest)));
  out += Field("hello_ack_sent", r.helloAckSent);
  out += Field("hello_result", uint64_t{r.helloResult});
  out += Field("event_received", r.eventReceived);
  out += Field("event_code", uint64_t{r.eventCode});
  out += ",\"records\":[";
  for (size_t i = 0; i < r.records.size(); ++i) out += (i ? "," : "") + JsonRecord(r.records[i]);
  out += "]";
  out += Field("event_ack_sent", r.eventAckSent);
  out += Field("event_result", uint64_t{r.eventResult});
  out += Field("keepalive", uint64_t{r.keepAliveInterval});
  if (r.ntlmStarted) {
    // Who the relay proved, never its tokens.
    out += ",\"ntlm\":{\"key\":" + std::to_string(r.ntlmKey) + Field("proven", r.ntlmProven) +
           Field("user", r.ntlmUser) + Field("domain", r.ntlmDomain) +
           Field("result_sent", r.ntlmResultSent) + Field("result", uint64_t{r.ntlmResult}) +
           Field("end", r.ntlmEnd) + "}";
  }
  out += Field("end", r.end);
  return out + "}";
}

std::string JsonTable(const CLogonTable& table) {
  std::string out = "{\"event\":\"table\",\"entries\":[";
  const auto& entries = table.Entries();
  for (size_t i = 0; i < entries.size(); ++i) {
    const LogonEntry& e = entries[i];
    out += i ? "," : "";
    out += "{\"domain\":" + JsonQuote(e.domain) + Field("user", e.user) +
           Field("workstation", e.workstation) + Field("azure", e.azureAccount) +
           ",\"addresses\":" + JsonStrings(e.addresses) + Field("agent", e.agent) +
           Field("since", static_cast<uint64_t>(e.since)) + "}";
  }
  return out + "]}";
}

std::string TextListening(const SocketAddress& address) { return "Listening on " + address.Text(); }

std::string TextConnection(const ConnectionReport& r) {
  std::string out = "#" + std::to_string(r.number) + " " + r.peer + " -> " + r.listener;
  if (r.fault != Fault::kNone) out += std::string(" [fault ") + FaultName(r.fault) + "]";
  out += "\n";
  if (!r.tlsUp) {
    out += "  TLS: " + (r.tlsError.empty() ? std::string("not started") : "failed: " + r.tlsError) +
           "\n";
  } else {
    out += "  TLS " + r.tlsVersion + ", client certificate " + r.clientSubject +
           (r.serverName.empty() ? ", no server name" : ", server name " + r.serverName) + "\n";
  }
  if (r.helloReplyReceived) {
    out += "  hello: id " + std::to_string(r.helloId) + ", flags " + std::to_string(r.helloFlags) +
           ", agent \"" + r.clientVersion + "\"" +
           (r.clientGuid.empty() ? "" : ", client GUID " + r.clientGuid) + ", digest " +
           DigestCheckName(r.digest) + "\n";
  }
  if (r.helloAckSent)
    out += std::string("  hello ") + (r.helloResult == 1 ? "accepted" : "rejected") + " (result " +
           std::to_string(r.helloResult) + ")\n";
  if (r.eventReceived) {
    out += "  event (message " + std::to_string(r.eventCode) + ", " +
           std::to_string(r.records.size()) + " record(s)):\n";
    for (const auto& rec : r.records)
      out += std::string("    ") + (rec.logon ? "logged on:  " : "withdrawn:  ") + Who(rec) + "\n";
  }
  if (r.eventAckSent)
    out +=
        "  event acknowledged with result " + std::to_string(r.eventResult) +
        (r.keepAliveInterval ? ", keep-alive " + std::to_string(r.keepAliveInterval) + " s" : "") +
        "\n";
  if (r.ntlmStarted) {
    out += "  NTLM relay, key " + std::to_string(r.ntlmKey) + ": " +
           (r.ntlmProven ? "proven " : "not proven ") +
           (r.ntlmUser.empty() ? std::string("(no user)") : r.ntlmDomain + "\\" + r.ntlmUser) +
           " (" + r.ntlmEnd + ")" +
           (r.ntlmResultSent ? ", result " + std::to_string(r.ntlmResult) + " sent" : "") + "\n";
  }
  out += "  end: " + r.end;
  return out;
}

}  // namespace lindqvar::lab
