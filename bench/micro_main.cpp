// The main() of benchmarks of single functions: Google Benchmark's, whose results are rows here
// with --json.
#include <benchmark/benchmark.h>

#include "row.h"

namespace {

class RowReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      bench::Row row("function", run.benchmark_name());
      if (run.error_occurred) row.Add("error", run.error_message);
      const double unit_ns = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
      row.Add("time_ns", run.GetAdjustedRealTime() * unit_ns, 1)
          .Add("cpu_ns", run.GetAdjustedCPUTime() * unit_ns, 1);
      for (const auto& [name, counter] : run.counters) row.Add(name.c_str(), counter.value, 3);
      row.Print();
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  const int given = argc;
  bench::TakeSwitches(&argc, argv);
  const bool as_rows = argc < given;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RowReporter rows;
  benchmark::RunSpecifiedBenchmarks(as_rows ? &rows : nullptr);
}
