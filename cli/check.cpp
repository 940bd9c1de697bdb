#include "cli/check.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <ostream>

#include "cli/catalog.h"
#include "cli/check_counters.h"
#include "cli/dir_list.h"
#include "cli/format.h"
#include "cli/json.h"
#include "cli/mismatches.h"

namespace cli {
namespace {

int conclude(const Console& console, const Findings& findings, std::uint64_t counters) {
  if (console.json) {
    print_line(console, {{"contents_without_list", findings.contents_without_list()},
                         {"lists_without_content", findings.lone_lists()},
                         {"counters", counters},
                         {"not_examined", findings.unexamined()}});
  } else {
    console.out << fmt::format(
        "{} without a list, {} without a content, {} that differ{}, {} not examined\n",
        counted(findings.contents_without_list(), "content"),
        counted(findings.lone_lists(), "list"), counted(counters, "counter"),
        counters == 1 ? "s" : "", findings.unexamined());
  }
  return findings.exit_status();
}

}  // namespace

int check(const Console& console, const CheckOptions& options) {
  const CatalogPath root{absolute_root(options.root), {}};
  const cr_status_t status = check_directory(root);
  if (status != CR_STATUS_OK) {
    report(console, root.full(), status, unreached_text(status));
    return kFailed;
  }
  Findings findings(console);
  std::uint64_t counters = 0;
  walk_directories(
      root,
      [&](const CatalogPath& directory, const DirPager&) {
        const bool data_store = directory.components.size() == 1;
        if (data_store) counters += check_counters(directory, &findings);
        tell_mismatches(directory, &findings);
      },
      [&](const CatalogPath& directory, cr_status_t failure) {
        if (!is_there(directory.full())) return;  // removed meanwhile
        findings.add_unexamined(directory.full(), failure, "cannot be read");
      });
  return conclude(console, findings, counters);
}

}  // namespace cli
