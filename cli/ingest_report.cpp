#include "cli/ingest_report.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <ostream>

#include "cli/cause.h"
#include "cli/json.h"

namespace cli {
namespace {

constexpr std::array<const char*, kSkippedKinds> kSkippedNames = {"links", "sockets", "pipes",
                                                                  "devices", "catalog"};

nlohmann::ordered_json summary(const IngestCounts& counts, double seconds) {
  nlohmann::ordered_json object = {{"added", counts.added},
                                   {"replaced", counts.replaced},
                                   {"unchanged", counts.unchanged},
                                   {"removed", counts.removed},
                                   {"directories", counts.directories},
                                   {"removed_directories", counts.removed_directories}};
  for (std::size_t kind = 0; kind < kSkippedKinds; ++kind) {
    object["skipped"][kSkippedNames[kind]] = counts.skipped[kind];
  }
  object["mended"] = counts.mended;
  object["not_done"] = counts.not_done;
  object["bytes"] = counts.bytes;
  object["seconds"] = seconds;
  return object;
}

void print_line_of(std::ostream& out, const std::string& name, std::uint64_t count) {
  out << fmt::format("{:<20} {:>14}\n", name, count);
}

}  // namespace

void report_problems(const Console& console, const std::vector<Problem>& problems) {
  for (const Problem& problem : problems) {
    take_cause();  // each problem's text tells its own
    report(console, problem.path, problem.status, problem.text);
  }
}

void print_summary(const Console& console, const IngestCounts& counts, double seconds) {
  if (console.json) return print_line(console, summary(counts, seconds));
  std::ostream& out = console.out;
  print_line_of(out, "added", counts.added);
  print_line_of(out, "replaced", counts.replaced);
  print_line_of(out, "unchanged", counts.unchanged);
  print_line_of(out, "removed", counts.removed);
  print_line_of(out, "directories", counts.directories);
  print_line_of(out, "removed directories", counts.removed_directories);
  for (std::size_t kind = 0; kind < kSkippedKinds; ++kind) {
    print_line_of(out, std::string("skipped ") + kSkippedNames[kind], counts.skipped[kind]);
  }
  print_line_of(out, "mended", counts.mended);
  print_line_of(out, "not done", counts.not_done);
  print_line_of(out, "bytes", counts.bytes);
  out << fmt::format("{:<20} {:>14.1f}\n", "seconds", seconds);
}

}  // namespace cli
