#include "bench/measure.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace bench {

namespace {

// Takes the time of the one iteration of the one benchmark that a round runs.
class Stopwatch : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) seconds_ = run.real_accumulated_time;
  }
  double seconds() const { return seconds_; }

 private:
  double seconds_ = 0;
};

double middle(std::vector<double> values) {
  if (values.empty()) return 0;
  const auto half = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), half, values.end());
  return *half;
}

double time_once(const Side& side) {
  sync();
  benchmark::ClearRegisteredBenchmarks();
  benchmark::RegisterBenchmark(side.name.c_str(), [&](benchmark::State& state) {
    const Work work = side.prepare();
    for ([[maybe_unused]] auto iteration : state) work();
  })->Iterations(1);
  Stopwatch stopwatch;
  benchmark::RunSpecifiedBenchmarks(&stopwatch);
  return stopwatch.seconds();
}

}  // namespace

double Result::median(std::size_t side) const { return middle(seconds.at(side)); }

double Result::ratio(std::size_t side) const {
  std::vector<double> ratios;
  for (std::size_t round = 0; round < seconds.at(side).size(); ++round) {
    ratios.push_back(seconds[side][round] / seconds[0][round]);
  }
  return middle(ratios);
}

Result measure(const Case& measured, int rounds) {
  const std::size_t sides = measured.sides.size();
  Result result{&measured, std::vector<std::vector<double>>(sides)};
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t turn = 0; turn < sides; ++turn) {
      const std::size_t side = (turn + static_cast<std::size_t>(round)) % sides;
      result.seconds[side].push_back(time_once(measured.sides[side]));
    }
  }
  return result;
}

void keep(std::size_t value) { benchmark::DoNotOptimize(value); }

}  // namespace bench
