#include "tools/diag/diag.h"

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>

#include "agent/settings.h"
#include "agent/state.h"
#include "agent/verification_settings.h"
#include "platform/log.h"
#include "platform/os.h"
#include "platform/socket.h"
#include "protocol/delivery/authenticator_client.h"
#include "protocol/messages/event.h"
#include "protocol/ntlm/ntlm_relay.h"
#include "protocol/transport/vlx_crypt.h"
#include "tools/diag/diag_support.h"

namespace lindqvar::diag {

const char kUsage[] =
    "Usage: lindqvar-diag check|send|report [options]\n"
    "\n"
    "  check   TLS, hello and hello acknowledgement with every configured server;\n"
    "          no event is sent. Tells whether the network path, the certificates\n"
    "          and the preshared key are right.\n"
    "  send    delivers one event to every configured server and prints each\n"
    "          acknowledgement.\n"
    "  report  what the agent of this machine would report now, and why: every\n"
    "          session with its user (or why it has none, or which ExcludedUsers\n"
    "          entry excludes it), the addresses sent and every address left out\n"
    "          with its reason, the identifiers, the settings as the agent parses\n"
    "          them (servers with their addresses; the key only as set or not set),\n"
    "          LINDQState and the agent service. Sends nothing; Windows only.\n"
    "          Takes only --json (a stable JSON shape, see docs/diag.md) and\n"
    "          --verbose.\n"
    "\n"
    "Settings (on Windows, what is not given here comes from the agent's registry\n"
    "settings):\n"
    "  --servers LIST         servers in the settings' own format: host[:port] items\n"
    "                         separated by \";\" or \",\"\n"
    "  --server HOST[:PORT]   one server (repeatable); IPv6 literals in brackets,\n"
    "                         e.g. [::1]:8001; the port defaults to 8001\n"
    "  --key-file FILE        preshared key, from the first line of FILE\n"
    "  --key KEY              preshared key (other local users can see a command\n"
    "                         line: prefer --key-file)\n"
    "Event (send):\n"
    "  --user NAME            the user to report (required)\n"
    "  --domain NAME          the user's domain (required)\n"
    "  --workstation NAME     the workstation name as the server should see it,\n"
    "                         e.g. PC42.CORP.EXAMPLE (required)\n"
    "  --ip ADDRESS           an address of the user's session, IPv4 or IPv6\n"
    "                         (repeatable; at most 4 of each family)\n"
    "  --logoff               withdraw the user instead of reporting a logon\n"
    "  --session N            session id shown in log lines (default 1)\n"
    "Other:\n"
    "  --client-guid TEXT     client GUID sent in the hello (default: the endpoint\n"
    "                         client's own, on Windows)\n"
    "  --fips                 behave as the agent does in FIPS mode\n"
    "  --verify-server        refuse servers that fail verification, as the agent\n"
    "                         does with VerifyServer 1 (whatever the setting, every\n"
    "                         server's result and fingerprint are shown)\n"
    "  --pin SHA256           a fingerprint for the pin list (repeatable); replaces\n"
    "                         the agent's ServerCertificateSha256\n"
    "  --timeout-ms N         limit of every message read or written (default 5000,\n"
    "                         as the agent); the whole exchange with one server is\n"
    "                         limited to four times that\n"
    "  --ntlm-user DOMAIN\\USER  when a server asks for NTLM proof, prove this user\n"
    "  --ntlm-password-file FILE  ... with the password from the first line of FILE\n"
    "                         (without them: the user of --session, as the agent does;\n"
    "                         Windows only)\n"
    "  --verbose              also show every debug line the agent's code logs\n"
    "  --help\n"
    "\n"
    "Exit codes: 0 every server passed (report: the current session would be\n"
    "reported), 1 some servers failed, 2 every server failed, 3 wrong command line,\n"
    "4 no server configured, 6 cannot start (sockets or certificate material),\n"
    "7 report: nothing would be reported now (the output says why).\n";

namespace {

bool ParseUnsigned(const std::string& text, uint32_t& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  if (*end || v > 0xFFFFFFFFull) return false;
  out = static_cast<uint32_t>(v);
  return true;
}

// HOST[:PORT] with IPv6 literals in brackets (kept in the host, as the
// agent's settings keep them).
bool ParseServer(const std::string& text, ServerEntry& out) {
  std::string host = text;
  std::string port;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos) return false;
    host = text.substr(0, close + 1);
    if (close + 1 < text.size()) {
      if (text[close + 1] != ':') return false;
      port = text.substr(close + 2);
    }
  } else if (std::count(text.begin(), text.end(), ':') == 1) {
    host = text.substr(0, text.find(':'));
    port = text.substr(text.find(':') + 1);
  }
  if (host.empty() || host.size() >= sizeof out.host) return false;
  uint32_t p = kDefaultServerPort;
  if (!port.empty() && (!ParseUnsigned(port, p) || p == 0 || p > 65535)) return false;
  std::memset(out.host, 0, sizeof out.host);
  std::memcpy(out.host, host.data(), host.size());
  const std::u16string wide = AnsiToWide(host);
  std::memset(out.hostW, 0, sizeof out.hostW);
  std::copy_n(wide.begin(), std::min(wide.size(), std::size(out.hostW) - 1), out.hostW);
  out.port = p;
  return true;
}

// Name resolution through the system's resolver.
class CDiagNetwork : public INetwork {
 public:
  void Startup() override {}
  void Cleanup() override {}
  std::string HostName() override { return {}; }
  int Resolve(const std::string& name, std::vector<ResolvedAddress>& out) override {
    return ResolveName(name, out);
  }
  bool PhysicalDnsDomain(std::u16string& domain, uint32_t& error) override {
    domain.clear();
    error = 0;
    return true;
  }
  std::unique_ptr<IAddressChangeWatch> CreateAddressChangeWatch() override { return nullptr; }
};

// Each stage a dialogue can end at, in the order of ExchangeStage: its name
// and what it means.
struct StageText {
  const char* name;
  const char* advice;
};
constexpr StageText kStageTexts[] = {
    {"resolve", "the server's name does not resolve (and no earlier address is known)"},
    {"socket", "no socket could be created"},
    {"connect",
     "no TCP connection: nothing listens there, the connection was refused, or a "
     "firewall drops it"},
    {"verify", "server verification is on and the server's certificate failed it (see above)"},
    {"hello",
     "no hello from the server: the TLS handshake failed (does the server accept the "
     "agent's client certificate?) or the server said nothing in time"},
    {"hello-parse",
     "the server's first message was not a hello the agent accepts (another "
     "message, or a version text of 32 bytes or more)"},
    {"hello-ack", "no hello acknowledgement from the server"},
    {"hello-reject", "the server rejected the hello: check the preshared key"},
    {"event-ack",
     "no event acknowledgement: the server closed or stopped answering after the hello"},
    {"done", ""},
};
static_assert(std::size(kStageTexts) == static_cast<size_t>(ExchangeStage::kDone) + 1);

class CDiagObserver : public IExchangeObserver {
 public:
  CDiagObserver(std::FILE* out, size_t total, bool eventMode, const CNtlmRelay* relay)
      : m_out(out), m_total(total), m_eventMode(eventMode), m_relay(relay) {}

  // Printed before each exchange, so the agent's log lines follow it.
  void OnExchangeStart(const ServerEntry& server) override {
    ++m_index;
    std::fprintf(m_out, "[%zu/%zu] %s port %u\n", m_index, m_total, server.host, server.port);
    std::fflush(m_out);
  }

  void OnExchange(const ExchangeReport& r) override {
    if (r.address.IsValid()) std::fprintf(m_out, "      address %s\n", r.address.Text());
    if (!r.tlsVersion.empty())
      std::fprintf(m_out, "      TLS %s, %s\n", r.tlsVersion.c_str(), r.cipher.c_str());
    const ServerCertificateCheck& c = r.certificate;
    if (c.seen) {
      std::fprintf(m_out, "      server certificate %s\n      SHA-256 %s\n", c.subject.c_str(),
                   Sha256Text(c.sha256).c_str());
      const std::string host = r.server.host;
      if (c.Passes())
        std::fprintf(m_out,
                     "      server verification: passes (the chain verifies against the built-in "
                     "CA bundle, the certificate is issued for %s%s)\n",
                     host.c_str(), c.settings.pinsConfigured ? ", it is in the pin list" : "");
      else
        std::fprintf(m_out, "      server verification: FAILS: %s; %s\n", c.Reason(host).c_str(),
                     c.settings.verify ? "the agent refuses this server"
                                       : "with VerifyServer 0 the agent connects all the same");
    }
    if (r.stage > ExchangeStage::kHelloParse)
      std::fprintf(m_out, "      hello from \"%s\" (id %u, flags %u: %s)\n",
                   r.serverVersion.c_str(), r.helloId, r.helloFlags,
                   (r.helloFlags & 1) ? "preshared-key digest required" : "no digest required");
    if (r.stage > ExchangeStage::kHelloReject || r.stage == ExchangeStage::kDone)
      std::fprintf(m_out, "      hello accepted\n");
    else if (r.stage == ExchangeStage::kHelloReject)
      std::fprintf(m_out, "      hello rejected with result %u\n", r.helloResult);
    if (r.stage == ExchangeStage::kDone && m_eventMode) {
      if (r.eventAckRecognised) {
        std::fprintf(m_out, "      event acknowledged: result %u", r.eventResult);
        if (r.keepAliveInterval)
          std::fprintf(m_out, ", keep-alive interval %u s", r.keepAliveInterval);
        std::fprintf(m_out, "\n");
        if (r.eventResult == 2 && !m_relay)
          std::fprintf(m_out,
                       "      the server asks for NTLM authentication of the user; this tool "
                       "does not run it here\n");
        if (r.eventResult == 2 && m_relay) PrintRelay(m_relay->LastOutcome());
      } else {
        std::fprintf(m_out,
                     "      the reply was not an event acknowledgement (the agent counts the "
                     "event as delivered all the same)\n");
      }
    }
    if (r.stage == ExchangeStage::kDone) {
      ++m_passed;
      std::fprintf(m_out, "      OK\n");
    } else {
      const StageText& text = kStageTexts[static_cast<size_t>(r.stage)];
      std::fprintf(m_out, "      FAILED at %s: %s\n", text.name, text.advice);
    }
    std::fflush(m_out);
  }

  size_t Passed() const { return m_passed; }

 private:
  void PrintRelay(const NtlmOutcome& o) {
    std::fprintf(m_out, "      NTLM relay (exchange key %u): ", o.key);
    if (o.result == 1)
      std::fprintf(m_out, "the server says the user is proven (result 1)\n");
    else if (o.result >= 0)
      std::fprintf(m_out, "the server says the proof FAILED (result %d)\n", o.result);
    else
      std::fprintf(m_out, "ended early: %s\n", o.failure.c_str());
  }
  std::FILE* m_out;
  size_t m_total;
  bool m_eventMode;
  const CNtlmRelay* m_relay;
  size_t m_index = 0;
  size_t m_passed = 0;
};

// Prints what the built-in client identity is; false when the material
// cannot be read at all.
bool DescribeClientIdentity(std::FILE* out, bool fips) {
  const CertificateMaterial& material = BuiltInCertificateMaterial();
  CSecureBuffer text;
  if (decrypt_blob(material, material.clientCertificate, text) != 0) {
    std::fprintf(out, "The built-in certificate material cannot be decrypted.\n");
    return false;
  }
  BIO* bio = BIO_new_mem_buf(text.Data(), -1);
  X509* cert = bio ? PEM_read_bio_X509(bio, nullptr, nullptr, nullptr) : nullptr;
  BIO_free(bio);
  if (!cert) {
    std::fprintf(out, "The built-in client certificate cannot be read.\n");
    return false;
  }
  char subject[256] = {}, issuer[256] = {};
  X509_NAME_oneline(X509_get_subject_name(cert), subject, sizeof subject);
  X509_NAME_oneline(X509_get_issuer_name(cert), issuer, sizeof issuer);
  std::fprintf(out, "Client certificate %s, issued by %s\n", subject, issuer);
  if (X509_cmp_current_time(X509_get0_notAfter(cert)) < 0)
    std::fprintf(out, "  WARNING: it has expired; servers will refuse it\n");
  if (fips && !VlxX509IsFipsCompliant(cert))
    std::fprintf(out,
                 "  WARNING: FIPS mode is on and the certificate is not FIPS compliant: the agent "
                 "connects without a client certificate\n");
  X509_free(cert);
  return true;
}

}  // namespace

bool ParseArguments(const std::vector<std::string>& args, DiagOptions& out, std::string& error) {
  DiagOptions o;
  std::string firstDeliveryOption;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string& v) {
      if (i + 1 >= args.size()) {
        error = a + " needs a value";
        return false;
      }
      v = args[++i];
      return true;
    };
    std::string v;
    if (a == "--help" || a == "-h") {
      o.help = true;
    } else if (a == "check" || a == "send" || a == "report") {
      if (!o.command.empty()) {
        error = "give one command: check, send or report";
        return false;
      }
      o.command = a;
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--verbose" || a == "-v") {
      o.verbose = true;
    } else if (a == "--servers") {
      if (!value(o.serverList)) return false;
    } else if (a == "--server") {
      if (!value(v)) return false;
      ServerEntry probe;
      if (!ParseServer(v, probe)) {
        error = "--server " + v + ": expected HOST[:PORT] (IPv6 as [ADDRESS]:PORT), port 1-65535";
        return false;
      }
      o.servers.push_back(v);
    } else if (a == "--key") {
      if (!value(o.key)) return false;
      o.keyGiven = true;
    } else if (a == "--key-file") {
      if (!value(v)) return false;
      std::ifstream in(v, std::ios::binary);
      if (!in) {
        error = "cannot read the key file " + v;
        return false;
      }
      std::string line;
      std::getline(in, line);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      o.key = std::move(line);  // the line's buffer is wiped by the move
      o.keyGiven = true;
    } else if (a == "--user") {
      if (!value(o.event.user)) return false;
    } else if (a == "--domain") {
      if (!value(o.event.domain)) return false;
    } else if (a == "--workstation") {
      if (!value(o.event.workstation)) return false;
    } else if (a == "--ip") {
      if (!value(v)) return false;
      SocketAddress parsed;
      if (!SocketAddress::FromLiteral(v, 0, parsed)) {
        error = "--ip " + v + " is not an IPv4 or IPv6 address";
        return false;
      }
      if (parsed.family == kFamilyIPv4) {
        if (o.event.ipv4.size() == 4) {
          error = "at most 4 IPv4 addresses";
          return false;
        }
        uint32_t n;
        std::memcpy(&n, parsed.bytes.data(), 4);
        o.event.ipv4.push_back(n);
      } else {
        if (o.event.ipv6.size() == 4) {
          error = "at most 4 IPv6 addresses";
          return false;
        }
        o.event.ipv6.push_back(parsed.bytes);
      }
    } else if (a == "--logoff") {
      o.event.logon = 0;
    } else if (a == "--session") {
      if (!value(v) || !ParseUnsigned(v, o.session)) {
        error = "--session needs a number";
        return false;
      }
    } else if (a == "--client-guid") {
      if (!value(o.clientGuid)) return false;
    } else if (a == "--fips") {
      o.fips = true;
    } else if (a == "--verify-server") {
      o.verifyServer = true;
    } else if (a == "--pin") {
      if (!value(v)) return false;
      Sha256 pin;
      if (!ParseSha256Fingerprint(v, pin)) {
        error = "--pin " + v + " is not a SHA-256 fingerprint (64 hex digits)";
        return false;
      }
      o.pins += (o.pinsGiven ? ";" : "") + v;
      o.pinsGiven = true;
    } else if (a == "--timeout-ms") {
      if (!value(v) || !ParseUnsigned(v, o.timeoutMs) || o.timeoutMs == 0) {
        error = "--timeout-ms needs a number above 0";
        return false;
      }
    } else if (a == "--ntlm-user") {
      if (!value(v) || v.find('\\') == std::string::npos) {
        error = "--ntlm-user needs DOMAIN\\USER";
        return false;
      }
      o.ntlmUser = v;
    } else if (a == "--ntlm-password-file") {
      std::ifstream in;
      if (value(v)) in.open(v, std::ios::binary);
      if (!in || !std::getline(in, o.ntlmPassword)) {
        error = "--ntlm-password-file: cannot read " + v;
        return false;
      }
      if (!o.ntlmPassword.empty() && o.ntlmPassword.back() == '\r') o.ntlmPassword.pop_back();
    } else {
      error = "unknown argument " + a;
      return false;
    }
    // Every option but these three is for check and send.
    const bool reportOption = a == "--help" || a == "--json" || a == "--verbose";
    if (firstDeliveryOption.empty() && a.rfind("--", 0) == 0 && !reportOption)
      firstDeliveryOption = a;
  }
  if (o.help) {
    out = o;
    return true;
  }
  if (o.command.empty()) {
    error = "say what to do: check, send or report";
    return false;
  }
  if (o.command == "report" && !firstDeliveryOption.empty()) {
    error =
        "report reads the agent's own settings; " + firstDeliveryOption + " is for check and send";
    return false;
  }
  if (o.json && o.command != "report") {
    error = "--json is for report";
    return false;
  }
  if (o.command == "send" &&
      (o.event.user.empty() || o.event.domain.empty() || o.event.workstation.empty())) {
    error = "send needs --user, --domain and --workstation";
    return false;
  }
  out = o;
  return true;
}

int RunDiag(const DiagOptions& options, ISupportLibrary* system, IRegistry* registry,
            std::FILE* out, ISecurityPackage* ntlm, IImpersonation* impersonation) {
  CSocketLibraryScope sockets;
  if (!sockets.Ok()) {
    std::fprintf(out, "The socket library cannot start.\n");
    return kExitSetup;
  }
  CDiagSupport support(system, options, out);
  CLog log(support);
  log.SetHandle(support.log_initialize(u"FA_LINDQ"));

  // The servers and key: the command line first, then the agent's settings.
  ServerList servers;
  SecretString key(options.key);
  SettingsRecordView settings;
  if (system) settings = ReadSettingsRecord(*system);
  if (!options.servers.empty()) {
    for (const auto& text : options.servers) {
      auto entry = std::make_unique<ServerEntry>();
      ParseServer(text, *entry);
      servers.push_back(std::move(entry));
    }
    std::fprintf(out, "Servers from the command line\n");
  } else if (!options.serverList.empty()) {
    ParseServerList(options.serverList, servers);
    std::fprintf(out, "Servers from --servers\n");
  } else if (!settings.serverList.empty()) {
    ParseServerList(WideToAnsi(settings.serverList), servers);
    std::fprintf(out, "Servers from the agent's settings\n");
  }
  if (!options.keyGiven) {
    key = WideToUtf8(settings.presharedKey);
    if (system) std::fprintf(out, "Preshared key from the agent's settings\n");
  }
  if (servers.empty()) {
    std::fprintf(out, "No server is configured: give --server or --servers%s.\n",
                 system ? ", or set \"Servers\" in the agent's settings" : "");
    return kExitNotConfigured;
  }
  if (key.empty())
    std::fprintf(out,
                 "WARNING: the preshared key is empty; servers that require a digest will "
                 "reject the hello\n");
  else if (key.size() > 16)
    std::fprintf(out,
                 "NOTE: the preshared key is longer than 16 bytes; only its first 16 bytes "
                 "count\n");

  if (!DescribeClientIdentity(out, support.cfg_is_fips_mode_enabled())) return kExitSetup;

  // Server verification: the agent's values, then the command line.
  ServerVerification verification;
  if (registry) verification = ReadServerVerification(*registry);
  if (options.verifyServer) verification.verify = true;
  if (options.pinsGiven) {
    verification.pins.clear();
    verification.pinsConfigured = false;
    AddServerPins(options.pins, verification);
  }
  for (const std::string& problem : verification.problems)
    std::fprintf(out, "WARNING: %s\n", problem.c_str());
  std::fprintf(out, "Server verification %s%s", verification.verify ? "on" : "off",
               options.verifyServer ? " (--verify-server)"
               : registry           ? " (VerifyServer)"
                                    : "");
  if (verification.pinsConfigured)
    std::fprintf(out, ", pin list of %zu fingerprint(s)%s", verification.pins.size(),
                 options.pinsGiven ? " (--pin)" : " (ServerCertificateSha256)");
  std::fprintf(out, "%s\n",
               verification.verify ? ": servers that fail it are refused"
                                   : ": every server is accepted; each one's result is shown");

  // --timeout-ms scales both limits; the defaults are the agent's own.
  Timings timings;
  const uint64_t exchangeLimit =
      uint64_t{timings.exchangeLimitMs} * options.timeoutMs / timings.socketTimeoutMs;
  timings.socketTimeoutMs = options.timeoutMs;
  timings.exchangeLimitMs = static_cast<uint32_t>(std::min<uint64_t>(exchangeLimit, UINT32_MAX));
  CDiagNetwork network;
  CAuthenticatorClient client(log, support, network, timings);
  client.SetConfiguration(MakeDeliveryConfig(servers, key));
  uint32_t state = 0;
  client.SetReachabilityCallback([&state](uint32_t s) { state = s; });
  const bool eventMode = options.command == "send";
  std::unique_ptr<CNtlmPackage> ntlmPackage;
  std::unique_ptr<CNtlmRelay> relay;
  AuthIdentity identity;
  if (eventMode && ntlm && impersonation) {
    // The package's own prints would mix with this report: drop them.
    ntlmPackage = std::make_unique<CNtlmPackage>(*ntlm, [](const std::string&) {});
    ntlmPackage->PreparePackage();
    relay = std::make_unique<CNtlmRelay>(log, support, *impersonation, *ntlmPackage);
    if (!options.ntlmUser.empty()) {
      const size_t slash = options.ntlmUser.find('\\');
      identity.domain = Utf8ToWide(options.ntlmUser.substr(0, slash));
      identity.user = Utf8ToWide(options.ntlmUser.substr(slash + 1));
      identity.password = Utf8ToWide(options.ntlmPassword);
      relay->SetExplicitCredentials(&identity);
    }
    client.SetNtlmRelay(relay.get());
  }
  CDiagObserver observer(out, servers.size(), eventMode, relay.get());
  client.SetObserver(&observer);
  client.SetServerVerification(verification);

  if (eventMode) {
    EventMessage event{{options.event}};
    if (!event.records[0].time) event.records[0].time = static_cast<uint32_t>(std::time(nullptr));
    CEncoder message(kEventEncoderCapacity);
    event.Write(message);
    client.Deliver(options.session, message);
  } else {
    client.CheckServers();
  }

  const size_t passed = observer.Passed();
  std::fprintf(out, "%zu of %zu server(s) passed", passed, servers.size());
  if (eventMode)
    std::fprintf(out, "; the agent's state after such a pass: %u (%s)", state, StateName(state));
  std::fprintf(out, "\n");
  if (passed == servers.size()) return kExitOk;
  return passed ? kExitSomeFailed : kExitAllFailed;
}

}  // namespace lindqvar::diag
