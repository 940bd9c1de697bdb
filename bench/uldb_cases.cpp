// DCID records in ul.db, through SQLiteULDB and by bare statements that are prepared once. The
// store prepares its statements for each call: a third side does so with the bare ones.
#include <cstring>

#include "base/adler32.h"
#include "bench/cases.h"
#include "bench/databases.h"
#include "uldb/sqlite_uldb.h"

namespace bench {

namespace {

struct Store {
  ScratchDir scratch;
  SQLiteULDB uldb{scratch.path(), 0};
  std::vector<std::string> poids;
  std::vector<std::uint64_t> list;
  UDCIDRecord record;

  Store(std::size_t records, std::uint32_t entries)
      : list(2 * std::size_t{entries}, 1000), record(entries, bytes(list)) {
    unsigned long none = 0;
    must(static_cast<unsigned long>(uldb.count(&none)), "create");
    for (std::size_t n = 0; n < records; ++n) poids.push_back(make_poid(n));
  }

  std::size_t blob_size() const { return 12 + list.size() * sizeof list[0]; }

 private:
  static unsigned char* bytes(std::vector<std::uint64_t>& list) {
    return reinterpret_cast<unsigned char*>(list.data());
  }
};

void put_by_library(Store& store) {
  must(static_cast<unsigned long>(store.uldb.begin_transaction()), "begin");
  for (const std::string& poid : store.poids) {
    must(static_cast<unsigned long>(store.uldb.put(poid.c_str(), &store.record, nullptr)), "put");
  }
  must(static_cast<unsigned long>(store.uldb.commit_transaction()), "commit");
}

void get_by_library(Store& store) {
  for (const std::string& poid : store.poids) {
    const std::unique_ptr<UDCIDRecord> record(store.uldb.get(poid.c_str()));
    must(record == nullptr || record->ndcid != store.record.ndcid, "get");
  }
}

cr_status_t take_record(const char* poid, UDCIDRecord* record) {
  keep(std::strlen(poid) + record->ndcid);
  return CR_STATUS_OK;
}

void get_all_by_library(Store& store) {
  must(static_cast<unsigned long>(store.uldb.get_all(take_record)), "get_all");
}

struct BareStore {
  explicit BareStore(Store& library) : store(library), db(library.uldb.get_dbfile_path()) {}
  Store& store;
  BareDatabase db;

  // The binary form, as it must be made for every record.
  std::vector<unsigned char> serialized() const {
    std::vector<unsigned char> bytes(store.blob_size());
    unsigned int size = static_cast<unsigned int>(bytes.size());
    must(static_cast<unsigned long>(UDCIDRecord(store.record).Serialize(bytes.data(), size)),
         "Serialize");
    return bytes;
  }

  // What must be done with the bytes of a row: sum them and take the list.
  static void take(BareStatement& row, int column) {
    const std::size_t size = row.size(column);
    const void* bytes = row.blob(column);
    const std::uint32_t sum = base::adler32(base::kAdler32Start, bytes, size - 4);
    must(std::memcmp(&sum, static_cast<const char*>(bytes) + size - 4, 4) != 0, "checksum");
    const HostText list(static_cast<char*>(std::malloc(size)));
    std::memcpy(list.get(), bytes, size);
    keep(static_cast<std::size_t>(list.get()[size / 2]));
  }
};

// Calls `work` with a statement for every POID: the same one, or one that is prepared for it.
template <typename Work>
void for_each_poid(BareStore& bare, const char* sql, bool prepare_each, Work work) {
  auto statement = std::make_unique<BareStatement>(bare.db, sql);
  for (const std::string& poid : bare.store.poids) {
    if (prepare_each) statement = std::make_unique<BareStatement>(bare.db, sql);
    statement->bind(1, poid);
    work(*statement);
    statement->reset();
  }
}

void put_bare(BareStore& bare, bool prepare_each) {
  std::vector<unsigned char> bytes = bare.serialized();
  const std::vector<std::uint64_t>& list = bare.store.list;
  bare.db.exec("BEGIN IMMEDIATE TRANSACTION");
  for_each_poid(bare, "INSERT OR REPLACE INTO utable VALUES( ?, ? )", prepare_each,
                [&](BareStatement& insertion) {
                  std::memcpy(bytes.data() + 8, list.data(), list.size() * sizeof list[0]);
                  const std::uint32_t sum =
                      base::adler32(base::kAdler32Start, bytes.data(), bytes.size() - 4);
                  std::memcpy(bytes.data() + bytes.size() - 4, &sum, sizeof sum);
                  insertion.bind(2, bytes.data(), bytes.size());
                  insertion.step();
                });
  bare.db.exec("COMMIT TRANSACTION");
}

void get_bare(BareStore& bare, bool prepare_each) {
  for_each_poid(bare, "SELECT udcids FROM utable WHERE poid = ?", prepare_each,
                [](BareStatement& selection) {
                  must(!selection.step(), "bare get");
                  BareStore::take(selection, 0);
                });
}

void put_by_floor(BareStore& bare) { put_bare(bare, false); }
void put_prepared_each(BareStore& bare) { put_bare(bare, true); }
void get_by_floor(BareStore& bare) { get_bare(bare, false); }
void get_prepared_each(BareStore& bare) { get_bare(bare, true); }

void get_all_by_floor(BareStore& bare) {
  BareStatement selection(bare.db, "SELECT * FROM utable ORDER BY poid ASC ");
  std::size_t rows = 0;
  for (; selection.step(); ++rows) {
    keep(std::strlen(selection.text(0)));
    BareStore::take(selection, 1);
  }
  must(rows != bare.store.poids.size(), "bare get_all");
}

struct Size {
  std::size_t records;
  std::uint32_t entries;
};

using Made = std::function<std::shared_ptr<Store>()>;

Side library_side(const Made& made, void (*run)(Store&)) {
  return {"library", [=] {
            const auto store = made();
            return [=] { run(*store); };
          }};
}

Side bare_side(const char* name, const Made& made, void (*run)(BareStore&)) {
  return {name, [=] {
            const auto store = made();
            const auto bare = std::make_shared<BareStore>(*store);
            return [=] {
              run(*bare);
              keep(store->poids.size());
            };
          }};
}

void add_stores(Cases& cases, Size size, const std::string& suffix) {
  const Made empty = [=] { return std::make_shared<Store>(size.records, size.entries); };
  const Made filled = [=] {
    auto store = empty();
    put_by_library(*store);
    return store;
  };
  const auto add = [&](const char* name, const Made& made, void (*library)(Store&),
                       void (*floor)(BareStore&)) {
    cases.push_back({std::string("SQLiteULDB::") + name + suffix,
                     size.records,
                     0.90,
                     {library_side(made, library), bare_side("floor", made, floor)}});
  };
  add("put", empty, put_by_library, put_by_floor);
  cases.back().sides.push_back(bare_side("prepared each time", empty, put_prepared_each));
  add("get", filled, get_by_library, get_by_floor);
  cases.back().sides.push_back(bare_side("prepared each time", filled, get_prepared_each));
  add("get_all", filled, get_all_by_library, get_all_by_floor);
}

}  // namespace

void add_uldb_cases(Cases& cases, std::size_t scale) {
  for (const Size& full : {Size{10000, 4}, Size{1000, 1000}}) {
    add_stores(cases, {full.records / scale, full.entries},
               "/" + grouped(full.entries) + " entries");
  }
}

void add_uldb_growth(Cases& cases, std::size_t records) {
  add_stores(cases, {records, 4}, " of 4 entries/" + grouped(records));
}

}  // namespace bench
