// Many directories with a database each: their first row, and a row read after they were closed.
// The floor makes the same directories, files and transactions.
#include <sys/stat.h>

#include "bench/cases.h"
#include "bench/databases.h"
#include "host/files.h"

namespace bench {

namespace {

struct Directories {
  ScratchDir scratch;
  std::vector<std::string> paths;
  Entries entries;
  std::vector<Row> rows;

  explicit Directories(std::size_t count) : rows(make_rows(count)) {
    for (std::size_t i = 0; i < count; ++i) {
      // 100 in each, as deep as directories of a real image lie.
      paths.push_back(scratch.path() + "/1/client/policy/usr/share/" + std::to_string(i / 100) +
                      "/" + std::to_string(i % 100));
      entries.push_back(make_entry(rows[i], scratch.path(), paths.back()));
    }
  }
};

void first_rows_by_library(Directories& directories) {
  for (std::size_t i = 0; i < directories.paths.size(); ++i) {
    SQLitePODB podb(directories.scratch.path(), directories.paths[i]);
    must(podb.begin_transaction(), "begin");
    must(podb.put(directories.entries[i].get()), "put");
    must(podb.commit_transaction(), "commit");
  }
}

void first_rows_by_floor(Directories& directories) {
  for (std::size_t i = 0; i < directories.paths.size(); ++i) {
    must(static_cast<unsigned long>(wa_createtree(directories.paths[i].c_str(), 0700)), "mkdir");
    BareDatabase db(directories.paths[i] + "/po.db");
    create_tables(db);
    db.exec("BEGIN IMMEDIATE TRANSACTION;");
    ask_host_to_store(*directories.entries[i]);
    db.exec(insert_text(directories.rows[i]));
    db.exec("COMMIT TRANSACTION;");
  }
}

void get_by_library(Directories& directories) {
  for (std::size_t i = 0; i < directories.paths.size(); ++i) {
    SQLitePODB podb(directories.scratch.path(), directories.paths[i]);
    FilePO entry(1);
    must(podb.get(directories.rows[i].basename, &entry), "get");
  }
}

// Looks for the file first, as a read that must not create it has to.
void get_by_floor(Directories& directories) {
  for (std::size_t i = 0; i < directories.paths.size(); ++i) {
    const std::string file = directories.paths[i] + "/po.db";
    struct stat info {};
    must(wa_stat(file.c_str(), &info) != 0 || info.st_size == 0, "stat");
    BareDatabase db(file);
    FilePO entry(1);
    RowCheck check;
    check.into = entry.record();
    db.exec(kSelect + where_name_is(directories.rows[i]), RowCheck::take, &check);
    must(check.rows != 1, "bare get");
  }
}

Side first_rows(const char* name, std::size_t count, void (*run)(Directories&)) {
  return {name, [=] {
            const auto directories = std::make_shared<Directories>(count);
            return [=] { run(*directories); };
          }};
}

using SharedDirectories = std::shared_ptr<std::unique_ptr<Directories>>;

Side reopening(const char* name, const SharedDirectories& shared, std::size_t count,
               void (*run)(Directories&)) {
  return {name, [=] {
            if (!*shared) {
              *shared = std::make_unique<Directories>(count);
              first_rows_by_floor(**shared);
            }
            return [=] { run(**shared); };
          }};
}

}  // namespace

void add_directory_cases(Cases& cases, std::size_t scale) {
  add_directory_growth(cases, 1000 / scale);
}

void add_directory_growth(Cases& cases, std::size_t directories) {
  const std::string suffix = "/" + grouped(directories) + " directories";
  cases.push_back({"first row of a directory" + suffix,
                   directories,
                   0.95,
                   {first_rows("library", directories, first_rows_by_library),
                    first_rows("floor", directories, first_rows_by_floor)}});
  const auto shared = std::make_shared<std::unique_ptr<Directories>>();
  cases.push_back({"reopen and get" + suffix,
                   directories,
                   0.95,
                   {reopening("library", shared, directories, get_by_library),
                    reopening("floor", shared, directories, get_by_floor)}});
}

}  // namespace bench
