// The parse of the device-registration tool's output on the line that is
// hardest for a backtracking matcher: nothing but blanks, so that every way
// of splitting them is tried before the match fails. The hand-written
// matcher against std::regex with the same expression, by line length; the
// matcher's time grows with the length, the expression's with its cube.
#include <benchmark/benchmark.h>

#include <regex>
#include <string>

#include "bench/closing_line.h"
#include "identity/azure.h"
#include "identity/console_match.h"

namespace {

std::u16string BlankLine(size_t length) { return std::u16string(length, u' '); }

void BM_MatchStatusLine(benchmark::State& state) {
  const std::u16string line = BlankLine(static_cast<size_t>(state.range(0)));
  lindqvar::MatchSpan key, value;
  for (auto _ : state) benchmark::DoNotOptimize(lindqvar::MatchStatusLine(line, key, value));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_MatchStatusLine)->RangeMultiplier(4)->Range(64, 65536)->Complexity();

void BM_RegexStatusLine(benchmark::State& state) {
  static const std::wregex kLine(L"\\s+(.+)\\s+:\\s+(.+)", std::regex::ECMAScript);
  const std::u16string line16 = BlankLine(static_cast<size_t>(state.range(0)));
  const std::wstring line(line16.begin(), line16.end());
  std::wsmatch match;
  for (auto _ : state) benchmark::DoNotOptimize(std::regex_match(line, match, kLine));
  state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_RegexStatusLine)->RangeMultiplier(2)->Range(32, 256)->Complexity();

// A whole status output of the usual size.
void BM_ParseConsoleOutput(benchmark::State& state) {
  std::string output;
  for (int i = 0; i < 60; ++i)
    output += "              SomeSetting" + std::to_string(i) + " : NO\r\n";
  output +=
      "                  TenantId : 0b7e3c1a-55d2-4f0e-9a41-2c6d8e9f1a07\r\n"
      "    Executing Account Name : AzureAD\\EliasNord, elias.nord@tailspin.example\r\n";
  std::u16string user, domain, tenant;
  for (auto _ : state) {
    benchmark::DoNotOptimize(lindqvar::ParseConsoleOutput(output, user, domain, tenant));
  }
}
BENCHMARK(BM_ParseConsoleOutput);

}  // namespace

// Closes with the expression against the matcher (the anchor) on the
// longest line both run (256 blanks).
int main(int argc, char** argv) {
  using namespace lindqvar::bench;
  CRecordingReporter reporter;
  if (const int rc = RunBenchmarks(argc, argv, reporter)) return rc;
  const double figure = reporter.CpuNanoseconds("BM_RegexStatusLine/256");
  const double anchor = reporter.CpuNanoseconds("BM_MatchStatusLine/256");
  PrintClosingLine("console_parse_bench", figure, anchor,
                   Format("a line of 256 blanks: std::regex %.0f ns CPU, the matcher %.0f ns CPU",
                          figure, anchor),
                   nullptr);
  return 0;
}
