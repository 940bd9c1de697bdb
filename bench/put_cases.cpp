// Rows of one database, stored through SQLitePODB and by the same text in bare statements. The
// floor asks the host what the library must ask it, and finds the text of the statement made.
#include "bench/cases.h"
#include "bench/databases.h"
#include "bench/lmdb.h"

namespace bench {

namespace {

struct BarePuts {
  Directory directory;
  Entries entries;
  std::vector<std::string> texts;
  BareDatabase db{directory.podb.get_dbfile_path()};

  explicit BarePuts(const std::vector<Row>& rows) : entries(make_entries(rows, directory)) {
    for (const Row& row : rows) texts.push_back(insert_text(row));
  }

  void run(std::size_t rows_each) {
    for (std::size_t next = 0; next < texts.size();) {
      db.exec("BEGIN IMMEDIATE TRANSACTION;");
      for (std::size_t n = 0; n < rows_each && next < texts.size(); ++n, ++next) {
        ask_host_to_store(*entries[next]);
        db.exec(texts[next]);
      }
      db.exec("COMMIT TRANSACTION;");
    }
  }
};

Work put_by_library(std::size_t count, std::size_t rows_each) {
  const auto directory = std::make_shared<Directory>();
  const auto entries = std::make_shared<Entries>(make_entries(make_rows(count), *directory));
  return [=] { put_all(directory->podb, *entries, rows_each); };
}

Work put_by_floor(std::size_t count, std::size_t rows_each) {
  const auto puts = std::make_shared<BarePuts>(make_rows(count));
  return [=] { puts->run(rows_each); };
}

void put_prepared(BareDatabase& db, const std::vector<Row>& rows) {
  BareStatement insertion(db, "INSERT OR REPLACE INTO po VALUES (?, ?, ?, ?)");
  db.exec("BEGIN IMMEDIATE TRANSACTION;");
  for (const Row& row : rows) {
    insertion.bind(1, row.basename);
    insertion.bind(2, row.poid);
    insertion.bind(3, row.content);
    insertion.bind(4, checksum(row));
    insertion.step();
    insertion.reset();
  }
  db.exec("COMMIT TRANSACTION;");
}

Work put_by_limit(std::size_t count) {
  const auto directory = std::make_shared<Directory>();
  const auto db = std::make_shared<BareDatabase>(directory->podb.get_dbfile_path());
  const auto rows = std::make_shared<const std::vector<Row>>(make_rows(count));
  return [=] {
    put_prepared(*db, *rows);
    keep(directory.use_count());
  };
}

Work put_by_lmdb(std::size_t count) {
  const auto store = std::make_shared<Lmdb>();
  const auto rows = std::make_shared<const std::vector<Row>>(make_rows(count));
  return [=] { store->put(*rows); };
}

Case put_case(const std::string& name, std::size_t count, std::size_t rows_each) {
  return {"put/" + name,
          count,
          0.95,
          {{"library", [=] { return put_by_library(count, rows_each); }},
           {"floor", [=] { return put_by_floor(count, rows_each); }}}};
}

}  // namespace

void add_put_cases(Cases& cases, std::size_t scale) {
  for (const std::size_t count : {1000UL, 10000UL, 100000UL}) {
    const std::size_t n = count / scale;
    cases.push_back(put_case(grouped(n) + " rows in one transaction", n, n));
    cases.back().sides.push_back({"prepared", [=] { return put_by_limit(n); }});
    cases.back().sides.push_back({"LMDB", [=] { return put_by_lmdb(n); }});
  }
  cases.push_back(put_case("one row per transaction", 1000 / scale, 1));
}

void add_put_growth(Cases& cases, std::size_t rows) {
  cases.push_back(put_case(grouped(rows), rows, rows));
}

}  // namespace bench
