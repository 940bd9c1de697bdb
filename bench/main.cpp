// pocatalog-bench [--growth] [--filter TEXT] [--rounds N] [--small] [--json FILE]
//
// Prints a table: for each case the time of one operation, the floor's, their ratio, and what it
// is to be; a star marks what misses it. --growth measures some cases at growing sizes instead, and
// says how much faster than the floor's the library's time of one operation has grown. With --json,
// one object for each case is written as well. --small runs everything in seconds, for a look
// whether it still runs.
#include <fmt/core.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
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
  bool growth = false;
};

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--small") {
      options.scale = 100;
      options.rounds = 1;
    } else if (flag == "--growth") {
      options.growth = true;
    } else {
      bench::must(i + 1 == argc, flag.c_str());
      const char* value = argv[++i];
      if (flag == "--filter") options.filter = value;
      if (flag == "--rounds") options.rounds = std::atoi(value);
      if (flag == "--json") options.json = value;
    }
  }
  return options;
}

bench::Cases cases_of_table(std::size_t scale) {
  bench::Cases cases;
  bench::add_put_cases(cases, scale);
  bench::add_read_cases(cases, scale);
  bench::add_check_cases(cases, scale);
  bench::add_update_cases(cases, scale);
  bench::add_directory_cases(cases, scale);
  bench::add_uldb_cases(cases, scale);
  bench::add_udcid_cases(cases, scale);
  bench::add_adler_cases(cases, scale);
  bench::add_pool_cases(cases, scale);
  return cases;
}

bench::Cases cases_of_growth(std::size_t scale) {
  bench::Cases cases;
  for (const std::size_t rows : {1000UL, 10000UL, 100000UL, 1000000UL}) {
    bench::add_put_growth(cases, rows / scale);
    bench::add_read_growth(cases, rows / scale);
    bench::add_check_growth(cases, rows / scale);
    bench::add_update_growth(cases, rows / scale);
    bench::add_uldb_growth(cases, rows / scale);
    if (rows < 1000000) bench::add_directory_growth(cases, rows / scale);
  }
  return cases;
}

void print(const bench::Result& result) {
  const bench::Case& measured = *result.measured;
  const auto micros = [&](std::size_t side) {
    return result.median(side) * 1e6 / static_cast<double>(measured.operations);
  };
  fmt::print("{:<42} {:>10.3f} us {:>10.3f} us {:>7.2f} {:>7.2f}{}", measured.name, micros(0),
             micros(1), result.ratio(1), measured.target,
             result.ratio(1) < measured.target ? " *" : "  ");
  for (std::size_t side = 2; side < measured.sides.size(); ++side) {
    fmt::print("   {} {:.3f} us", measured.sides[side].name, micros(side));
  }
}

// How the library's time has grown since the first size of the same case, over how the floor's has.
void print_growth(const bench::Result& result) {
  static std::map<std::string, double> first;
  const std::string& name = result.measured->name;
  const double ratio = result.ratio(1);
  const double at_first = first.emplace(name.substr(0, name.rfind('/')), ratio).first->second;
  fmt::print("   growth {:.2f}", at_first / ratio);
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

// What one round has freed serves the next, as in a server that runs on: fresh pages cost more than
// what is measured at times, more so in a virtual machine, and they come as it happens.
void keep_freed_memory() {
  mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
  mallopt(M_MMAP_MAX, 0);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  keep_freed_memory();
  refhost::set_log_level(refhost::LogLevel::Error);
  bench::Cases cases =
      options.growth ? cases_of_growth(options.scale) : cases_of_table(options.scale);
  std::ofstream json;
  if (!options.json.empty()) json.open(options.json);
  fmt::print("{:<42} {:>13} {:>13} {:>7} {:>7}\n", "case", "library", "floor", "ratio", "target");
  for (bench::Case& measured : cases) {
    if (measured.name.find(options.filter) != std::string::npos) {
      const bench::Result result = bench::measure(measured, options.rounds);
      print(result);
      if (options.growth) print_growth(result);
      fmt::print("\n");
      std::fflush(stdout);
      if (json.is_open()) json << as_json(result) << "\n";
    }
    measured.sides.clear();  // with the databases that it shared with the cases before
  }
  return 0;
}
