#include "tests/faults/world.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "po/dir_po.h"
#include "po/file_po.h"
#include "podb/retention.h"
#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/raw_database.h"
#include "tests/support/records.h"

namespace {

// For an operation that answers 0 and did not do what it says.
constexpr cr_status_t kUntrue = -77;

int stored_rows() {
  const char* const soak = std::getenv("POCATALOG_SOAK");
  return 44 * (soak != nullptr ? std::max(1, std::atoi(soak)) : 1);
}

// Of the content of an entry in its version.
std::string poid(int i, std::uint64_t version = 0) {
  return make_poid(100 * static_cast<std::uint64_t>(i) + version);
}

// One statement, or many in a transaction.
template <typename Database, typename Each>
cr_status_t batch(Database& db, int rows, Each each) {
  if (rows == 1) return each(0);
  cr_status_t status = db.begin_transaction();
  for (int i = 0; i < rows && status == CR_STATUS_OK; ++i) status = each(i);
  return status == CR_STATUS_OK ? db.commit_transaction() : status;
}

auto put(const char* kind, std::uint64_t version) {
  return [=](World& w, int rows) {
    return batch(w.po(), rows, [&](int i) {
      FilePO entry(file_text(kind + std::to_string(i), poid(i, version), 10, "/c/p"));
      return w.po().put(&entry);
    });
  };
}
const auto add = put("new", 1), replace = put("old", 2);

cr_status_t erase(World& w, int rows) {
  return batch(w.po(), rows, [&](int i) { return w.po().del("old" + std::to_string(i)); });
}

// Why something that is there was not found.
cr_status_t reason() {
  const cr_status_t status = *__cr_errno_location();
  return status == CR_STATUS_OK || status == CR_STATUS_NOT_FOUND ? kUntrue : status;
}

cr_status_t get(World& w, int rows) {
  return batch(w.po(), rows, [&](int i) {
    FilePO entry(5);
    const cr_status_t status = w.po().get("old" + std::to_string(i), &entry);
    return status == CR_STATUS_NOT_FOUND ? reason() : status;
  });
}

cr_status_t update(World& w, const refhost::RecordFields& made) {
  std::vector<PO*> removed, with_lists;
  ds_info_t info{};
  std::string action;
  const std::unique_ptr<PO> entry(PO::getObject(text_of(made), PO_STYPE_NONE));
  if (entry == nullptr) return reason();
  const unsigned int status = entry->update(&w.po(), info, removed, with_lists, action);
  for (const PO* old : removed) delete old;
  return static_cast<cr_status_t>(status);
}

// Replaces, adds and deletes in turn.
cr_status_t update_files(World& w, int rows) {
  return batch(w.po(), rows, [&](int i) {
    const std::string leaf = (i % 3 == 1 ? "new" : "old") + std::to_string(i);
    refhost::RecordFields made = file_fields(leaf, poid(i, 3), 10, "/c/p");
    if (i % 3 == 2) made.mod_type = 'D';
    return update(w, made);
  });
}

template <char ModType>
cr_status_t update_directory(World& w, int) {
  refhost::RecordFields made = dir_fields("p", "/c");
  made.mod_type = ModType;
  made.owner = "1:1";
  return update(w, made);
}

// No clock is asked on cloud storage.
cr_status_t set_retention(World& w, int rows) {
  return batch(w.po(), rows, [&](int i) {
    return w.po().set_retention("old" + std::to_string(i), RETENTION_LOCK | RETENTION_CLOUD, 50);
  });
}

// No POID in use may be taken for a leak, however the check ends.
cr_status_t double_check(World& w, int rows) {
  std::set<std::string> affected, leaks = {make_poid(7)};
  for (int i = 0; i < rows; ++i) leaks.insert(*affected.insert(poid(i)).first);
  POQueue users;
  unsigned long found = 0;
  const cr_status_t status = w.po().double_check(&affected, &users, &leaks, &found);
  return status == CR_STATUS_OK && leaks.size() != 1 ? kUntrue : status;
}

cr_status_t replay(World& w, int) {
  sqlitedb::SQLiteApplyJournal db(w.po().get_dbfile_path());
  cr_status_t status = db.open_db();
  if (status == CR_STATUS_OK) status = db.begin_transaction();
  if (status == CR_STATUS_OK) status = db.exec_file(w.root + "/journal.sql", true);
  return status == CR_STATUS_OK ? db.commit_transaction() : status;
}

// Another directory's database takes the only place in the pool, and gives it back.
cr_status_t evict_and_reopen(World& w, int rows) {
  constexpr hrtime_t kIdle = 301'000'000'000;
  const cr_status_t opened = get(w, 1);
  const std::weak_ptr<PODB> evicted = w.pool.get_podb(w.dir);
  refhost::advance_clock(kIdle);
  w.pool.get_podb(w.root + "/5/other");
  refhost::advance_clock(kIdle);
  if (!evicted.expired()) return kUntrue;
  return opened == CR_STATUS_OK ? add(w, rows) : opened;
}

template <std::uint64_t Version>
cr_status_t put_lists(World& w, int rows) {
  return batch(w.ul, rows, [&](int i) {
    std::vector<std::uint64_t> list(60, 77);
    UDCIDRecord record(30, reinterpret_cast<unsigned char*>(list.data()));
    return w.ul.put(poid(i, Version).c_str(), &record, nullptr);
  });
}

cr_status_t get_lists(World& w, int rows) {
  return batch(w.ul, rows, [&](int i) {
    const std::unique_ptr<UDCIDRecord> found(w.ul.get(poid(i).c_str()));
    if (found == nullptr) return reason();
    return found->ndcid == 30 ? CR_STATUS_OK : kUntrue;
  });
}

// Lists are not counted: those that there is no memory for are left out.
cr_status_t walk_lists(World& w, int) {
  return w.ul.get_all(
      [](const char*, UDCIDRecord* list) { return list->ndcid == 30 ? CR_STATUS_OK : kUntrue; });
}

cr_status_t drop_lists(World& w, int) { return w.ul.drop_db(); }

void nothing(World&, int) {}

// Both databases, the directory's record and a journal. With small pages and a small cache, pages
// are on their way to the file long before the commit.
void fill(World& w, int rows) {
  put("old", 0)(w, stored_rows());
  put_lists<0>(w, stored_rows());
  w.close();
  for (const std::string& file : {w.po().get_dbfile_path(), w.ul.get_dbfile_path()}) {
    raw_sql(file, "PRAGMA page_size = 512; VACUUM; PRAGMA default_cache_size = 10");
  }
  DirPO(5).save(w.dir);
  std::ofstream journal(w.root + "/journal.sql");
  for (int i = 0; i < rows; ++i) {
    journal << "INSERT OR REPLACE INTO po VALUES('"
            << "new" + std::to_string(i) << "', 'p', 'c', 1);\n";
  }
}

// Leaves what a process leaves that died in the middle of a transaction whose pages were on their
// way to the file.
void fill_and_crash(World& w, int rows) {
  namespace fs = std::filesystem;
  fill(w, rows);
  w.po().begin_transaction();
  for (int i = 0; i < stored_rows(); ++i) w.po().del("old" + std::to_string(i));
  fs::copy(w.dir, w.root + "/dead", fs::copy_options::recursive);
  w.roll_back();
  w.close();
  fs::remove_all(w.dir);
  fs::rename(w.root + "/dead", w.dir);
}

}  // namespace

// Reads answer that a database is not there when it cannot be opened; a journal that cannot be read
// is answered in one way, whatever the reason.
std::vector<Operation> operations() {
  const int many = stored_rows();
  constexpr cr_status_t kAbsent = CR_STATUS_NOT_FOUND;
  return {
      {"create", 1, add, nothing, {kAbsent}},
      {"put", 1, add, fill},
      {"put many", many, add, fill},
      {"replace", 1, replace, fill},
      {"replace many", many, replace, fill},
      {"delete", 1, erase, fill},
      {"delete many", many, erase, fill},
      {"get", many, get, fill},
      {"update of files", many, update_files, fill},
      {"update of a directory", 1, update_directory<'N'>, fill},
      {"removal of a directory with files", 1, update_directory<'D'>, fill},
      {"retention set", 1, set_retention, fill, {kAbsent}},
      {"retention set many", many, set_retention, fill, {kAbsent}},
      {"double check", many, double_check, fill},
      {"journal", many, replay, fill, {CR_STATUS_FAILED}},
      {"evict and reopen", many, evict_and_reopen, fill, {kAbsent}},
      {"put after a crash", 1, add, fill_and_crash},
      {"put list", 1, put_lists<50>, fill},
      {"put lists", many, put_lists<50>, fill},
      {"get lists", many, get_lists, fill},
      {"walk lists", many, walk_lists, fill},
      {"drop lists", 1, drop_lists, fill},
      {"create lists", 1, put_lists<50>, nothing, {CR_STATUS_FAILED}},
  };
}

Operation operation_named(const std::string& name) {
  const std::vector<Operation> all = operations();
  return *std::find_if(all.begin(), all.end(), [&](const Operation& o) { return o.name == name; });
}
