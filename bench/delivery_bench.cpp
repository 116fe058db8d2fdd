// One delivery pass of the agent to a lab authenticator on 127.0.0.1,
// against a minimal OpenSSL client that does the same: a fresh TCP
// connection, a full TLS handshake with the same client certificate, the
// hello, the digest reply, the hello acknowledgement, the event and the event
// acknowledgement, then the close. Both run against the same server in the
// same process, alternately (each goes first every other time), so the
// ratio compares like with like. Both have their TLS context made before
// the timed passes: the minimal client in its constructor, the agent on an
// untimed first pass (it makes its context on first use).
//
//   agent_ms     mean time of one agent pass (one server)
//   openssl_ms   mean time of the minimal client's exchange
//   ratio        agent_ms / openssl_ms
//   agent_cpu_ms, openssl_cpu_ms
//                the median over the passes of the CPU time (user and
//                system) of the calling thread in one pass, the server's
//                excluded: far less noisy than the times on a loaded machine
//
// Three runs; the closing line holds the medians of both and their ratio.
#include <benchmark/benchmark.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/closing_line.h"
#include "platform/log.h"
#include "platform/socket.h"
#include "protocol/delivery/authenticator_client.h"
#include "protocol/messages/event.h"
#include "protocol/messages/hello.h"
#include "tools/lab_authenticator/lab_server.h"

namespace lindqvar {
namespace {

constexpr char kKey[] = "bench-preshared";

std::string Pki(const char* name) { return std::string(LINDQVAR_BENCH_PKI_DIR) + "/" + name; }

// A support library that does nothing: the agent logs nothing in either
// run (no log handle), so only the protocol work is compared.
class QuietSupport : public ISupportLibrary {
 public:
  LogHandle log_initialize(std::u16string_view) override { return nullptr; }
  void log_deinitialize(LogHandle) override {}
  void log_setlevel(LogHandle, uint32_t) override {}
  void log_debug(LogHandle, std::string_view) override {}
  void log_error(LogHandle, std::string_view) override {}
  void LogW(uint32_t, const char16_t*) override {}
  void LogW(uint32_t, uint32_t, std::span<const LogField>) override {}
  uint32_t get_desired_status(uint32_t, std::u16string_view) override { return 0; }
  void cfg_get_lindqvar_settings(uint8_t*) override {}
  void cfg_get_logging_info(uint8_t*) override {}
  bool cfg_is_fips_mode_enabled() override { return false; }
  bool cfg_get_velmora_guid(std::u16string&) override { return false; }
  SupportKeyHandle reg_openkeyW(SupportHive, std::u16string_view) override { return nullptr; }
  void reg_closekeyW(SupportKeyHandle) override {}
  bool reg_getstringW(SupportKeyHandle, std::u16string_view, std::u16string&, uint32_t*) override {
    return false;
  }
  bool reg_valueexistsbykeyW(SupportKeyHandle, std::u16string_view) override { return false; }
  bool GetTokenOfSession(uint32_t, std::unique_ptr<IUserToken>&) override { return false; }
};

class NoNetwork : public INetwork {
 public:
  void Startup() override {}
  void Cleanup() override {}
  std::string HostName() override { return {}; }
  int Resolve(const std::string&, std::vector<ResolvedAddress>&) override { return 11001; }
  bool PhysicalDnsDomain(std::u16string&, uint32_t&) override { return false; }
  std::unique_ptr<IAddressChangeWatch> CreateAddressChangeWatch() override { return nullptr; }
};

// The same one-record logon event as the delivery tests send.
void BuildEvent(CEncoder& e) {
  EventMessage{{{.logon = 1,
                 .domain = "corp",
                 .user = "alice",
                 .workstation = "ws1.corp.example",
                 .ipv4 = {0x0A0200C0},
                 .time = 1700000000}}}
      .Write(e);
}

// The CPU time the calling thread has used, in milliseconds.
double ThreadCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

// Reads one length-prefixed message into `out`.
bool ReadMessage(SSL* ssl, std::vector<uint8_t>& out) {
  uint8_t prefix[4];
  for (int got = 0; got < 4;) {
    const int n = SSL_read(ssl, prefix + got, 4 - got);
    if (n <= 0) return false;
    got += n;
  }
  const uint32_t total = (uint32_t{prefix[0]} << 24) | (uint32_t{prefix[1]} << 16) |
                         (uint32_t{prefix[2]} << 8) | prefix[3];
  if (total < 6 || total > (1u << 20)) return false;
  out.assign(prefix, prefix + 4);
  out.resize(total);
  for (uint32_t got = 4; got < total;) {
    const int n = SSL_read(ssl, out.data() + got, static_cast<int>(total - got));
    if (n <= 0) return false;
    got += static_cast<uint32_t>(n);
  }
  return true;
}

// The minimal client: the same exchange written directly on OpenSSL, with
// a small hand-made reply and the same event bytes.
class MinimalClient {
 public:
  MinimalClient() {
    m_ctx = SSL_CTX_new(TLS_client_method());
    SSL_CTX_use_certificate_file(m_ctx, Pki("client.pem").c_str(), SSL_FILETYPE_PEM);
    const std::string pass = [] {
      FILE* f = std::fopen(Pki("client.pass").c_str(), "rb");
      char buffer[64] = {};
      if (f) {
        std::fread(buffer, 1, sizeof buffer - 1, f);
        std::fclose(f);
      }
      return std::string(buffer);
    }();
    SSL_CTX_set_default_passwd_cb_userdata(m_ctx, const_cast<char*>(pass.c_str()));
    SSL_CTX_use_PrivateKey_file(m_ctx, Pki("client.key").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_default_passwd_cb_userdata(m_ctx, nullptr);
    // The agent's context holds its CA bundle too, so both check the
    // server's chain during the handshake.
    SSL_CTX_load_verify_locations(m_ctx, Pki("ca.pem").c_str(), nullptr);
    BuildEvent(m_event);
  }
  ~MinimalClient() { SSL_CTX_free(m_ctx); }

  bool Exchange(const SocketAddress& server) {
    CSocket s = CSocket::Open(server.family);
    if (s.Connect(server) != 0) return false;
    SSL* ssl = SSL_new(m_ctx);
    SSL_set_fd(ssl, static_cast<int>(s.Native()));
    bool ok = SSL_connect(ssl) == 1;
    std::vector<uint8_t> in;
    ok = ok && ReadMessage(ssl, in);
    if (ok) {
      // The hello, and the reply with the digest.
      CDecoder d(in.data(), static_cast<uint32_t>(in.size()));
      Hello hello;
      hello.Read(d);
      Hello reply{hello.id, hello.flags, "Velmora Extension 1.1"};
      uint8_t key[16];
      PresharedKeyBlock(kKey, key);
      compute_response(hello.digest.data(), key, reply.digest.data());
      CEncoder message(kReplyEncoderCapacity);
      reply.Write(message);
      uint32_t n = 0;
      const uint8_t* p = message.get_buffer(&n);
      SSL_write(ssl, p, static_cast<int>(n));
      ok = ReadMessage(ssl, in);
    }
    if (ok) {
      uint32_t n = 0;
      const uint8_t* p = m_event.get_buffer(&n);
      SSL_write(ssl, p, static_cast<int>(n));
      ok = ReadMessage(ssl, in);
    }
    SSL_set_quiet_shutdown(ssl, 1);
    SSL_shutdown(ssl);
    SSL_free(ssl);
    s.ShutdownBoth();
    return ok;
  }

 private:
  SSL_CTX* m_ctx;
  CEncoder m_event{kEventEncoderCapacity};
};

void BM_DeliveryPassVersusMinimalOpenSslClient(benchmark::State& state) {
  lab::LabOptions options;
  SocketAddress at;
  SocketAddress::FromLiteral("127.0.0.1", 0, at);
  options.listen = {at};
  options.caFile = LINDQVAR_BENCH_CLIENT_CA;
  options.certFile = Pki("server.pem");
  options.keyFile = Pki("server.key");
  options.presharedKey = kKey;
  lab::CLabAuthenticator server(options, nullptr);
  std::string error;
  if (!server.Start(error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  const SocketAddress bound = server.Listening()[0];

  QuietSupport support;
  CLog log(support);
  NoNetwork network;
  ServerList servers;
  auto entry = std::make_unique<ServerEntry>();
  std::strcpy(entry->host, "127.0.0.1");
  entry->port = bound.port;
  servers.push_back(std::move(entry));
  std::string key = kKey;
  Timings timings;
  CAuthenticatorClient agent(log, support, network, timings);
  agent.SetConfiguration(MakeDeliveryConfig(servers, key));
  CEncoder event(kEventEncoderCapacity);
  BuildEvent(event);
  MinimalClient minimal;

  // The untimed first pass of each, which leaves both with a context.
  int64_t failures = 0;
  if (!agent.Deliver(1, event).delivered) ++failures;
  if (!minimal.Exchange(bound)) ++failures;

  using Clock = std::chrono::steady_clock;
  Clock::duration agentTime{}, minimalTime{};
  std::vector<double> agentCpuMs, minimalCpuMs;
  bool agentFirst = true;
  for (auto _ : state) {
    const auto agentPass = [&] {
      const double c0 = ThreadCpuMs();
      const auto t0 = Clock::now();
      if (!agent.Deliver(1, event).delivered) ++failures;
      agentTime += Clock::now() - t0;
      agentCpuMs.push_back(ThreadCpuMs() - c0);
    };
    const auto minimalPass = [&] {
      const double c0 = ThreadCpuMs();
      const auto t0 = Clock::now();
      if (!minimal.Exchange(bound)) ++failures;
      minimalTime += Clock::now() - t0;
      minimalCpuMs.push_back(ThreadCpuMs() - c0);
    };
    if (agentFirst) {
      agentPass();
      minimalPass();
    } else {
      minimalPass();
      agentPass();
    }
    agentFirst = !agentFirst;
  }
  server.Stop();
  if (failures) state.SkipWithError("an exchange failed");
  const double n = static_cast<double>(state.iterations());
  const double agentMs = std::chrono::duration<double, std::milli>(agentTime).count() / n;
  const double minimalMs = std::chrono::duration<double, std::milli>(minimalTime).count() / n;
  state.counters["agent_ms"] = agentMs;
  state.counters["openssl_ms"] = minimalMs;
  state.counters["ratio"] = agentMs / minimalMs;
  state.counters["agent_cpu_ms"] = Median(agentCpuMs);
  state.counters["openssl_cpu_ms"] = Median(minimalCpuMs);
}

}  // namespace
}  // namespace lindqvar

int main(int argc, char** argv) {
  using namespace lindqvar::bench;
  const std::string name = "BM_DeliveryPassVersusMinimalOpenSslClient";
  // Three runs of at least a second each unless the command line sets the time.
  auto* b = benchmark::RegisterBenchmark(name.c_str(),
                                         lindqvar::BM_DeliveryPassVersusMinimalOpenSslClient);
  b->Unit(benchmark::kMillisecond)->Repetitions(3);
  if (!MinTimeGiven(argc, argv)) b->MinTime(1.0);
  CRecordingReporter reporter;
  if (const int rc = RunBenchmarks(argc, argv, reporter)) return rc;
  const double agentMs = reporter.Counter(name, "agent_ms");
  const double minimalMs = reporter.Counter(name, "openssl_ms");
  PrintClosingLine(
      "delivery_bench", agentMs, minimalMs,
      Format("agent pass %.3f ms, minimal OpenSSL client %.3f ms (medians of %zu runs "
             "of %lld passes each; CPU of the calling thread per pass %.3f against %.3f ms)",
             agentMs, minimalMs, reporter.Repetitions(name),
             static_cast<long long>(reporter.Iterations(name)),
             reporter.Counter(name, "agent_cpu_ms"), reporter.Counter(name, "openssl_cpu_ms")),
      "<= 1.01");
  return 0;
}
