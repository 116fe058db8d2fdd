// A delivery pass whose acknowledgement asks for NTLM (the relay runs with
// the fake security package against the lab's scripted acceptor) against
// the same pass without the relay, same server, same run.
#include <benchmark/benchmark.h>

#include <set>

#include "bench/closing_line.h"
#include "protocol/ntlm/ntlm_relay.h"
#include "tests/fakes/fake_security_package.h"
#include "tests/protocol/tls_test_support.h"

namespace lindqvar::testing {
namespace {

constexpr char kKey[] = "lab-preshared-16";

void Pass(benchmark::State& state, bool withRelay) {
  auto acceptor = std::make_shared<ScriptedAcceptor>(std::set<std::string>{"CORP\\alice"});
  auto options = CLabFixture::Options(kKey);
  options.eventResult = withRelay ? 2 : 1;
  options.ntlm = acceptor;
  CLabFixture lab(options);
  CDeliveryHarness agent(kKey);
  agent.support.sessionUsers[7] = {"CORP", "alice"};
  FakeSecurityPackage package;
  FakeImpersonation impersonation;
  CNtlmPackage ntlm(package, [](const std::string&) {});
  CNtlmRelay relay(agent.log, agent.support, impersonation, ntlm);
  agent.client->SetNtlmRelay(&relay);
  agent.AddServer("127.0.0.1", lab.Port());
  for (auto _ : state) {
    if (!agent.Deliver(7)) state.SkipWithError("the pass failed");
  }
}

}  // namespace
}  // namespace lindqvar::testing

int main(int argc, char** argv) {
  using namespace lindqvar::bench;
  // Two seconds each unless the command line sets the time.
  for (const bool withRelay : {false, true}) {
    auto* b = benchmark::RegisterBenchmark(withRelay ? "BM_PassWithRelay" : "BM_PassWithoutRelay",
                                           lindqvar::testing::Pass, withRelay);
    b->Unit(benchmark::kMillisecond);
    if (!MinTimeGiven(argc, argv)) b->MinTime(2.0);
  }
  CRecordingReporter reporter;
  if (const int rc = RunBenchmarks(argc, argv, reporter)) return rc;
  const double figure = reporter.Nanoseconds("BM_PassWithRelay") / 1e6;
  const double anchor = reporter.Nanoseconds("BM_PassWithoutRelay") / 1e6;
  PrintClosingLine("ntlm_bench", figure, anchor,
                   Format("a pass with the NTLM relay %.3f ms, without %.3f ms", figure, anchor),
                   nullptr);
  return 0;
}
