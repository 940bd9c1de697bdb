#include "bench/lmdb.h"

#include <array>

namespace bench {

namespace {

constexpr std::size_t kLargest = std::size_t{4} << 30;

void check(int rc, const char* what) { must(static_cast<unsigned long>(rc), what); }

MDB_val value_of(const std::string& text) { return {text.size(), const_cast<char*>(text.data())}; }

}  // namespace

Lmdb::Lmdb() {
  check(mdb_env_create(&environment_), "mdb_env_create");
  check(mdb_env_set_mapsize(environment_, kLargest), "mdb_env_set_mapsize");
  check(mdb_env_set_maxdbs(environment_, 2), "mdb_env_set_maxdbs");
  check(mdb_env_open(environment_, scratch_.path().c_str(), 0, 0600), "mdb_env_open");
  MDB_txn* const transaction = begin(0);
  check(mdb_dbi_open(transaction, "rows", MDB_CREATE, &rows_), "mdb_dbi_open");
  check(mdb_dbi_open(transaction, "names", MDB_CREATE | MDB_DUPSORT, &names_), "mdb_dbi_open");
  check(mdb_txn_commit(transaction), "mdb_txn_commit");
}

Lmdb::~Lmdb() { mdb_env_close(environment_); }

MDB_txn* Lmdb::begin(unsigned int flags) {
  MDB_txn* transaction = nullptr;
  check(mdb_txn_begin(environment_, nullptr, flags, &transaction), "mdb_txn_begin");
  return transaction;
}

// A row's columns lie behind one another, each with the NUL that ends it.
void Lmdb::put(const std::vector<Row>& rows) {
  MDB_txn* const transaction = begin(0);
  for (const Row& row : rows) {
    std::string stored;
    for (const std::string& column : {row.poid, row.content, std::to_string(checksum(row))}) {
      stored.append(column.c_str(), column.size() + 1);
    }
    MDB_val name = value_of(row.basename);
    MDB_val columns = value_of(stored);
    MDB_val poid = value_of(row.poid);
    check(mdb_put(transaction, rows_, &name, &columns, 0), "mdb_put");
    check(mdb_put(transaction, names_, &poid, &name, 0), "mdb_put");
  }
  check(mdb_txn_commit(transaction), "mdb_txn_commit");
}

void Lmdb::get(const std::string& basename, RowCheck& check_row) {
  MDB_txn* const transaction = begin(MDB_RDONLY);
  MDB_val name = value_of(basename);
  MDB_val columns{};
  check(mdb_get(transaction, rows_, &name, &columns), "mdb_get");
  std::array<char*, 4> values = {const_cast<char*>(basename.c_str()),
                                 static_cast<char*>(columns.mv_data), nullptr, nullptr};
  for (const std::size_t column : {2, 3}) {
    values[column] = values[column - 1] + std::string_view(values[column - 1]).size() + 1;
  }
  must(RowCheck::take(&check_row, 4, values.data(), nullptr) != 0, "LMDB get");
  mdb_txn_abort(transaction);
}

}  // namespace bench
