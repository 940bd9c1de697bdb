#include "cli/findings.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <ostream>

#include "cli/format.h"
#include "cli/json.h"

namespace cli {

void Findings::print(const std::string& file, const std::string& poid, const std::string& reason) {
  ++other_;
  if (!console_.json) {
    console_.out << printable(file) << ": "
                 << (poid.empty() ? "" : "content " + printable(poid) + ": ") << printable(reason)
                 << '\n';
    return;
  }
  nlohmann::ordered_json object;
  set_name(object, "file", file);
  if (!poid.empty()) set_name(object, "poid", poid);
  set_name(object, "reason", reason);
  print_line(console_, object);
}

void Findings::add(const std::string& file, const std::string& reason) { print(file, "", reason); }

void Findings::add_content_without_list(const std::string& entry, const std::string& poid,
                                        std::uint64_t entries) {
  ++contents_without_list_;
  const std::string others = fmt::format("; {} entries here have it", entries);
  print(entry, poid, "has no list of containers" + (entries > 1 ? others : ""));
}

void Findings::add_lone_list(const std::string& file, const std::string& poid) {
  ++lone_lists_;
  print(file, poid, "has a list of containers and no entry");
}

void Findings::add_row(const std::string& file, const std::string& name, std::int64_t rowid,
                       const std::string& reason) {
  ++damaged_rows_;
  if (!console_.json) {
    console_.out << fmt::format("{}: row {} (rowid {}): {}\n", printable(file), printable(name),
                                rowid, printable(reason));
    return;
  }
  nlohmann::ordered_json object;
  set_name(object, "file", file);
  set_name(object, "row", name);
  object["rowid"] = rowid;
  set_name(object, "reason", reason);
  print_line(console_, object);
}

void Findings::add_unexamined(const std::string& file, cr_status_t status,
                              const std::string& reason) {
  ++unexamined_;
  report(console_, file, status, reason);
}

void Findings::add_counts(const Findings& others) {
  databases_ += others.databases_;
  rows_ += others.rows_;
  damaged_rows_ += others.damaged_rows_;
  contents_without_list_ += others.contents_without_list_;
  lone_lists_ += others.lone_lists_;
  other_ += others.other_;
  unexamined_ += others.unexamined_;
}

int Findings::conclude() const {
  if (console_.json) {
    print_line(console_, {{"databases", databases_},
                          {"rows", rows_},
                          {"damaged_rows", damaged_rows_},
                          {"other_findings", other_},
                          {"not_examined", unexamined_}});
  } else {
    console_.out << fmt::format(
        "{}, {}: {}, {}, {} not examined\n", counted(databases_, "database"), counted(rows_, "row"),
        counted(damaged_rows_, "damaged row"), counted(other_, "other finding"), unexamined_);
  }
  return exit_status();
}

int Findings::exit_status() const {
  if (damaged_rows_ + other_ > 0) return kInconsistent;
  return unexamined_ > 0 ? kIncomplete : kDone;
}

}  // namespace cli
