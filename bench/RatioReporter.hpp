#pragma once

// A console reporter that, after the usual table, prints each benchmark's
// throughput as a ratio to the reference measured in the same run:
//
//   ratio JSONDecode/Tarskel over JSONDecode/nlohmann: 3.41 (target >= 2.00)
//
// A benchmark's main registers the pairs it cares about and runs through
// runWithRatios().

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarskel::bench {

struct RatioPair {
  std::string subject;    // benchmark name, as reported
  std::string reference;  // benchmark name, as reported
  double target;          // the ratio we aim for; 0 for none
};

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(std::vector<RatioPair> pairs) : pairs_(std::move(pairs)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      // With --benchmark_repetitions the median stands for the benchmark.
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type != Run::RT_Iteration && !median) continue;
      double rate = 0;
      auto bytes = run.counters.find("bytes_per_second");
      auto items = run.counters.find("items_per_second");
      if (bytes != run.counters.end()) {
        rate = bytes->second;
      } else if (items != run.counters.end()) {
        rate = items->second;
      } else if (run.real_accumulated_time > 0) {
        rate = static_cast<double>(run.iterations) / run.real_accumulated_time;
      }
      if (median) {
        rates_[run.run_name.str()] = rate;
        medians_.insert(run.run_name.str());
      } else if (medians_.count(run.benchmark_name()) == 0) {
        rates_[run.benchmark_name()] = rate;
      }
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const RatioPair& p : pairs_) {
      auto s = rates_.find(p.subject);
      auto r = rates_.find(p.reference);
      if (s == rates_.end() || r == rates_.end() || r->second == 0) continue;
      const double ratio = s->second / r->second;
      std::printf("ratio %s over %s: %.2f", p.subject.c_str(), p.reference.c_str(), ratio);
      if (p.target > 0)
        std::printf(" (target >= %.2f%s)", p.target, ratio >= p.target ? "" : ", MISSED");
      std::printf("\n");
    }
    std::fflush(stdout);
  }

 private:
  std::vector<RatioPair> pairs_;
  std::map<std::string, double> rates_;
  std::set<std::string> medians_;
};

inline int runWithRatios(int argc, char** argv, std::vector<RatioPair> pairs) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter(std::move(pairs));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace tarskel::bench
