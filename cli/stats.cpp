#include "cli/stats.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>
#include <vector>

#include "cli/catalog_scan.h"
#include "cli/content_tally.h"
#include "cli/entry.h"
#include "cli/format.h"
#include "cli/json.h"
#include "cli/list_reader.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

constexpr std::size_t kLargest = 10;

struct DirectorySize {
  std::string path;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};

bool is_larger(const DirectorySize& a, const DirectorySize& b) {
  return a.bytes != b.bytes ? a.bytes > b.bytes : a.path < b.path;
}

class Statistics {
 public:
  explicit Statistics(const Console& console) : console_(console), scan_(console) {}

  int run(const CatalogPath& top) {
    const auto visit = [this](const Console&, const CatalogPath& directory) { add(directory); };
    if (!scan_.walk(top, visit)) return kFailed;
    ContentTotals contents;
    const cr_status_t status = tally_.count(&contents);
    if (status != CR_STATUS_OK) {
      report(console_, "temporary database", status, "cannot be used: see TMPDIR");
      return kFailed;
    }
    print(contents);
    return scan_.exit_status();
  }

 private:
  void add(const CatalogPath& directory) {
    if (has_record(directory.full())) ++directories_;
    DirectorySize size{directory.inner()};
    scan_.read_rows(console_, directory, "", [&](const std::string&, const _po_t* record) {
      const std::uint64_t bytes = POGetSize(record);
      const std::string poid = POGetHashRef(record);
      ++size.files;
      size.bytes += bytes;
      if (!poid.empty()) tally_.add_file(poid, bytes);
    });
    files_ += size.files;
    bytes_ += size.bytes;
    keep_largest(size);
    add_lists(directory);
  }

  void keep_largest(const DirectorySize& size) {
    if (size.files == 0) return;
    largest_.insert(std::upper_bound(largest_.begin(), largest_.end(), size, is_larger), size);
    if (largest_.size() > kLargest) largest_.pop_back();
  }

  void add_lists(const CatalogPath& directory) {
    std::uint64_t damaged = 0;
    const cr_status_t status = read_lists(directory, [&](UDCIDRecord* list) {
      ++(list != nullptr ? lists_ : damaged);
      if (list != nullptr) add_containers(list);
    });
    const std::string file = directory.child(SQLiteULDB::dbfilename()).full();
    if (status != CR_STATUS_OK) scan_.unread(console_, file, status);
    if (damaged != 0) scan_.damaged(console_, file, "damaged: " + counted(damaged, "list"));
  }

  void add_containers(UDCIDRecord* list) {
    unsigned long container = 0;
    unsigned long bytes = 0;
    for (unsigned int index = 0; list->get_next(container, bytes, index) == CR_STATUS_OK;) {
      tally_.add_container(container);
    }
  }

  void print(const ContentTotals& contents) const {
    const std::array<std::pair<const char*, std::uint64_t>, 9> totals = {
        {{"files", files_},
         {"directories", directories_},
         {"bytes", bytes_},
         {"contents", contents.contents},
         {"unique_contents", contents.unique},
         {"shared_contents", contents.shared},
         {"content_bytes", contents.bytes},
         {"lists", lists_},
         {"containers", contents.containers}}};
    nlohmann::ordered_json object;
    for (const auto& [name, value] : totals) {
      object[name] = value;
      if (!console_.json) console_.out << fmt::format("{:<16} {:>20}\n", name, value);
    }
    if (console_.json) print_line(console_, object);
    for (const DirectorySize& size : largest_) print_directory(size);
  }

  void print_directory(const DirectorySize& size) const {
    if (!console_.json) {
      console_.out << fmt::format("{:>12} files {:>20} bytes  {}\n", size.files, size.bytes,
                                  printable(size.path));
      return;
    }
    nlohmann::ordered_json object;
    set_name(object, "directory", size.path);
    object["files"] = size.files;
    object["bytes"] = size.bytes;
    print_line(console_, object);
  }

  const Console& console_;
  CatalogScan scan_;
  ContentTally tally_;
  std::uint64_t files_ = 0;
  std::uint64_t directories_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t lists_ = 0;
  std::vector<DirectorySize> largest_;
};

}  // namespace

int stats(const Console& console, const StatsOptions& options) {
  CatalogPath top{absolute_root(options.root), {}};
  if (options.dsid) top.components.push_back(std::to_string(*options.dsid));
  return Statistics(console).run(top);
}

}  // namespace cli
