// Rows of one database, read and deleted through SQLitePODB and by the same bare statements, with
// the same checks of each row and the same parse by the host.
#include <algorithm>

#include "bench/cases.h"
#include "bench/databases.h"
#include "bench/lmdb.h"

namespace bench {

namespace {

using Run = void (*)(Filled&);

// More would only take longer.
constexpr std::size_t kMostLookups = 100000;

std::size_t lookups(const Filled& filled) { return std::min(filled.order.size(), kMostLookups); }

const Row& row_at(const Filled& filled, std::size_t i) { return filled.rows[filled.order[i]]; }

void get_by_library(Filled& filled) {
  FilePO entry(1);
  for (std::size_t i = 0; i < lookups(filled); ++i) {
    must(filled.directory.podb.get(row_at(filled, i).basename, &entry), "get");
  }
}

void get_by_floor(Filled& filled) {
  FilePO entry(1);
  RowCheck check;
  check.into = entry.record();
  for (std::size_t i = 0; i < lookups(filled); ++i) {
    filled.bare.exec(kSelect + where_name_is(row_at(filled, i)), RowCheck::take, &check);
  }
  must(check.rows != lookups(filled), "bare get");
}

void get_prepared(Filled& filled) {
  BareStatement selection(filled.bare,
                          "SELECT basename, poid, content, crc FROM po WHERE basename = ?");
  FilePO entry(1);
  RowCheck check;
  check.into = entry.record();
  for (std::size_t i = 0; i < lookups(filled); ++i) {
    selection.bind(1, row_at(filled, i).basename);
    must(!selection.step(), "prepared get");
    char* values[4];
    for (int column = 0; column < 4; ++column) {
      values[column] = const_cast<char*>(selection.text(column));
    }
    must(RowCheck::take(&check, 4, values, nullptr) != 0, "prepared get");
    selection.reset();
  }
}

void get_by_lmdb(Filled& filled, Lmdb& store) {
  FilePO entry(1);
  RowCheck check;
  check.into = entry.record();
  for (std::size_t i = 0; i < lookups(filled); ++i) store.get(row_at(filled, i).basename, check);
}

void exists_by_library(Filled& filled) {
  for (std::size_t i = 0; i < lookups(filled); ++i) {
    must(!filled.directory.podb.exists(row_at(filled, i).basename), "exists");
  }
}

void exists_by_floor(Filled& filled) {
  for (std::size_t i = 0; i < lookups(filled); ++i) {
    CountCheck check;
    filled.bare.exec("SELECT COUNT(*) FROM po" + where_name_is(row_at(filled, i)), CountCheck::take,
                     &check);
    must(check.value != 1, "bare exists");
  }
}

// Deletes rows and takes it back, so that the next round finds all.
void del_by_library(Filled& filled) {
  SQLitePODB& podb = filled.directory.podb;
  must(podb.begin_transaction(), "begin");
  for (std::size_t i = 0; i < lookups(filled); ++i) {
    must(podb.del(row_at(filled, i).basename), "del");
  }
  must(podb.rollback_transaction(), "rollback");
}

void del_by_floor(Filled& filled) {
  filled.bare.exec("BEGIN IMMEDIATE TRANSACTION;");
  for (std::size_t i = 0; i < lookups(filled); ++i) {
    filled.bare.exec("DELETE FROM po" + where_name_is(row_at(filled, i)));
    must(sqlite3_changes(filled.bare.handle()) != 1, "bare del");
  }
  filled.bare.exec("ROLLBACK TRANSACTION;");
}

constexpr const char* kAll = "*";
constexpr const char* kFew = "*077";

template <const char* const& pattern>
void find_by_library(Filled& filled) {
  POQueue found;
  must(filled.directory.podb.find_by_pattern(pattern, &found, true), "find");
  must(found.empty(), "find");
}

void run_find(Filled& filled, const char* pattern, RowCheck& check) {
  filled.bare.exec(kSelect + " WHERE basename GLOB '" + pattern + "'  ORDER BY basename ASC ",
                   RowCheck::take, &check);
  must(check.rows == 0, "bare find");
}

template <const char* const& pattern>
void find_by_floor(Filled& filled) {
  std::vector<PORecord> found;
  RowCheck check;
  check.keep = &found;
  run_find(filled, pattern, check);
}

class Counter : public POProcessor {
 public:
  int process(PO*) override { return ++rows > 0 ? 0 : 1; }
  std::size_t rows = 0;
};

template <const char* const& pattern>
void process_by_library(Filled& filled) {
  Counter counter;
  must(filled.directory.podb.process_by_pattern(pattern, &counter), "process");
  must(counter.rows == 0, "process");
}

template <const char* const& pattern>
void process_by_floor(Filled& filled) {
  RowCheck check;
  run_find(filled, pattern, check);
}

// A database that the first case makes and all share that read.
class Shared {
 public:
  explicit Shared(std::size_t rows) : rows_(rows) {}
  Filled& filled() {
    if (!filled_) filled_ = std::make_unique<Filled>(make_rows(rows_));
    return *filled_;
  }

 private:
  std::size_t rows_;
  std::unique_ptr<Filled> filled_;
};

Side side(const char* name, const std::shared_ptr<Shared>& shared, Run run) {
  return {name, [=] {
            Filled& filled = shared->filled();
            return [run, &filled] { run(filled); };
          }};
}

Side lmdb_side(const std::shared_ptr<Shared>& shared) {
  return {"LMDB", [=] {
            Filled& filled = shared->filled();
            const auto store = std::make_shared<Lmdb>();
            store->put(filled.rows);
            return [store, &filled] { get_by_lmdb(filled, *store); };
          }};
}

Case read_case(const std::string& name, std::size_t operations, double target,
               const std::shared_ptr<Shared>& shared, Run library, Run floor) {
  return {
      name, operations, target, {side("library", shared, library), side("floor", shared, floor)}};
}

}  // namespace

void add_read_cases(Cases& cases, std::size_t scale) {
  const std::size_t n = kMostLookups / scale;
  const auto shared = std::make_shared<Shared>(n);
  const auto add = [&](const char* name, double target, Run library, Run floor) {
    cases.push_back(read_case(name, n, target, shared, library, floor));
  };
  add("get by name", 0.95, get_by_library, get_by_floor);
  cases.back().sides.push_back(side("prepared", shared, get_prepared));
  cases.back().sides.push_back(lmdb_side(shared));
  add("exists by name", 0.95, exists_by_library, exists_by_floor);
  add("del by name", 0.95, del_by_library, del_by_floor);
  add("find_by_pattern/all", 0.90, find_by_library<kAll>, find_by_floor<kAll>);
  add("find_by_pattern/1 in 1000", 0.90, find_by_library<kFew>, find_by_floor<kFew>);
  add("process_by_pattern/all", 0.90, process_by_library<kAll>, process_by_floor<kAll>);
  add("process_by_pattern/1 in 1000", 0.90, process_by_library<kFew>, process_by_floor<kFew>);
}

void add_read_growth(Cases& cases, std::size_t rows) {
  const std::size_t n = std::min(rows, kMostLookups);
  const auto shared = std::make_shared<Shared>(rows);
  const auto add = [&](const char* name, std::size_t operations, Run library, Run floor) {
    cases.push_back(read_case(name + grouped(rows), operations, 0.90, shared, library, floor));
  };
  add("get/", n, get_by_library, get_by_floor);
  add("exists/", n, exists_by_library, exists_by_floor);
  add("del/", n, del_by_library, del_by_floor);
  add("find_by_pattern/", rows, find_by_library<kAll>, find_by_floor<kAll>);
  add("process_by_pattern/", rows, process_by_library<kAll>, process_by_floor<kAll>);
}

}  // namespace bench
