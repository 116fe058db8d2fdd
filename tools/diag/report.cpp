// lindqvar-diag report: what the agent of this machine would report now,
// and why. Every answer comes from the agent's own code run over the
// machine's platform: the settings parse, the server resolver, the user
// lookup and the exclusion list through a session table, address discovery
// with the reason for each address, the identifiers, and the session record
// as the encoder writes it (so names appear upper-cased, exactly as sent).
// Nothing is sent and nothing is written.
#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/settings.h"
#include "agent/state.h"
#include "agent/verification_settings.h"
#include "identity/address_discovery.h"
#include "identity/address_text.h"
#include "identity/azure.h"
#include "identity/identifiers.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/socket.h"
#include "protocol/messages/event.h"
#include "protocol/transport/ip_address.h"
#include "protocol/transport/resolve.h"
#include "session/session_table.h"
#include "session/user_exclusions.h"
#include "tools/diag/diag.h"
#include "tools/diag/diag_support.h"

namespace lindqvar::diag {

namespace {

// --- what was found ------------------------------------------------------------

struct ServerFinding {
  std::string host;
  uint32_t port = 0;
  std::vector<std::string> answers;  // what the name resolves to (the literal itself for one)
  int resolveError = 0;
  std::string connectsTo;  // the address the agent connects to; empty: none
  bool fallback = false;   // it is the last address obtained, not this name's
};

struct SessionFinding {
  uint32_t id = 0;
  std::optional<SessionState> state;  // unset: not enumerated (the console session)
  bool current = false;
  bool hasUser = false;
  CTerminalSession record;
  std::string excludedBy;  // the ExcludedUsers entry, empty when none
  SessionRecord sent;      // the record of a logon, as the servers would get it
};

struct Findings {
  ServiceRunState service = ServiceRunState::kUnknown;
  uint32_t serviceError = 0;
  bool stateWritten = false;
  uint32_t state = 0;

  bool keyPresent = false;
  uint32_t enabled = 0;
  uint32_t addressCategory = 0;
  uint32_t preferAzure = 0;
  bool keySet = false;
  std::vector<ServerFinding> servers;
  ServerVerification verification;
  CUserExclusions exclusions;
  std::vector<std::string> exclusionProblems;
  bool resendLogoff = false;

  std::string hostName;                         // ANSI
  std::string dnsDomain;                        // ANSI
  std::string deviceUuid, vrxSerial, tenantId;  // ANSI
  AddressExplanation addresses;

  bool enumerated = false;
  uint32_t consoleSession = kNoSession;
  std::vector<SessionFinding> sessions;
  const SessionFinding* current = nullptr;
  std::vector<std::string> nothingBecause;  // why nothing would be reported; empty: it would
};

// The session table the agent builds, keeping a copy of every record its
// lookup filled, so that an excluded session (never added) still shows its
// user.
class CReportSessionTable : public CSessionTable {
 public:
  using CSessionTable::CSessionTable;
  const CTerminalSession* Looked(uint32_t session) const {
    const auto it = m_looked.find(session);
    return it == m_looked.end() ? nullptr : &it->second;
  }

 protected:
  uint32_t LoadUser(CTerminalSession& record, uint32_t session) override {
    const uint32_t r = CSessionTable::LoadUser(record, session);
    m_looked[session] = record;
    return r;
  }

 private:
  std::map<uint32_t, CTerminalSession> m_looked;
};

std::string Utf8FromAnsi(const std::string& ansi) { return WideToUtf8(AnsiToWide(ansi)); }

// --- names and reasons -----------------------------------------------------------

const char* ServiceStateName(ServiceRunState s) {
  switch (s) {
    case ServiceRunState::kStopped: return "stopped";
    case ServiceRunState::kStartPending: return "start-pending";
    case ServiceRunState::kStopPending: return "stop-pending";
    case ServiceRunState::kRunning: return "running";
    case ServiceRunState::kContinuePending: return "continue-pending";
    case ServiceRunState::kPausePending: return "pause-pending";
    case ServiceRunState::kPaused: return "paused";
    case ServiceRunState::kNotInstalled: return "not-installed";
    case ServiceRunState::kUnknown: break;
  }
  return "unknown";
}

const char* SessionStateName(SessionState s) {
  constexpr const char* kNames[] = {"active",       "connected", "connect-query", "shadow",
                                    "disconnected", "idle",      "listen",        "reset",
                                    "down",         "init"};
  const auto i = static_cast<size_t>(s);
  return i < std::size(kNames) ? kNames[i] : "unknown";
}

const char* VerdictName(AddressVerdict v) {
  switch (v) {
    case AddressVerdict::kReported: return "reported";
    case AddressVerdict::kLoopback: return "loopback";
    case AddressVerdict::kUnspecified: return "unspecified";
    case AddressVerdict::kLinkLocal: return "link-local";
    case AddressVerdict::kVirtualAdapter: return "virtual-adapter";
    case AddressVerdict::kHyperVInternal: return "hyper-v-internal-switch";
    case AddressVerdict::kOverLimit: return "over-limit";
    case AddressVerdict::kVpnFirst: return "vpn-first";
  }
  return "unknown";
}

std::string VerdictText(const AddressDecision& d, uint32_t category) {
  switch (d.verdict) {
    case AddressVerdict::kReported: return "reported";
    case AddressVerdict::kLoopback: return "loopback";
    case AddressVerdict::kUnspecified:
      return "unspecified or IPv4-mapped (an IPv6 address whose first group is 0)";
    case AddressVerdict::kLinkLocal: return "link-local";
    case AddressVerdict::kVirtualAdapter:
      return "virtual adapter \"" + Utf8FromAnsi(d.adapter) +
             "\" (VMware, VirtualBox, or a hardware address beginning 44:45:53)";
    case AddressVerdict::kHyperVInternal:
      return "Hyper-V adapter \"" + Utf8FromAnsi(d.adapter) +
             "\" on an internal or private switch (not bound to an external switch)";
    case AddressVerdict::kOverLimit:
      return "over the limit of four addresses of its family (the resolver's order decides)";
    case AddressVerdict::kVpnFirst:
      return "VPN-first rule: AddressCategory " + std::to_string(category) +
             " reports the VPN adapter's addresses alone while it is up";
  }
  return "unknown";
}

const char* SourceName(UserSource s) {
  switch (s) {
    case UserSource::kDomain: return "domain";
    case UserSource::kAzureAD: return "azure-ad";
    case UserSource::kNone: break;
  }
  return "none";
}

const char* DomainLookupName(const UserLookupOutcome& o) {
  switch (o.domainResult) {
    case kTsDomainAccount: return o.domainAccountIsAzureAD ? "azure-ad-account" : "domain-account";
    case kTsLocalAccount: return "local-account";
    case kTsNoUser: return "no-user";
    default: return "failed";
  }
}

const char* AzureLookupName(int32_t result) {
  switch (result) {
    case kAzureOk: return "ok";
    case kAzureNoToken: return "no-token";
    case kAzureOutputUnusable: return "not-joined";
    case kAzureProgramFailed: return "program-failed";
    default: return "failed";
  }
}

std::string DomainLookupText(const UserLookupOutcome& o) {
  switch (o.domainResult) {
    case kTsDomainAccount:
      return o.domainAccountIsAzureAD ? "the domain lookup found an AzureAD account, which is "
                                        "left to the Azure AD lookup"
                                      : "the domain lookup found a domain account";
    case kTsLocalAccount:
      return "the domain lookup found a local account of this computer, which is not reported";
    case kTsNoUser: return "nobody is logged on";
    default: break;
  }
  std::string text = "the domain lookup failed (error " + std::to_string(o.domainError) + ")";
  if (o.domainError == 1314)
    text +=
        ": reading a session's user token needs the privilege of the account the agent "
        "runs as (LocalSystem); run this tool as that account";
  return text;
}

std::string AzureLookupText(int32_t result) {
  switch (result) {
    case kAzureOk: return "the Azure AD lookup found an account";
    case kAzureNoToken: return "the Azure AD lookup had no token of the session";
    case kAzureOutputUnusable:
      return "dsregcmd /status names no Azure AD account (not Azure AD joined)";
    case kAzureProgramFailed:
      return "dsregcmd /status could not be run as the user, or its output was too long";
    default: return "the Azure AD lookup failed";
  }
}

// Where the user came from, or why there is none, in one phrase.
std::string LookupText(const UserLookupOutcome& o, uint32_t preferAzure) {
  if (o.source == UserSource::kDomain) {
    return o.azureResult == kAzureOk
               ? "from the domain lookup (the Azure AD lookup answered too; PreferAzure " +
                     std::to_string(preferAzure) + " keeps the domain account)"
               : "from the domain lookup";
  }
  if (o.source == UserSource::kAzureAD) {
    return o.domainResult == kTsDomainAccount && !o.domainAccountIsAzureAD
               ? "from the Azure AD lookup (PreferAzure 1 prefers it to the domain account)"
               : "from the Azure AD lookup (" + DomainLookupText(o) + ")";
  }
  if (o.domainResult == kTsNoUser) return "nobody is logged on";
  if (o.emptyUser) return "the account's name is empty";
  return DomainLookupText(o) + "; " + AzureLookupText(o.azureResult);
}

// --- gathering ---------------------------------------------------------------------

void FindServers(Findings& f, const ServerList& servers, INetwork& network, CLog& log) {
  // One resolver for the list, as the agent has one: a name that does not
  // resolve falls back on the last address obtained, whichever server's.
  CServerResolver resolver(network, log);
  for (const auto& entry : servers) {
    ServerFinding s;
    s.host = Utf8FromAnsi(entry->host);
    s.port = entry->port;
    IpAddress literal;
    if (parse_address_literal(entry->host, literal)) {
      s.answers.push_back(literal.Text());
    } else {
      std::vector<ResolvedAddress> answers;
      s.resolveError = network.Resolve(entry->host, answers);
      for (const ResolvedAddress& a : answers) s.answers.push_back(AddressText(a));
    }
    IpAddress address;
    if (resolver.resolve_server(*entry, &address)) {
      s.connectsTo = address.Text();
      s.fallback = s.answers.empty();
    }
    f.servers.push_back(std::move(s));
  }
}

void FindSessions(Findings& f, const Platform& p, CLog& log) {
  std::vector<SessionInfo> infos;
  f.enumerated = p.sessions->Enumerate(infos);
  if (!f.enumerated) infos.clear();
  // The session start-up reports: the last active one enumerated, else the
  // console's (as CSessionManager::EnumerateSessions chooses it).
  uint32_t current = kNoSession;
  for (const SessionInfo& info : infos)
    if (info.state == SessionState::kActive) current = info.id;
  f.consoleSession = p.sessions->ActiveConsoleSession();
  if (current == kNoSession) current = f.consoleSession;

  std::vector<std::pair<uint32_t, std::optional<SessionState>>> ids;
  for (const SessionInfo& info : infos) ids.emplace_back(info.id, info.state);
  const auto listed = [&](uint32_t id) {
    return std::any_of(ids.begin(), ids.end(), [id](const auto& e) { return e.first == id; });
  };
  // The console session, when the system did not list it, is still the one
  // the agent's notifications name.
  if (f.consoleSession != kNoSession && !listed(f.consoleSession))
    ids.emplace_back(f.consoleSession, std::nullopt);

  CReportSessionTable table(log, UserLookup{*p.accounts, *p.registry, *p.console, p.timings});
  table.SetPreferAzure(f.preferAzure);
  table.SetExclusions(f.exclusions);
  WorkstationFacts machine;
  machine.computerName = f.hostName;
  machine.dnsDomain = f.dnsDomain;
  machine.preferAzure = f.preferAzure;
  machine.deviceUuid = f.deviceUuid;
  machine.vrxSerial = f.vrxSerial;
  machine.tenantId = f.tenantId;
  for (const auto& [id, state] : ids) {
    SessionFinding s;
    s.id = id;
    s.state = state;
    s.current = id == current;
    const uint32_t added = table.AddSession(id);
    if (const CTerminalSession* looked = table.Looked(id)) s.record = *looked;
    s.hasUser = added == 1 || added == CSessionTable::kExcluded;
    if (added == CSessionTable::kExcluded) {
      const CUserExclusions::Pattern* pattern =
          f.exclusions.Match(s.record.UserName(), s.record.Domain());
      s.excludedBy = pattern ? WideToUtf8(pattern->text) : "?";
    }
    if (s.hasUser) {
      // The record a logon of the session sends, read back from its bytes.
      CEncoder bytes(kEventEncoderCapacity);
      bytes.begin_message(MSG_EVENT);
      build_session_record(bytes, s.record, machine, f.addresses.reported.ipv4,
                           f.addresses.reported.ipv6, 1);
      bytes.end_group(MSG_EVENT);
      uint32_t length = 0;
      const uint8_t* data = bytes.get_buffer(&length);
      std::vector<uint8_t> copy(data, data + length);
      CDecoder decoder(copy.data(), length);
      EventMessage message;
      if (message.Read(decoder) && !message.records.empty()) s.sent = message.records.back();
    }
    f.sessions.push_back(std::move(s));
  }
  for (const SessionFinding& s : f.sessions)
    if (s.current) f.current = &s;
}

void Judge(Findings& f) {
  auto& why = f.nothingBecause;
  if (!f.keyPresent)
    why.push_back("the agent's settings key HKLM\\" + std::string(kAgentKeyPathA) +
                  " is missing: its start-up stops there");
  if (f.enabled == 0) why.push_back("Enabled is 0: the service runs no agent");
  if (f.servers.empty()) why.push_back("no server is configured (Servers)");
  if (f.addresses.reported.count4 == 0 && f.addresses.reported.count6 == 0)
    why.push_back("no address to report: the agent waits and tries again");
  if (!f.current) {
    why.push_back("no session is active and there is no console session");
  } else if (!f.current->excludedBy.empty()) {
    why.push_back("the current session " + std::to_string(f.current->id) +
                  " is excluded by the ExcludedUsers entry " + f.current->excludedBy);
  } else if (!f.current->hasUser) {
    why.push_back("the current session " + std::to_string(f.current->id) +
                  " has no user: " + LookupText(f.current->record.Lookup(), f.preferAzure));
  }
}

// --- text ----------------------------------------------------------------------------

std::string Joined(const std::vector<std::string>& items, const char* empty = "none") {
  if (items.empty()) return empty;
  std::string out;
  for (const std::string& item : items) out += (out.empty() ? "" : ", ") + item;
  return out;
}

std::string OrNone(const std::string& text) { return text.empty() ? "(none)" : text; }

void PrintText(const Findings& f, std::FILE* out) {
  std::fprintf(out, "Agent\n  service %s: %s", WideToUtf8(kAgentServiceName).c_str(),
               ServiceStateName(f.service));
  if (f.service == ServiceRunState::kUnknown && f.serviceError)
    std::fprintf(out, " (error %u)", f.serviceError);
  std::fprintf(out, "\n");
  if (f.stateWritten)
    std::fprintf(out, "  LINDQState %u (%s)\n", f.state, StateName(f.state));
  else
    std::fprintf(out, "  LINDQState not written\n");

  std::fprintf(out, "Settings (HKLM\\%s%s)\n", kAgentKeyPathA, f.keyPresent ? "" : ": MISSING");
  std::fprintf(out, "  Enabled %u, AddressCategory %u, PreferAzure %u\n", f.enabled,
               f.addressCategory, f.preferAzure);
  std::fprintf(out, "  preshared key: %s\n", f.keySet ? "set" : "not set");
  size_t n = 0;
  for (const ServerFinding& s : f.servers) {
    std::fprintf(out, "  server %zu: %s port %u: ", ++n,
                 s.host.empty() ? "(empty name)" : s.host.c_str(), s.port);
    if (!s.answers.empty())
      std::fprintf(out, "resolves to %s; the agent connects to %s\n", Joined(s.answers).c_str(),
                   s.connectsTo.c_str());
    else if (s.fallback)
      std::fprintf(out,
                   "does not resolve (error %d); the agent uses the last address it obtained, %s\n",
                   s.resolveError, s.connectsTo.c_str());
    else
      std::fprintf(out, "does not resolve (error %d); the agent cannot connect\n", s.resolveError);
  }
  if (f.servers.empty()) std::fprintf(out, "  no server\n");
  std::fprintf(out, "  server verification %s", f.verification.verify ? "on" : "off");
  if (f.verification.pinsConfigured)
    std::fprintf(out, ", pin list of %zu fingerprint(s)", f.verification.pins.size());
  std::fprintf(out, "\n");
  for (const std::string& p : f.verification.problems)
    std::fprintf(out, "  WARNING: %s\n", p.c_str());
  std::vector<std::string> patterns;
  for (const auto& p : f.exclusions.Patterns()) patterns.push_back(WideToUtf8(p.text));
  std::fprintf(out, "  ExcludedUsers: %s\n", Joined(patterns).c_str());
  for (const std::string& p : f.exclusionProblems) std::fprintf(out, "  WARNING: %s\n", p.c_str());
  std::fprintf(out, "  ResendLogoff %s\n",
               f.resendLogoff ? "on: a logoff that reached no server is sent again"
                              : "off: a logoff that reached no server is not sent again");

  std::fprintf(out, "Machine\n  host name %s, DNS domain %s\n",
               OrNone(Utf8FromAnsi(f.hostName)).c_str(), OrNone(Utf8FromAnsi(f.dnsDomain)).c_str());
  std::fprintf(out, "  device UUID %s, management-server serial %s, tenant id %s\n",
               OrNone(Utf8FromAnsi(f.deviceUuid)).c_str(),
               OrNone(Utf8FromAnsi(f.vrxSerial)).c_str(), OrNone(Utf8FromAnsi(f.tenantId)).c_str());

  const AddressExplanation& a = f.addresses;
  std::fprintf(out, "Addresses (host name %s", OrNone(Utf8FromAnsi(a.hostName)).c_str());
  if (a.addressCategory == 0)
    std::fprintf(out, "; AddressCategory 0: the host name's addresses)\n");
  else if (a.vpnFirst)
    std::fprintf(out, "; AddressCategory %u: the VPN adapter \"%s\" is up, its addresses alone)\n",
                 a.addressCategory, WideToUtf8(a.vpnAdapter).c_str());
  else
    std::fprintf(out, "; AddressCategory %u: the VPN adapter is down, the host name's addresses)\n",
                 a.addressCategory);
  if (a.resolveError != 0)
    std::fprintf(out, "  the host name does not resolve (error %d)\n", a.resolveError);
  for (const AddressDecision& d : a.decisions) {
    const bool sent = d.verdict == AddressVerdict::kReported;
    std::fprintf(out, "  %s %s%s%s\n", sent ? "sent    " : "left out",
                 AddressText(d.address).c_str(),
                 d.source == AddressSource::kVpnAdapter ? " (VPN adapter)" : "",
                 sent ? "" : (": " + VerdictText(d, a.addressCategory)).c_str());
  }
  if (a.decisions.empty()) std::fprintf(out, "  none\n");

  std::fprintf(out, "Sessions%s\n",
               f.enumerated ? "" : " (the system's session list could not be read)");
  for (const SessionFinding& s : f.sessions) {
    std::fprintf(out, "  session %u (%s%s): ", s.id,
                 s.state ? SessionStateName(*s.state) : "console session, not listed by the system",
                 s.current ? "; current" : "");
    if (s.hasUser)
      std::fprintf(out, "%s\\%s %s", s.sent.domain.c_str(), s.sent.user.c_str(),
                   LookupText(s.record.Lookup(), f.preferAzure).c_str());
    else
      std::fprintf(out, "no user: %s", LookupText(s.record.Lookup(), f.preferAzure).c_str());
    if (!s.excludedBy.empty())
      std::fprintf(out, "; EXCLUDED by the ExcludedUsers entry %s", s.excludedBy.c_str());
    std::fprintf(out, "\n");
  }
  if (f.sessions.empty()) std::fprintf(out, "  none\n");

  std::fprintf(out, "Now\n");
  if (f.nothingBecause.empty()) {
    const SessionRecord& r = f.current->sent;
    std::fprintf(
        out, "  the agent reports session %u: user %s, domain %s, workstation %s, addresses %s\n",
        f.current->id, r.user.c_str(), r.domain.c_str(), r.workstation.c_str(),
        Joined([&] {
          auto all = r.IPv4Text();
          for (auto& t : r.IPv6Text()) all.push_back(t);
          return all;
        }())
            .c_str());
    if (!r.azureAccount.empty())
      std::fprintf(out, "  with the Azure AD account attribute %s\n", r.azureAccount.c_str());
  } else {
    for (const std::string& why : f.nothingBecause)
      std::fprintf(out, "  nothing is reported: %s\n", why.c_str());
  }
}

// --- JSON ------------------------------------------------------------------------------

// A small writer of indented JSON: values in order, commas and indentation
// kept by the writer.
class CJson {
 public:
  explicit CJson(std::FILE* out) : m_out(out) {}
  void Begin(const char* key, char bracket) {
    Prefix(key);
    std::fputc(bracket, m_out);
    m_first.push_back(true);
  }
  void End(char bracket) {
    const bool empty = m_first.back();
    m_first.pop_back();
    if (!empty) Newline();
    std::fputc(bracket, m_out);
    if (m_first.empty()) std::fputc('\n', m_out);
  }
  void String(const char* key, const std::string& value) {
    Prefix(key);
    Quote(value);
  }
  void Number(const char* key, int64_t value) {
    Prefix(key);
    std::fprintf(m_out, "%lld", static_cast<long long>(value));
  }
  void Bool(const char* key, bool value) {
    Prefix(key);
    std::fputs(value ? "true" : "false", m_out);
  }
  void Null(const char* key) {
    Prefix(key);
    std::fputs("null", m_out);
  }
  void StringOrNull(const char* key, const std::string& value) {
    if (value.empty())
      Null(key);
    else
      String(key, value);
  }
  void Strings(const char* key, const std::vector<std::string>& values) {
    Begin(key, '[');
    for (const std::string& v : values) String(nullptr, v);
    End(']');
  }

 private:
  void Newline() {
    std::fputc('\n', m_out);
    for (size_t i = 0; i < m_first.size(); ++i) std::fputs("  ", m_out);
  }
  void Prefix(const char* key) {
    if (!m_first.empty()) {
      if (!m_first.back()) std::fputc(',', m_out);
      m_first.back() = false;
      Newline();
    }
    if (key) {
      Quote(key);
      std::fputs(": ", m_out);
    }
  }
  void Quote(const std::string& text) {
    std::fputc('"', m_out);
    for (const unsigned char c : text) {
      if (c == '"' || c == '\\')
        std::fprintf(m_out, "\\%c", c);
      else if (c < 0x20)
        std::fprintf(m_out, "\\u%04x", c);
      else
        std::fputc(c, m_out);
    }
    std::fputc('"', m_out);
  }
  std::FILE* m_out;
  std::vector<bool> m_first;  // per open container: nothing written in it yet
};

void PrintJson(const Findings& f, std::FILE* out) {
  CJson j(out);
  j.Begin(nullptr, '{');
  j.Number("format", 1);

  j.Begin("service", '{');
  j.String("name", WideToUtf8(kAgentServiceName));
  j.String("state", ServiceStateName(f.service));
  j.Number("error", f.serviceError);
  j.End('}');

  if (f.stateWritten) {
    j.Begin("agentState", '{');
    j.Number("value", f.state);
    j.String("name", StateName(f.state));
    j.End('}');
  } else {
    j.Null("agentState");
  }

  j.Begin("settings", '{');
  j.Bool("keyPresent", f.keyPresent);
  j.Number("enabled", f.enabled);
  j.Number("addressCategory", f.addressCategory);
  j.Number("preferAzure", f.preferAzure);
  j.String("presharedKey", f.keySet ? "set" : "not set");
  j.Begin("servers", '[');
  for (const ServerFinding& s : f.servers) {
    j.Begin(nullptr, '{');
    j.String("host", s.host);
    j.Number("port", s.port);
    j.Strings("resolvesTo", s.answers);
    j.Number("resolveError", s.resolveError);
    j.StringOrNull("connectsTo", s.connectsTo);
    j.Bool("lastAddressObtained", s.fallback);
    j.End('}');
  }
  j.End(']');
  j.Begin("serverVerification", '{');
  j.Bool("verify", f.verification.verify);
  j.Bool("pinList", f.verification.pinsConfigured);
  j.Number("pins", static_cast<int64_t>(f.verification.pins.size()));
  j.Strings("problems", f.verification.problems);
  j.End('}');
  j.Begin("excludedUsers", '{');
  std::vector<std::string> patterns;
  for (const auto& p : f.exclusions.Patterns()) patterns.push_back(WideToUtf8(p.text));
  j.Strings("patterns", patterns);
  j.Strings("problems", f.exclusionProblems);
  j.End('}');
  j.Bool("resendLogoff", f.resendLogoff);
  j.End('}');

  j.Begin("machine", '{');
  j.StringOrNull("hostName", Utf8FromAnsi(f.hostName));
  j.StringOrNull("dnsDomain", Utf8FromAnsi(f.dnsDomain));
  j.StringOrNull("deviceUuid", Utf8FromAnsi(f.deviceUuid));
  j.StringOrNull("managementServerSerial", Utf8FromAnsi(f.vrxSerial));
  j.StringOrNull("tenantId", Utf8FromAnsi(f.tenantId));
  j.End('}');

  const AddressExplanation& a = f.addresses;
  j.Begin("addresses", '{');
  j.Number("addressCategory", a.addressCategory);
  j.StringOrNull("vpnAdapter", WideToUtf8(a.vpnAdapter));
  j.Bool("vpnFirst", a.vpnFirst);
  j.Number("resolveError", a.resolveError);
  std::vector<std::string> v4, v6;
  for (const AddressDecision& d : a.decisions) {
    if (d.verdict != AddressVerdict::kReported) continue;
    (d.address.family == kFamilyIPv4 ? v4 : v6).push_back(AddressText(d.address));
  }
  j.Strings("ipv4", v4);
  j.Strings("ipv6", v6);
  j.Begin("leftOut", '[');
  for (const AddressDecision& d : a.decisions) {
    if (d.verdict == AddressVerdict::kReported) continue;
    j.Begin(nullptr, '{');
    j.String("address", AddressText(d.address));
    j.String("source", d.source == AddressSource::kVpnAdapter ? "vpn-adapter" : "host-name");
    j.String("reason", VerdictName(d.verdict));
    j.StringOrNull("adapter", Utf8FromAnsi(d.adapter));
    j.String("text", VerdictText(d, a.addressCategory));
    j.End('}');
  }
  j.End(']');
  j.End('}');

  j.Bool("sessionsListed", f.enumerated);
  j.Begin("sessions", '[');
  for (const SessionFinding& s : f.sessions) {
    const UserLookupOutcome& o = s.record.Lookup();
    j.Begin(nullptr, '{');
    j.Number("id", s.id);
    if (s.state)
      j.String("state", SessionStateName(*s.state));
    else
      j.Null("state");
    j.Bool("current", s.current);
    j.StringOrNull("user", s.hasUser ? s.sent.user : "");
    j.StringOrNull("domain", s.hasUser ? s.sent.domain : "");
    j.String("source", SourceName(o.source));
    j.String("domainLookup", DomainLookupName(o));
    j.Number("domainLookupError", o.domainError);
    j.String("azureLookup", AzureLookupName(o.azureResult));
    j.String("text", LookupText(o, f.preferAzure));
    j.StringOrNull("excludedBy", s.excludedBy);
    j.End('}');
  }
  j.End(']');

  j.Begin("now", '{');
  j.Bool("reports", f.nothingBecause.empty());
  if (f.current)
    j.Number("session", f.current->id);
  else
    j.Null("session");
  j.Strings("nothingBecause", f.nothingBecause);
  if (f.nothingBecause.empty()) {
    const SessionRecord& r = f.current->sent;
    j.Begin("record", '{');
    j.String("user", r.user);
    j.String("domain", r.domain);
    j.String("workstation", r.workstation);
    j.StringOrNull("azureAccount", r.azureAccount);
    j.StringOrNull("deviceUuid", r.deviceUuid);
    j.StringOrNull("managementServerSerial", r.vrxSerial);
    j.StringOrNull("tenantId", r.tenantId);
    j.Strings("ipv4", r.IPv4Text());
    j.Strings("ipv6", r.IPv6Text());
    j.End('}');
  } else {
    j.Null("record");
  }
  j.End('}');
  j.End('}');
}

}  // namespace

int RunReport(const DiagOptions& options, const Platform& platform, IServiceStatus* services,
              std::FILE* out, std::FILE* logOut) {
  CSocketLibraryScope sockets;
  if (!sockets.Ok()) {
    std::fprintf(out, "The socket library cannot start.\n");
    return kExitSetup;
  }
  // The agent's log lines go to the console with --verbose only, and never
  // into the agent's own log.
  CDiagSupport support(platform.support, options, logOut, true);
  CLog log(support);
  log.SetHandle(support.log_initialize(u"FA_LINDQ"));
  IRegistry& registry = *platform.registry;
  INetwork& network = *platform.network;

  Findings f;
  if (services) f.service = services->Query(kAgentServiceName, f.serviceError);
  f.stateWritten = ReadState(registry, f.state);

  {
    std::unique_ptr<IRegistryKey> key;
    f.keyPresent = registry.OpenKey(RegistryHive::kLocalMachine, kAgentKeyPath, reg_access::kRead,
                                    key) == kErrorSuccess &&
                   key;
  }
  f.enabled = ReadSettingsRecord(support).enabled;  // the view's copy of the key is wiped at once
  // Without its key the agent's start-up ends before the settings are read.
  CAgentSettings settings;
  if (f.keyPresent) settings.Load(support, log);
  f.addressCategory = settings.AddressCategory();
  f.preferAzure = settings.PreferAzure();
  f.keySet = !settings.PresharedKey().empty();
  f.verification = ReadServerVerification(registry);
  f.exclusions = CUserExclusions::Parse(ReadUserExclusions(registry), f.exclusionProblems);
  f.resendLogoff = ReadResendLogoff(registry);
  FindServers(f, settings.Servers(), network, log);

  f.hostName = ReadHostName(network);
  f.dnsDomain = ReadComputerDomain(network, log);
  CIdentifiers identifiers(log, support, registry);
  identifiers.LoadClientUuid();
  identifiers.LoadVrxSerial();
  identifiers.LoadVrxTenantId();
  f.deviceUuid = identifiers.ClientUuid();
  f.vrxSerial = identifiers.VrxSerial();
  f.tenantId = identifiers.VrxTenantId();

  CAddressDiscovery discovery(log, network, *platform.adapters, *platform.hyperv, f.hostName,
                              f.addressCategory);
  discovery.LoadHyperVExternalPorts();
  discovery.BuildVirtualAdapterList();
  f.addresses = discovery.ExplainIPAddress();

  FindSessions(f, platform, log);
  Judge(f);

  if (options.json)
    PrintJson(f, out);
  else
    PrintText(f, out);
  std::fflush(out);
  if (f.nothingBecause.empty()) return kExitOk;
  return f.servers.empty() ? kExitNotConfigured : kExitNothingReported;
}

}  // namespace lindqvar::diag
