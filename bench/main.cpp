// pocatalog-bench [--filter TEXT] [--rounds N] [--small] [--json FILE]
//
// Prints a table: for each case the time of one operation, the floor's, their ratio, and what it
// is to be. With --json, one object for each case is written as well. --small runs everything in
// seconds, for a look whether it still runs.
#include <fmt/core.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "bench/cases.h"
#include "bench/rows.h"
#include "refhost/control.h"

namespace {

struct Options {
  std::string filter;
  int rounds = 7;
  std::size_t scale = 1;
  std::string json;
};

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--small") {
      options.scale = 100;
      options.rounds = 1;
      continue;
    }
    bench::must(i + 1 == argc, flag.c_str());
    const char* value = argv[++i];
    if (flag == "--filter") options.filter = value;
    if (flag == "--rounds") options.rounds = std::atoi(value);
    if (flag == "--json") options.json = value;
  }
  return options;
}

void print(const bench::Result& result) {
  const bench::Case& measured = *result.measured;
  const auto micros = [&](std::size_t side) {
    return result.median(side) * 1e6 / static_cast<double>(measured.operations);
  };
  fmt::print("{:<40} {:>10.3f} us {:>10.3f} us {:>7.2f} {:>7.2f}{}", measured.name, micros(0),
             micros(1), result.ratio(1), measured.target,
             result.ratio(1) < measured.target ? " *" : "");
  for (std::size_t side = 2; side < measured.sides.size(); ++side) {
    fmt::print("   {} {:.3f} us", measured.sides[side].name, micros(side));
  }
  fmt::print("\n");
  std::fflush(stdout);
}

nlohmann::json as_json(const bench::Result& result) {
  nlohmann::json out{{"case", result.measured->name},
                     {"operations", result.measured->operations},
                     {"target", result.measured->target},
                     {"ratio", result.ratio(1)}};
  for (std::size_t side = 0; side < result.seconds.size(); ++side) {
    out["seconds"][result.measured->sides[side].name] = result.seconds[side];
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  refhost::set_log_level(refhost::LogLevel::Error);
  std::vector<bench::Case> cases;
  bench::add_podb_cases(cases, options.scale);
  bench::add_adler_cases(cases, options.scale);
  std::ofstream json;
  if (!options.json.empty()) json.open(options.json);
  fmt::print("{:<40} {:>13} {:>13} {:>7} {:>7}\n", "case", "library", "floor", "ratio", "target");
  for (const bench::Case& measured : cases) {
    if (measured.name.find(options.filter) == std::string::npos) continue;
    const bench::Result result = bench::measure(measured, options.rounds);
    print(result);
    if (json.is_open()) json << as_json(result) << "\n";
  }
  return 0;
}
