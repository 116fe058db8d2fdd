// lindqvar-lab-authenticator: a lab stand-in for the authentication server.
// See docs/lab-authenticator.md.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "platform/os.h"
#include "tools/lab_authenticator/lab_output.h"
#include "tools/lab_authenticator/lab_server.h"
#include "tools/lab_authenticator/ntlm_acceptor.h"

using namespace lindqvar;
using namespace lindqvar::lab;

namespace {

#ifndef LINDQVAR_DEFAULT_PKI_DIR
#define LINDQVAR_DEFAULT_PKI_DIR ""
#endif

std::atomic<bool> g_stop{false};
void OnSignal(int) { g_stop.store(true); }

const char kUsage[] =
    "Usage: lindqvar-lab-authenticator --listen ADDRESS[:PORT] [options]\n"
    "\n"
    "Serves the authentication server's side of the agent's dialogue over TLS and\n"
    "shows who the agents report as logged on at which addresses.\n"
    "\n"
    "Where to listen (at least one; nothing is opened anywhere else):\n"
    "  --listen ADDR[:PORT]    IPv4 or [IPv6] literal; port 0 or none picks a free\n"
    "                          port, which is printed. Repeat for more addresses.\n"
    "Certificates:\n"
    "  --pki DIR               take ca.pem, server.pem and server.key from DIR\n"
    "                          (default: the build's development PKI)\n"
    "  --ca FILE               CA that agents' client certificates must chain to\n"
    "  --cert FILE             server certificate (PEM, chain allowed)\n"
    "  --key FILE              server key (PEM, no pass phrase)\n"
    "Dialogue:\n"
    "  --psk-file FILE         preshared key, from the first line of FILE\n"
    "  --psk KEY               preshared key (visible to other local users: prefer --psk-file)\n"
    "  --flags N               hello flags (default 1: digest required)\n"
    "  --hello-id N            hello id (default: random per connection)\n"
    "  --hello-result N        hello acknowledgement result (default: 1 when the\n"
    "                          digest checks out, else 0)\n"
    "  --event-result N        event acknowledgement result (default 1)\n"
    "  --keepalive SECONDS     keep-alive interval sent with the event acknowledgement\n"
    "NTLM proof of the user:\n"
    "  --ntlm-users FILE       ask for NTLM proof of every event's user (event result\n"
    "                          2) and check it against FILE, lines DOMAIN:user:password\n"
    "Faults:\n"
    "  --fault NAME            reject-hello, close-after-hello-ack, stall, stall-tls,\n"
    "                          oversized-frame, malformed-frame, short-frame, long-version,\n"
    "                          dribble, dribble-tls, ntlm-no-challenge, ntlm-wrong-reply,\n"
    "                          ntlm-bad-challenge, ntlm-no-result, refuse-logoff\n"
    "  --fault-connections N   only the first N connections misbehave (refuse-logoff:\n"
    "                          the first N logoffs; default: all)\n"
    "  --oversized-length N    length announced by oversized-frame (default 67108864)\n"
    "  --stall-ms N            longest stall (default 60000)\n"
    "  --dribble-ms N          dribble faults: pause before each byte (default 2000)\n"
    "  --io-timeout-ms N       limit of each read and write (default 10000)\n"
    "Running:\n"
    "  --exit-after N          stop after N connections\n"
    "  --json                  one JSON object per line instead of text\n"
    "  --help\n";

class COutput : public ILabSink {
 public:
  explicit COutput(bool json) : m_json(json) {}
  void OnListening(const SocketAddress& a) override {
    Print(m_json ? JsonListening(a) : TextListening(a));
  }
  void OnConnection(const ConnectionReport& r) override {
    Print(m_json ? JsonConnection(r) : TextConnection(r));
  }
  void OnTable(const CLogonTable& t) override { Print(m_json ? JsonTable(t) : t.FormatText()); }

 private:
  static void Print(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    if (line.empty() || line.back() != '\n') std::fputc('\n', stdout);
    std::fflush(stdout);
  }
  bool m_json;
};

bool ParseListen(const std::string& text, SocketAddress& out) {
  std::string host = text;
  uint16_t port = 0;
  std::string portText;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos) return false;
    host = text.substr(1, close - 1);
    if (close + 1 < text.size()) {
      if (text[close + 1] != ':') return false;
      portText = text.substr(close + 2);
    }
  } else if (std::count(text.begin(), text.end(), ':') == 1) {
    const size_t colon = text.find(':');
    host = text.substr(0, colon);
    portText = text.substr(colon + 1);
  }
  if (!portText.empty()) {
    char* end = nullptr;
    const unsigned long p = std::strtoul(portText.c_str(), &end, 10);
    if (*end || p > 65535) return false;
    port = static_cast<uint16_t>(p);
  }
  return SocketAddress::FromLiteral(host, port, out);
}

bool ParseNumber(const char* text, int64_t& out) {
  char* end = nullptr;
  const long long v = std::strtoll(text, &end, 0);
  if (!*text || *end || v < 0 || v > 0xFFFFFFFFLL) return false;
  out = v;
  return true;
}

int Fail(const std::string& message) {
  std::fprintf(stderr, "lindqvar-lab-authenticator: %s\n", message.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  LabOptions options;
  options.keepReports = false;  // a long-running server reports through its output only
  std::string pki = LINDQVAR_DEFAULT_PKI_DIR;
  bool json = false;
  int64_t exitAfter = 0;
  std::string psk;
  bool pskGiven = false;
  // The options that take a number: each sets one value.
  struct NumericOption {
    const char* name;
    std::function<void(int64_t)> set;
  };
  const auto u32 = [](int64_t n) { return static_cast<uint32_t>(n); };
  const NumericOption numeric[] = {
      {"--flags", [&](int64_t n) { options.helloFlags = u32(n); }},
      {"--hello-id", [&](int64_t n) { options.helloId = n; }},
      {"--hello-result", [&](int64_t n) { options.helloResult = n; }},
      {"--event-result", [&](int64_t n) { options.eventResult = u32(n); }},
      {"--keepalive", [&](int64_t n) { options.keepAliveInterval = u32(n); }},
      {"--fault-connections", [&](int64_t n) { options.faultConnections = u32(n); }},
      {"--oversized-length", [&](int64_t n) { options.oversizedLength = u32(n); }},
      {"--stall-ms", [&](int64_t n) { options.stallMs = u32(n); }},
      {"--dribble-ms", [&](int64_t n) { options.dribbleMs = u32(n); }},
      {"--io-timeout-ms", [&](int64_t n) { options.ioTimeoutMs = u32(n); }},
      {"--exit-after", [&](int64_t n) { exitAfter = n; }},
  };

  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char*& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    const char* v = nullptr;
    int64_t n = 0;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--json") {
      json = true;
    } else if (arg == "--listen") {
      SocketAddress a;
      if (!value(v) || !ParseListen(v, a))
        return Fail("--listen needs ADDRESS[:PORT] with an IP literal");
      options.listen.push_back(a);
    } else if (arg == "--pki") {
      if (!value(v)) return Fail("--pki needs a directory");
      pki = v;
    } else if (arg == "--ca") {
      if (!value(v)) return Fail("--ca needs a file");
      options.caFile = v;
    } else if (arg == "--cert") {
      if (!value(v)) return Fail("--cert needs a file");
      options.certFile = v;
    } else if (arg == "--key") {
      if (!value(v)) return Fail("--key needs a file");
      options.keyFile = v;
    } else if (arg == "--psk") {
      if (!value(v)) return Fail("--psk needs a key");
      psk = v;
      pskGiven = true;
    } else if (arg == "--psk-file") {
      if (!value(v)) return Fail("--psk-file needs a file");
      std::ifstream in(v, std::ios::binary);
      if (!in || !std::getline(in, psk)) return Fail(std::string("cannot read ") + v);
      if (!psk.empty() && psk.back() == '\r') psk.pop_back();
      pskGiven = true;
    } else if (arg == "--ntlm-users") {
      if (!value(v)) return Fail("--ntlm-users needs a file");
      std::string error;
      options.ntlm = MakeGssNtlmAcceptor(v, error);
      if (!options.ntlm) return Fail(error);
      options.eventResult = 2;
    } else if (arg == "--fault") {
      if (!value(v) || !ParseFault(v, options.fault)) return Fail("unknown --fault; see --help");
    } else if (const auto* number =
                   std::find_if(std::begin(numeric), std::end(numeric),
                                [&](const NumericOption& o) { return arg == o.name; });
               number != std::end(numeric)) {
      if (!value(v) || !ParseNumber(v, n))
        return Fail(arg + " needs a number from 0 to 4294967295");
      number->set(n);
    } else {
      return Fail("unknown option " + arg + "; see --help");
    }
  }
  if (options.listen.empty())
    return Fail("say where to listen with --listen (e.g. --listen 127.0.0.1:0)");
  if (!pki.empty()) {
    if (options.caFile.empty()) options.caFile = pki + "/ca.pem";
    if (options.certFile.empty()) options.certFile = pki + "/server.pem";
    if (options.keyFile.empty()) options.keyFile = pki + "/server.key";
  }
  if (options.caFile.empty() || options.certFile.empty() || options.keyFile.empty())
    return Fail("no certificates: give --pki DIR or --ca, --cert and --key");
  if (!pskGiven)
    std::fprintf(stderr,
                 "lindqvar-lab-authenticator: no preshared key given; using an empty one\n");
  options.presharedKey = psk;

  CSocketLibraryScope sockets;
  ::signal(SIGINT, OnSignal);
  ::signal(SIGTERM, OnSignal);

  COutput output(json);
  CLabAuthenticator server(options, &output);
  std::string error;
  if (!server.Start(error)) return Fail(error);
  while (!g_stop.load()) {
    if (exitAfter > 0 && server.Finished() >= static_cast<uint64_t>(exitAfter)) break;
    SleepMs(50);
  }
  server.Stop();
  return 0;
}
