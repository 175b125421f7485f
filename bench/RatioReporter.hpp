#pragma once

// A console reporter that, after the usual table, prints each benchmark's
// throughput as a ratio to the reference measured in the same run:
//
//   ratio JSONDecode/Tarskel over JSONDecode/nlohmann: 3.41 (target >= 2.00)
//
// and each goal, over the rounds (--benchmark_repetitions, 5 unless given),
// as the median of the rounds' ratios with their spread:
//
//   target json-decode-100B-vs-nlohmann: 2.31 (min 2.20, max 2.40) goal >= 2
//
// A goal ">=" is the subject's throughput over the reference's (a speed-up);
// a goal "<=" is the subject's time over the reference's (a cost). Round i of
// the subject is paired with round i of the reference. The console shows the
// aggregates of each benchmark; every round still counts for the goals.
//
// A benchmark's main registers the pairs and goals it cares about and runs
// through runWithRatios().

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
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

struct Goal {
  std::string name;       // as printed after "target"
  std::string subject;    // benchmark name, as reported
  std::string reference;  // benchmark name, as reported
  std::string op;         // ">=" (speed-up) or "<=" (cost)
  double value;
};

// Prints one goal line from the rounds' ratios; "unavailable" without any.
inline void printTarget(const std::string& name, std::vector<double> ratios, const std::string& op,
                        double goal) {
  if (ratios.empty()) {
    std::printf("target %s: unavailable goal %s %g\n", name.c_str(), op.c_str(), goal);
    return;
  }
  std::sort(ratios.begin(), ratios.end());
  const std::size_t n = ratios.size();
  const double median = n % 2 == 1 ? ratios[n / 2] : (ratios[n / 2 - 1] + ratios[n / 2]) / 2;
  std::printf("target %s: %.2f (min %.2f, max %.2f) goal %s %g\n", name.c_str(), median,
              ratios.front(), ratios.back(), op.c_str(), goal);
}

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter(std::vector<RatioPair> pairs, std::vector<Goal> goals)
      : pairs_(std::move(pairs)), goals_(std::move(goals)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> shown;
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate || runs.size() == 1) shown.push_back(run);
    }
    ConsoleReporter::ReportRuns(shown);
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
      if (run.run_type == Run::RT_Iteration) rounds_[run.benchmark_name()].push_back(rate);
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
    if (!goals_.empty()) std::printf("\n");  // after the table's last colour code
    for (const Goal& g : goals_) printTarget(g.name, goalRatios(g), g.op, g.value);
    std::fflush(stdout);
  }

 private:
  std::vector<double> goalRatios(const Goal& g) const {
    std::vector<double> ratios;
    auto s = rounds_.find(g.subject);
    auto r = rounds_.find(g.reference);
    if (s == rounds_.end() || r == rounds_.end()) return ratios;
    for (std::size_t i = 0; i < std::min(s->second.size(), r->second.size()); ++i) {
      const double subject = s->second[i];
      const double reference = r->second[i];
      if (subject <= 0 || reference <= 0) continue;
      ratios.push_back(g.op == ">=" ? subject / reference : reference / subject);
    }
    return ratios;
  }

  std::vector<RatioPair> pairs_;
  std::vector<Goal> goals_;
  std::map<std::string, std::vector<double>> rounds_;  // per-round rates
  std::map<std::string, double> rates_;
  std::set<std::string> medians_;
};

inline int runWithRatios(int argc, char** argv, std::vector<RatioPair> pairs,
                         std::vector<Goal> goals = {}) {
  // Goals are judged over rounds: five unless the command line says otherwise.
  std::vector<char*> args(argv, argv + argc);
  static char rounds[] = "--benchmark_repetitions=5";
  const bool given = std::any_of(args.begin(), args.end(), [](const char* a) {
    return std::strncmp(a, "--benchmark_repetitions", 23) == 0;
  });
  if (!goals.empty() && !given) args.insert(args.begin() + 1, rounds);
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  RatioReporter reporter(std::move(pairs), std::move(goals));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace tarskel::bench
