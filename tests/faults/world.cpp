#include "tests/faults/world.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <new>

#include "po/file_po.h"
#include "podb/retention.h"
#include "refhost/control.h"
#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/raw_database.h"

namespace {

constexpr int kStoredRows = 40;
constexpr hrtime_t kIdle = 301'000'000'000;

std::string name(const char* kind, int i) { return kind + std::to_string(i); }

// Of the content of an entry in its version.
std::string poid(int i, int version = 0) {
  return make_poid(static_cast<std::uint64_t>(100 * i + version));
}

// Of the entry `i` in its version `v`.
refhost::RecordFields fields(const std::string& leaf, int i, int version) {
  refhost::RecordFields made =
      file_fields(leaf, poid(i, version), static_cast<std::uint64_t>(10 + version), "/c/p");
  made.dsid = 5;
  made.content_fp = "f";
  return made;
}

cr_status_t put(PODB& db, const std::string& leaf, int i, int version) {
  FilePO entry(text_of(fields(leaf, i, version)));
  return db.put(&entry);
}

cr_status_t put_list(SQLiteULDB& db, const std::string& key, std::uint64_t dcid) {
  std::vector<std::uint64_t> list(60, dcid);
  UDCIDRecord record(30, reinterpret_cast<unsigned char*>(list.data()));
  return db.put(key.c_str(), &record, nullptr);
}

// One statement, or many in a transaction.
template <typename Database, typename Each>
cr_status_t batch(Database& db, int rows, Each each) {
  if (rows == 1) return each(0);
  cr_status_t status = db.begin_transaction();
  for (int i = 0; i < rows && status == CR_STATUS_OK; ++i) status = each(i);
  return status == CR_STATUS_OK ? db.commit_transaction() : status;
}

void nothing(World&, int) {}

cr_status_t create(World& w, int) { return w.po.check_db_existence(true); }

template <int Version>
cr_status_t put_rows(World& w, int rows) {
  const char* const kind = Version == 1 ? "new" : "old";
  return batch(w.po, rows, [&](int i) { return put(w.po, name(kind, i), i, Version); });
}

cr_status_t erase(World& w, int rows) {
  return batch(w.po, rows, [&](int i) { return w.po.del(name("old", i)); });
}

cr_status_t get(World& w, int rows) {
  return batch(w.po, rows, [&](int i) {
    FilePO entry(5);
    const cr_status_t status = w.po.get(name("old", i), &entry);
    if (status == CR_STATUS_NOT_FOUND) {
      return *__cr_errno_location() != CR_STATUS_OK ? *__cr_errno_location() : kUntrue;
    }
    return status;
  });
}

// Adds, replaces and deletes in turn; the statistics agree with what was done.
cr_status_t update_files(World& w, int rows) {
  std::vector<std::unique_ptr<PO>> incoming;
  incoming.reserve(static_cast<std::size_t>(rows));
  struct Removed {
    std::vector<PO*> entries;
    ~Removed() {
      for (const PO* old : entries) delete old;
    }
  } removed;
  std::vector<PO*> udcid;
  ds_info_t info{};
  std::int64_t size = 0, count = 0;
  std::string action;
  const cr_status_t status = batch(w.po, rows, [&](int i) {
    refhost::RecordFields made = fields(name(i % 3 == 1 ? "new" : "old", i), i, 3);
    if (i % 3 == 2) made.mod_type = 'D';
    size += i % 3 == 0 ? 3 : i % 3 == 1 ? 13 : -13;
    count += i % 3 == 0 ? 0 : i % 3 == 1 ? 1 : -1;
    incoming.emplace_back(PO::getObject(text_of(made), PO_STYPE_NONE));
    if (incoming.back() == nullptr) return *__cr_errno_location();
    return static_cast<cr_status_t>(
        incoming.back()->update(&w.po, info, removed.entries, udcid, action));
  });
  if (status != CR_STATUS_OK) return status;
  const bool counted = info.total_size == static_cast<std::uint64_t>(size) &&
                       info.file_count == static_cast<std::uint64_t>(count);
  return counted ? CR_STATUS_OK : kUntrue;
}

template <char ModType>
cr_status_t update_directory(World& w, int) {
  refhost::RecordFields made = dir_fields("p", "/c");
  made.dsid = 5;
  made.mod_type = ModType;
  made.owner = "1:1";
  const std::unique_ptr<PO> entry(PO::getObject(text_of(made), PO_STYPE_NONE));
  if (entry == nullptr) return *__cr_errno_location();
  ds_info_t info{};
  std::vector<PO*> none;
  std::string action;
  return static_cast<cr_status_t>(entry->update(&w.po, info, none, none, action));
}

// No clock is asked on cloud storage.
cr_status_t set_retention(World& w, int rows) {
  return batch(w.po, rows, [&](int i) {
    return w.po.set_retention(name("old", i), RETENTION_LOCK | RETENTION_CLOUD, 50);
  });
}

// No POID in use may be taken for a leak, however the check ends.
cr_status_t double_check(World& w, int rows) {
  std::set<std::string> affected, leaks;
  for (int i = 0; i < rows; ++i) {
    affected.insert(poid(i));
    leaks.insert({poid(i), make_poid(7)});
  }
  const std::size_t asked = affected.size();
  POQueue users;
  unsigned long found = 0;
  const cr_status_t status = w.po.double_check(&affected, &users, &leaks, &found);
  if (status != CR_STATUS_OK) return status;
  // What was not asked for stays in the set.
  const bool counted =
      users.size() + affected.size() == asked && found == static_cast<unsigned long>(stored_rows());
  return counted && leaks == std::set<std::string>{make_poid(7)} ? CR_STATUS_OK : kUntrue;
}

// Small pages and a small cache: pages are on their way to the file long before the commit.
void use_small_pages(const std::string& file) {
  raw_sql(file, "PRAGMA page_size = 512; VACUUM; PRAGMA default_cache_size = 10");
}

void fill(World& w, int) {
  batch(w.po, stored_rows(), [&](int i) { return put(w.po, name("old", i), i, 0); });
  w.close();
  use_small_pages(w.po.get_dbfile_path());
}

void fill_lists(World& w, int) {
  batch(w.ul, stored_rows(), [&](int i) { return put_list(w.ul, poid(i), 64); });
  w.close();
  use_small_pages(w.ul.get_dbfile_path());
}

void fill_directory(World& w, int rows) {
  fill(w, rows);
  DirPO(5).save(w.dir);
}

std::string journal(const World& w) { return w.root + "/journal.sql"; }

std::string journal_line(int i) {
  const std::string leaf = name("journal", 1000 + i), poid = make_poid(5);
  refhost::RecordFields made = fields("", i, 0);
  made.directory = "";
  const std::string content = text_of(made);
  const auto crc = SQLitePODB::calculate_crc(leaf.c_str(), made.poid.c_str(), content.c_str());
  return "INSERT OR REPLACE INTO po VALUES('" + leaf + "', '" + made.poid + "', '" + content +
         "', " + std::to_string(crc) + ");\n";
}

void prepare_journal(World& w, int rows) {
  fill(w, rows);
  std::ofstream file(journal(w));
  for (int i = 0; i < rows; ++i) file << journal_line(i);
}

template <bool InTransaction>
cr_status_t replay(World& w, int) {
  try {
    sqlitedb::SQLiteApplyJournal db(w.po.get_dbfile_path());
    const cr_status_t opened = db.open_db();
    if (opened != CR_STATUS_OK) return opened;
    if (!InTransaction) return db.exec_file(journal(w), false);
    cr_status_t status = db.begin_transaction();
    if (status == CR_STATUS_OK) status = db.exec_file(journal(w), true);
    return status == CR_STATUS_OK ? db.commit_transaction() : status;
  } catch (const sqlitedb::db_exception& caught) {
    return caught.cr_status();
  }
}

// Another directory's database takes the only place in the pool, and gives it back.
cr_status_t evict_and_reopen(World& w, int rows) {
  unsigned long n = 0;
  const cr_status_t counted = w.pool.get_podb(w.dir)->count(&n);
  if (counted != CR_STATUS_OK) return counted;
  const std::weak_ptr<PODB> evicted = w.pool.get_podb(w.dir);
  refhost::advance_clock(kIdle);
  w.pool.get_podb(w.root + "/5/other");
  refhost::advance_clock(kIdle);
  const std::shared_ptr<PODB> db = w.pool.get_podb(w.dir);
  if (!evicted.expired()) return kUntrue;
  cr_status_t status = db->begin_transaction();
  for (int i = 0; i < rows && status == CR_STATUS_OK; ++i) status = put(*db, name("new", i), i, 1);
  return status == CR_STATUS_OK ? w.pool.commit_all() : status;
}

cr_status_t put_lists(World& w, int rows) {
  return batch(w.ul, rows, [&](int i) { return put_list(w.ul, poid(i, 50), 77); });
}

cr_status_t get_lists(World& w, int rows) {
  return batch(w.ul, rows, [&](int i) {
    const std::unique_ptr<UDCIDRecord> found(w.ul.get(poid(i).c_str()));
    if (found != nullptr) return found->ndcid == 30 ? CR_STATUS_OK : kUntrue;
    const cr_status_t reason = *__cr_errno_location();
    return reason == CR_STATUS_OK || reason == CR_STATUS_NOT_FOUND ? kUntrue : reason;
  });
}

int lists_seen = 0;
cr_status_t get_all_lists(World& w, int) {
  lists_seen = 0;
  const cr_status_t status = w.ul.get_all([](const char*, UDCIDRecord* list) {
    lists_seen += list->ndcid == 30 ? 1 : 0;
    return CR_STATUS_OK;
  });
  return status == CR_STATUS_OK && lists_seen != stored_rows() ? kUntrue : status;
}

cr_status_t drop_lists(World& w, int) { return w.ul.drop_db(); }

// Leaves what a process leaves that died in the middle of a transaction whose pages were on their
// way to the file.
void prepare_crash(World& w, int rows) {
  fill(w, rows);
  namespace fs = std::filesystem;
  const std::string dead = w.root + "/dead";
  w.po.begin_transaction();
  for (int i = 0; i < stored_rows(); ++i) put(w.po, name("old", i), i, 4);
  fs::copy(w.dir, dead, fs::copy_options::recursive);
  w.po.rollback_transaction();
  w.close();
  fs::remove_all(w.dir);
  fs::rename(dead, w.dir);
}

}  // namespace

int stored_rows() {
  const char* const soak = std::getenv("POCATALOG_SOAK");
  return kStoredRows * (soak != nullptr ? std::max(1, std::atoi(soak)) : 1);
}

// Reads answer that a database is not there when it cannot be opened. A journal that cannot be read
// is answered in one way, whatever the reason; and a walk leaves out the lists that it has no
// memory for, as it does with damaged ones.
std::vector<Operation> operations() {
  const int many = stored_rows();
  constexpr cr_status_t kAbsent = CR_STATUS_NOT_FOUND;
  return {
      {"create", 1, create, nothing, false, kAbsent},
      {"put", 1, put_rows<1>, fill},
      {"put many", many, put_rows<1>, fill},
      {"replace", 1, put_rows<2>, fill},
      {"replace many", many, put_rows<2>, fill},
      {"delete", 1, erase, fill},
      {"delete many", many, erase, fill},
      {"get", many, get, fill},
      {"update of files", many, update_files, fill},
      {"update of a directory", 1, update_directory<'N'>, fill_directory},
      {"removal of a directory with files", 1, update_directory<'D'>, fill_directory},
      {"retention set", 1, set_retention, fill, false, kAbsent},
      {"retention set many", many, set_retention, fill, false, kAbsent},
      {"double check", many, double_check, fill},
      {"journal in a transaction", many, replay<true>, prepare_journal, false, 0, CR_STATUS_FAILED},
      {"journal by lines", many / 4, replay<false>, prepare_journal, true, 0, CR_STATUS_FAILED},
      {"evict and reopen", many, evict_and_reopen, fill, false, kAbsent},
      {"put after a crash", 1, put_rows<1>, prepare_crash},
      {"put list", 1, put_lists, fill_lists},
      {"put lists", many, put_lists, fill_lists},
      {"get lists", many, get_lists, fill_lists},
      {"get all lists", many, get_all_lists, fill_lists, false, 0, kUntrue},
      {"create lists", 1, put_lists, nothing, true, CR_STATUS_FAILED},
      {"drop lists", 1, drop_lists, fill_lists},
  };
}

World::World(const std::string& catalog_root) : root(catalog_root) {
  refhost::set_clock(0);
  pool.init(root, new SQLitePODBFactory);
  ul.db_close();  // opened under faults as well
}

cr_status_t World::roll_back() {
  const auto roll_back = [](auto& db, bool active) {
    return active ? db.rollback_transaction() : CR_STATUS_OK;
  };
  const std::shared_ptr<PODB> pooled = pool.get_podb(dir);
  roll_back(ul, ul.is_transaction_active());
  const cr_status_t status = roll_back(po, po.is_transaction_active(nullptr));
  return status == CR_STATUS_OK ? roll_back(*pooled, pooled->is_transaction_active(nullptr))
                                : status;
}

void World::close() {
  po.close_db(0);
  ul.db_close();
  pool.close_all();
}

cr_status_t run_caught(const Operation& operation, World& world) try {
  return operation.run(world, operation.rows);
} catch (const std::bad_alloc&) {
  return CR_STATUS_NO_MEMORY;
} catch (const Cr_ErrnoException& caught) {
  return caught.status();
}

Rows rows_of(const std::string& dir, intact::Faults& faults) {
  Rows rows;
  for (const auto& [name, table] : {std::pair{"/po.db", "po"}, {"/ul.db", "utable"}}) {
    const std::string all = std::string("SELECT * FROM ") + table;
    intact::check_database(dir + name, all, faults, [&rows](sqlite3_stmt* row) {
      std::string line;
      for (int i = 0; i < sqlite3_column_count(row); ++i) line += intact::text(row, i) + "|";
      rows.push_back(line);
    });
    if (intact::has_content(dir + name)) rows.push_back(std::string(" ") + name);  // sorts first
  }
  std::string record;
  wa_readfile((dir + "/" + DirPO::recordfilename()).c_str(), &record);
  if (!record.empty()) rows.push_back(record);
  std::sort(rows.begin(), rows.end());
  return rows;
}

bool may_leave(const Operation& operation, const Rows& rows, const Rows& before,
               const Rows& after) {
  if (rows == before || rows == after) return true;
  const auto added_to = [&before](const Rows& all) {
    Rows added;
    std::set_difference(all.begin(), all.end(), before.begin(), before.end(),
                        std::back_inserter(added));
    return added;
  };
  const Rows added = added_to(rows), all_added = added_to(after);
  return operation.by_lines && rows.size() == before.size() + added.size() &&
         added.size() <= all_added.size() &&
         std::equal(added.begin(), added.end(), all_added.begin());
}
