#include "cli/patrol_metrics.h"

#include <fmt/format.h>

#include "cli/command.h"

namespace cli {
namespace {

// A value of a label: printable UTF-8 whose quotes and backslashes are escaped.
std::string label_value(const std::string& text) {
  std::string escaped;
  for (const char c : printable(text)) {
    if (c == '\\' || c == '"') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

class Metrics {
 public:
  explicit Metrics(const std::string& root) : root_(label_value(root)) {}

  template <typename Value>
  void add(const char* name, const char* help, Value value, const char* type = "gauge") {
    text_ += fmt::format(
        "# HELP pocatalog_patrol_{0} {1}\n# TYPE pocatalog_patrol_{0} {2}\n"
        "pocatalog_patrol_{0}{{root=\"{3}\"}} {4}\n",
        name, help, type, root_, value);
  }

  const std::string& text() const { return text_; }

 private:
  const std::string root_;
  std::string text_;
};

}  // namespace

std::string metrics_text(const std::string& root, std::uint64_t rounds, const PatrolRound& round) {
  Metrics metrics(root);
  metrics.add("rounds_total", "Rounds completed since the patrol started.", rounds, "counter");
  metrics.add("last_round_timestamp_seconds", "When the last round ended.", round.ended);
  metrics.add("last_round_duration_seconds", "How long it took.", round.seconds);
  metrics.add("databases", "Databases, of entries and of lists.", round.databases);
  metrics.add("rows", "Rows in them.", round.rows);
  metrics.add("damaged_rows", "Rows that are damaged.", round.damaged_rows);
  metrics.add("other_findings", "Other things that are wrong.", round.other_findings);
  metrics.add("not_examined", "Things that could not be examined.", round.not_examined);
  metrics.add("locks_in_force", "Files whose retention lock is in force.", round.locks_in_force);
  if (!round.oldest || !round.newest) return metrics.text();
  metrics.add("oldest_entry_timestamp_seconds", "Earliest change time of a file.", *round.oldest);
  metrics.add("newest_entry_timestamp_seconds", "Latest change time of a file.", *round.newest);
  return metrics.text();
}

}  // namespace cli
