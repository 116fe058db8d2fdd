// The closing line of a Google Benchmark binary: after the usual table, one
// line "<bench>: <figure>, <anchor>, ratio <figure / anchor> (goal ...)",
// the line to compare between runs. The benches print figures only; none
// fails on a time.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace lindqvar::bench {

// The console reporter (in colour on a terminal), keeping every run it
// prints.
class CRecordingReporter : public benchmark::ConsoleReporter {
 public:
  CRecordingReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (!run.error_occurred && run.run_type == Run::RT_Iteration) m_runs.push_back(run);
  }

  // The median over the repetitions of the benchmark `name` (its name and
  // arguments, without the suffixes of its options) of its real time per iteration in
  // nanoseconds, or of one of its counters; NaN when it did not run.
  double Nanoseconds(const std::string& name) const {
    return Median(name, [](const Run& run) {
      return run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
    });
  }
  // The same for the CPU time of the benchmark's thread: on a loaded
  // machine far steadier than the real time, and the same thing for a
  // benchmark that never waits.
  double CpuNanoseconds(const std::string& name) const {
    return Median(name, [](const Run& run) {
      return run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
    });
  }
  double Counter(const std::string& name, const std::string& counter) const {
    return Median(name, [&](const Run& run) {
      const auto it = run.counters.find(counter);
      return it == run.counters.end() ? NAN : static_cast<double>(it->second.value);
    });
  }
  // How many repetitions of `name` ran, and the iterations of the first.
  size_t Repetitions(const std::string& name) const {
    return static_cast<size_t>(std::count_if(m_runs.begin(), m_runs.end(),
                                             [&](const Run& run) { return Name(run) == name; }));
  }
  int64_t Iterations(const std::string& name) const {
    for (const Run& run : m_runs)
      if (Name(run) == name) return run.iterations;
    return 0;
  }

 private:
  static std::string Name(const Run& run) {
    const auto& n = run.run_name;
    return n.args.empty() ? n.function_name : n.function_name + "/" + n.args;
  }

  template <typename Value>
  double Median(const std::string& name, Value value) const {
    std::vector<double> values;
    for (const Run& run : m_runs)
      if (Name(run) == name) values.push_back(value(run));
    if (values.empty()) return NAN;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  }

  std::vector<Run> m_runs;
};

// Whether the command line sets the minimum time of each benchmark (a
// benchmark's own MinTime would override it: those that ask for one set it
// only when the command line does not, so that a smoke run stays short).
inline bool MinTimeGiven(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::string_view(argv[i]).starts_with("--benchmark_min_time")) return true;
  return false;
}

// Runs the benchmarks the command line selects, printing them as usual.
inline int RunBenchmarks(int argc, char** argv, CRecordingReporter& reporter) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  std::fflush(stdout);
  return 0;
}

// The closing line, or a note that a figure is missing (a filter left its
// benchmark out, or it failed).
inline void PrintClosingLine(const char* bench, double figure, double anchor,
                             const std::string& text, const char* goal) {
  if (std::isnan(figure) || std::isnan(anchor) || anchor == 0) {
    std::printf("%s: figure or anchor not measured in this run\n", bench);
    return;
  }
  std::printf("%s: %s, ratio %.3f%s%s%s\n", bench, text.c_str(), figure / anchor,
              goal ? " (goal " : "", goal ? goal : "", goal ? ")" : "");
}

// printf into a std::string, for the closing line's text.
template <typename... Args>
std::string Format(const char* format, Args... args) {
  char buffer[512];
  std::snprintf(buffer, sizeof buffer, format, args...);
  return buffer;
}

}  // namespace lindqvar::bench
