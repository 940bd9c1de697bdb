// pocatalog-bare ingest SOURCE DIRECTORY | list ROOT | find ROOT PATTERN | integrity ROOT
//
// The floor of the command's jobs: the same statements, transactions, files and work of the host,
// by one thread and without the library. `ingest` makes a new catalog directory from a tree,
// without reading contents; the others visit every database below a directory, and print paths, or
// what SQLite's integrity check says other than ok.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/databases.h"
#include "bench/rows.h"
#include "host/files.h"
#include "refhost/record.h"

namespace {

namespace fs = std::filesystem;
using namespace bench;

struct Names {
  std::vector<std::string> files;
  std::vector<std::string> directories;
};

// In byte order, as rows are best written.
Names names_in(const fs::path& directory) {
  Names names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    if (entry.is_symlink()) continue;
    if (entry.is_directory()) names.directories.push_back(entry.path().filename());
    if (entry.is_regular_file()) names.files.push_back(entry.path().filename());
  }
  std::sort(names.files.begin(), names.files.end());
  std::sort(names.directories.begin(), names.directories.end());
  return names;
}

std::string record_text(const std::string& path, int type) {
  struct stat info {};
  must(lstat(path.c_str(), &info) != 0, path.c_str());
  refhost::RecordFields fields;
  fields.type = type;
  fields.size = type == PO_TYPE_FILE ? static_cast<std::uint64_t>(info.st_size) : 0;
  fields.mode = info.st_mode;
  fields.owner = std::to_string(info.st_uid) + ":" + std::to_string(info.st_gid);
  fields.mtime = static_cast<std::uint64_t>(info.st_mtime);
  fields.ctime = static_cast<std::uint64_t>(info.st_ctime);
  const PORecord record(POCreate());
  must(refhost::set_fields(record.get(), fields) != 0, "set_fields");
  return HostText(POToStringMalloced(record.get())).get();
}

void store_file(BareDatabase& db, const std::string& source, const std::string& name) {
  Row row{name, "", record_text(source + "/" + name, PO_TYPE_FILE)};
  for (std::size_t at = 0; (at = row.basename.find('\'', at)) != std::string::npos; at += 2) {
    row.basename.insert(at, 1, '\'');
  }
  db.exec(kSelect + where_name_is(row));
  CountCheck stored;
  db.exec("SELECT COUNT(*) FROM po" + where_name_is(row), CountCheck::take, &stored);
  db.exec(insert_text(row));
}

void ingest(const std::string& source, const std::string& directory) {
  must(wa_createtree(directory.c_str(), 0700), "mkdir");
  must(wa_writefile((directory + "/__dirpo__").c_str(), record_text(source, PO_TYPE_DIR), false),
       "write");
  const Names names = names_in(source);
  if (!names.files.empty()) {
    BareDatabase db(directory + "/po.db");
    create_tables(db);
    db.exec("BEGIN IMMEDIATE TRANSACTION;");
    for (const std::string& name : names.files) store_file(db, source, name);
    db.exec("COMMIT TRANSACTION;");
  }
  for (const std::string& name : names.directories) {
    ingest(source + "/" + name, directory + "/" + name);
  }
}

struct Printer {
  const std::string& directory;

  static int take(void* context, int columns, char** values, char** names) {
    RowCheck check;
    if (RowCheck::take(&check, columns, values, names) != 0) return 1;
    std::printf("%s/%s\n", static_cast<Printer*>(context)->directory.c_str(), values[0]);
    return 0;
  }
};

void print_rows(const std::string& directory, const std::string& condition) {
  BareDatabase db(directory + "/po.db");
  Printer printer{directory};
  db.exec(kSelect + condition + " ORDER BY basename", Printer::take, &printer);
}

int print_fault(void*, int, char** values, char**) {
  if (std::strcmp(values[0], "ok") != 0) std::printf("%s\n", values[0]);
  return 0;
}

template <typename Visit>
void visit_databases(const std::string& directory, const Visit& visit) {
  if (fs::exists(directory + "/po.db")) visit(directory);
  for (const std::string& name : names_in(directory).directories) {
    visit_databases(directory + "/" + name, visit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string job = argc > 2 ? argv[1] : "";
  if (job == "ingest" && argc == 4) {
    ingest(argv[2], argv[3]);
  } else if (job == "list" && argc == 3) {
    visit_databases(argv[2], [](const std::string& directory) { print_rows(directory, ""); });
  } else if (job == "find" && argc == 4) {
    const std::string condition = std::string(" WHERE basename GLOB '") + argv[3] + "'";
    visit_databases(argv[2],
                    [&](const std::string& directory) { print_rows(directory, condition); });
  } else if (job == "integrity" && argc == 3) {
    visit_databases(argv[2], [](const std::string& directory) {
      BareDatabase(directory + "/po.db").exec("PRAGMA integrity_check", print_fault);
    });
  } else {
    std::fputs("usage: at the top of bench/bare_catalog.cpp\n", stderr);
    return 2;
  }
  return 0;
}
