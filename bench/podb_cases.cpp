// Rows of one database: stored, read and deleted through SQLitePODB, and by bare statements.
#include <cstdlib>
#include <memory>

#include "base/adler32.h"
#include "bench/cases.h"
#include "bench/rows.h"
#include "podb/sqlite_podb.h"

namespace bench {

namespace {

// One catalog directory below a root of its own.
struct Directory {
  ScratchDir scratch;
  std::string root = scratch.path();
  std::string path = root + "/1/client/policy";
  SQLitePODB podb{root, path};

  Directory() { must(podb.check_db_existence(true), "create"); }
};

std::vector<std::unique_ptr<FilePO>> make_entries(const std::vector<Row>& rows,
                                                  const Directory& directory) {
  std::vector<std::unique_ptr<FilePO>> entries;
  for (const Row& row : rows) {
    entries.push_back(make_entry(row, directory.root, directory.path));
  }
  return entries;
}

void put_all(SQLitePODB& podb, const std::vector<std::unique_ptr<FilePO>>& entries,
             std::size_t rows_each) {
  for (std::size_t next = 0; next < entries.size();) {
    must(podb.begin_transaction(), "begin");
    for (std::size_t n = 0; n < rows_each && next < entries.size(); ++n, ++next) {
      must(podb.put(entries[next].get()), "put");
    }
    must(podb.commit_transaction(), "commit");
  }
}

void exec_all(BareDatabase& db, const std::vector<std::string>& texts, std::size_t rows_each) {
  for (std::size_t next = 0; next < texts.size();) {
    db.exec("BEGIN IMMEDIATE TRANSACTION");
    for (std::size_t n = 0; n < rows_each && next < texts.size(); ++n, ++next) db.exec(texts[next]);
    db.exec("COMMIT TRANSACTION");
  }
}

Work put_by_library(std::size_t count, std::size_t rows_each) {
  auto directory = std::make_shared<Directory>();
  auto entries = std::make_shared<std::vector<std::unique_ptr<FilePO>>>(
      make_entries(make_rows(count), *directory));
  return [=] { put_all(directory->podb, *entries, rows_each); };
}

Work put_by_floor(std::size_t count, std::size_t rows_each) {
  auto directory = std::make_shared<Directory>();
  directory->podb.close_db(0);
  auto db = std::make_shared<BareDatabase>(directory->podb.get_dbfile_path());
  auto texts = std::make_shared<std::vector<std::string>>();
  for (const Row& row : make_rows(count)) texts->push_back(insert_text(row));
  return [directory, db, texts, rows_each] { exec_all(*db, *texts, rows_each); };
}

Case put_case(const std::string& name, std::size_t count, std::size_t rows_each) {
  return {"put/" + name,
          count,
          0.95,
          {{"library", [=] { return put_by_library(count, rows_each); }},
           {"floor", [=] { return put_by_floor(count, rows_each); }}}};
}

// A database of many rows, made when the first case needs it and shared by those that read.
class Filled {
 public:
  explicit Filled(std::size_t count) : rows(make_rows(count)), order(shuffled(count)) {
    put_all(directory.podb, make_entries(rows, directory), count);
    directory.podb.close_db(0);
    must(directory.podb.open(), "open");
  }
  Directory directory;
  const std::vector<Row> rows;
  const std::vector<std::size_t> order;
  BareDatabase bare{directory.podb.get_dbfile_path()};
};

// Checks a row as the store does: its columns, its checksum, the record that it makes.
struct RowCheck {
  const Directory* directory;
  FilePO* into;  // null: a record of its own for every row
  std::size_t rows;

  static int take(void* context, int columns, char** values, char**) {
    auto& check = *static_cast<RowCheck*>(context);
    if (columns != 4 || values[0] == nullptr || values[1] == nullptr || values[2] == nullptr ||
        values[3] == nullptr) {
      return 1;
    }
    const std::uint32_t crc = SQLitePODB::calculate_crc(values[0], values[1], values[2]);
    if (crc != std::strtoull(values[3], nullptr, 10)) return 1;
    const PORecord record(check.into == nullptr ? POCreate() : nullptr);
    _po_t* filled = check.into == nullptr ? record.get() : check.into->record();
    if (POSetFromString(filled, values[2]) != 0) return 1;
    POSetDsid(filled, 1);
    const std::string inner = "/client/policy/" + std::string(values[0]);
    ++check.rows;
    return POSetPath(filled, inner.c_str());
  }
};

struct CountCheck {
  std::size_t value;
  static int take(void* context, int, char** values, char**) {
    static_cast<CountCheck*>(context)->value = std::strtoull(values[0], nullptr, 10);
    return 0;
  }
};

const std::string kSelect = "SELECT basename, poid, content, crc FROM po";

void get_by_library(Filled& filled) {
  FilePO entry(1);
  for (const std::size_t i : filled.order) {
    must(filled.directory.podb.get(filled.rows[i].basename, &entry), "get");
  }
}

void get_by_floor(Filled& filled) {
  FilePO entry(1);
  RowCheck check{&filled.directory, &entry, 0};
  for (const std::size_t i : filled.order) {
    filled.bare.exec(kSelect + " WHERE basename = '" + filled.rows[i].basename + "'",
                     RowCheck::take, &check);
  }
  must(check.rows != filled.order.size(), "bare get");
}

void exists_by_library(Filled& filled) {
  for (const std::size_t i : filled.order) {
    must(!filled.directory.podb.exists(filled.rows[i].basename), "exists");
  }
}

void exists_by_floor(Filled& filled) {
  CountCheck check{0};
  for (const std::size_t i : filled.order) {
    filled.bare.exec("SELECT COUNT(*) FROM po WHERE basename = '" + filled.rows[i].basename + "'",
                     CountCheck::take, &check);
    must(check.value != 1, "bare exists");
  }
}

// Deletes every row and takes it back, so that the next round finds all.
void del_by_library(Filled& filled) {
  SQLitePODB& podb = filled.directory.podb;
  must(podb.begin_transaction(), "begin");
  for (const std::size_t i : filled.order) must(podb.del(filled.rows[i].basename), "del");
  must(podb.rollback_transaction(), "rollback");
}

void del_by_floor(Filled& filled) {
  filled.bare.exec("BEGIN IMMEDIATE TRANSACTION");
  for (const std::size_t i : filled.order) {
    filled.bare.exec("DELETE FROM po WHERE basename = '" + filled.rows[i].basename + "'");
    must(sqlite3_changes(filled.bare.handle()) != 1, "bare del");
  }
  filled.bare.exec("ROLLBACK TRANSACTION");
}

class Counter : public POProcessor {
 public:
  int process(PO*) override { return ++rows > 0 ? 0 : 1; }
  std::size_t rows = 0;
};

void find_by_library(Filled& filled, const std::string& pattern) {
  POQueue found;
  must(filled.directory.podb.find_by_pattern(pattern, &found, true), "find");
  must(found.empty(), "find");
}

void process_by_library(Filled& filled, const std::string& pattern) {
  Counter counter;
  must(filled.directory.podb.process_by_pattern(pattern, &counter), "process");
  must(counter.rows == 0, "process");
}

void find_by_floor(Filled& filled, const std::string& pattern) {
  RowCheck check{&filled.directory, nullptr, 0};
  filled.bare.exec(kSelect + " WHERE basename GLOB '" + pattern + "'  ORDER BY basename ASC ",
                   RowCheck::take, &check);
  must(check.rows == 0, "bare find");
}

}  // namespace

void add_podb_cases(std::vector<Case>& cases, std::size_t scale) {
  for (const std::size_t count : {1000UL, 10000UL, 100000UL}) {
    const std::size_t n = count / scale;
    cases.push_back(put_case(std::to_string(n) + " rows in one transaction", n, n));
  }
  cases.push_back(put_case("one row per transaction", 1000 / scale, 1));

  const std::size_t count = 100000 / scale;
  const auto filled = std::make_shared<std::unique_ptr<Filled>>();
  const auto reading = [=](void (*run)(Filled&)) {
    return [=] {
      if (!*filled) *filled = std::make_unique<Filled>(count);
      return [=] { run(**filled); };
    };
  };
  const auto searching = [=](void (*run)(Filled&, const std::string&), const char* pattern) {
    return [=] {
      if (!*filled) *filled = std::make_unique<Filled>(count);
      return [=] { run(**filled, pattern); };
    };
  };
  cases.push_back({"get by name",
                   count,
                   0.95,
                   {{"library", reading(get_by_library)}, {"floor", reading(get_by_floor)}}});
  cases.push_back({"exists by name",
                   count,
                   0.95,
                   {{"library", reading(exists_by_library)}, {"floor", reading(exists_by_floor)}}});
  cases.push_back({"del by name",
                   count,
                   0.95,
                   {{"library", reading(del_by_library)}, {"floor", reading(del_by_floor)}}});
  for (const auto& [what, pattern] : {std::pair("all", "*"), std::pair("1 in 1000", "*077")}) {
    cases.push_back({std::string("find_by_pattern/") + what,
                     count,
                     0.90,
                     {{"library", searching(find_by_library, pattern)},
                      {"floor", searching(find_by_floor, pattern)}}});
    cases.push_back({std::string("process_by_pattern/") + what,
                     count,
                     0.90,
                     {{"library", searching(process_by_library, pattern)},
                      {"floor", searching(find_by_floor, pattern)}}});
  }
}

}  // namespace bench
