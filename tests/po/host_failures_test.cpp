#include <sqlite3.h>

#include <functional>
#include <memory>

#include "po/dir_po.h"
#include "podb/retention.h"
#include "sqlitedb/sqlite_wrapper.h"
#include "tests/podb/fixture.h"
#include "tests/support/next.h"

namespace {

// What a host function that fails leaves in the cell, or throws.
constexpr cr_status_t kBadAlloc = -100, kDamaged = -101;

std::string failing;
cr_status_t left = CR_STATUS_OK;

cr_status_t& cell() { return *__cr_errno_location(); }

// The host's function of that name or, while it fails, -1 or null.
template <typename Result, typename... Parameters>
Result host(const char* name, Result (*function)(Parameters...), Parameters... arguments) {
  if (failing != name) {
    return next(name, function)(arguments...);
  }
  if (left == kBadAlloc) throw std::bad_alloc();
  if (left == kDamaged) throw sqlitedb::db_exception(SQLITE_CORRUPT);
  cell() = left;
  if constexpr (!std::is_pointer_v<Result>) return Result(-1);
  return Result();
}

using Text = const char*;

}  // namespace

extern "C" {
int POSetFromString(_po_t* po, Text text) { return host(__func__, &POSetFromString, po, text); }
int POSetDirname(_po_t* po, Text name) { return host(__func__, &POSetDirname, po, name); }
int POSetBasename(_po_t* po, Text name) { return host(__func__, &POSetBasename, po, name); }
int POSetDsid(_po_t* po, std::uint32_t dsid) { return host(__func__, &POSetDsid, po, dsid); }
int POSetPath(_po_t* po, Text path) { return host(__func__, &POSetPath, po, path); }
int POSetSpecialFlags(_po_t* po, unsigned f) { return host(__func__, &POSetSpecialFlags, po, f); }
int POSetAtime(_po_t* po, std::uint64_t time) { return host(__func__, &POSetAtime, po, time); }
_po_t* POCreate() { return host(__func__, &POCreate); }
char* POToStringMalloced(const _po_t* po) { return host(__func__, &POToStringMalloced, po); }
Text POGetBasename(const _po_t* po) { return host(__func__, &POGetBasename, po); }
Text POGetHashRef(const _po_t* po) { return host(__func__, &POGetHashRef, po); }
Text POGetCdoRef(const _po_t* po) { return host(__func__, &POGetCdoRef, po); }
cr_status_t wa_access(Text path, int mode) { return host(__func__, &wa_access, path, mode); }
cr_status_t wa_deletefile(Text path) { return host(__func__, &wa_deletefile, path); }
}  // extern "C"

namespace {

using FailingHost = StoreTest;

TEST_F(FailingHost, is_told_of_with_the_status_that_it_left) {
  const std::string spare = root.path("5/s"), path = dir + "/f";
  SQLitePODB fresh(root.path(), spare);
  refhost::RecordFields fields = file_fields("f", make_poid(1), 7, "/c/p"), foreign = fields;
  foreign.type = 7;
  fields.content_fp = "f00d", fields.special_flags = SF_IMMUTABLE | SF_CLOUDLSU;
  const std::string form = text_of(fields);
  FilePO file_entry(file_text("f")), full(form), no_file(text_of(dir_fields("d")));
  DirPO dir_entry(5), no_dir(form);
  ds_info_t info{};
  std::vector<PO*> lists;
  std::string text;
  POQueue found;
  tolvfs_worm_info_t worm{};
  const auto add = [&] { return file_entry.add_info(root.path(), path, nullptr); };
  const auto set = [&] { return file_entry.set(root.path(), file_text("f"), path); };
  const auto save = [&] { return file_entry.save(&db, path); };
  const auto write = [&] { return file_entry.write(path); };
  const auto lock = [&] {
    return file_entry.set_retention(&db, path, RETENTION_LOCK | RETENTION_CLOUD, 0);
  };
  const auto made = [](PO* entry) { return std::unique_ptr<PO>(entry) ? 0 : cell(); };
  const auto make = [&] { return made(PO::getObjectWithPath("/r", "/r/5/f", 5)); };
  const auto parsing = [&](const std::string& from) {
    return [&made, from] { return made(PO::getObject(from, PO_STYPE_NONE)); };
  };
  const auto updating = [&](PO& entry) {
    return [&] { return entry.update(&db, info, lists, lists, text); };
  };
  const auto list = [&] { return db.find_by_pattern("*", &found, true) || !found.empty(); };
  const auto remove = [&] { return dir_entry.remove(&fresh, spare); };
  const auto describe = [&] { return full.udcid_qualified() + FilePO::hasData(&full); };
  using Case =
      std::tuple<std::string, cr_status_t, std::function<cr_status_t()>, cr_status_t, std::string>;
  const Case cases[] = {
      {"POSetPath", 22, add, 22, "can't set PO path " + path},
      {"POSetPath", 0, set, 4, "can't add info to po [" + path + "][" + file_text("f") + "]"},
      {"POSetFromString", 0, set, 103, "can't get PO object with " + file_text("f")},
      {"POSetDsid", 22, add, 22, "can't set dsid " + path + " 0"},
      {"POSetDirname", 0, write, 4, "can't set dir name to null"},
      {"POSetBasename", 22, write, 22, "can't remove po path with " + path},
      {"POSetDsid", 22, save, 22, "can't set dsid to 0"},
      {"POToStringMalloced", 22, write, 22, "to string error " + path},
      {"POToStringMalloced", 0, write, 0, "can't PO to string"},
      {"POToStringMalloced", 22, save, 22, "Failed to convert PO f to string"},
      {"POToStringMalloced", 22, [&] { return full.to_string(text); }, 22, "can't PO to string"},
      {"", 0, [&] { return file_entry.write(dir); }, 4, "write file error " + dir + ", "},
      {"POSetSpecialFlags", 0, lock, 4, "set_retention: set po failed for f"},
      {"POSetAtime", 22, lock, 22, "set_retention: set po failed for f"},
      {"POGetBasename", 0, save, 9, ""},
      {"POGetHashRef", 0, describe, 1, ""},
      {"POGetCdoRef", 0, describe, 0, ""},
      {"POCreate", 0, parsing(form), 4, "Allocate po struct failed."},
      {"POCreate", kBadAlloc, parsing(form), 22, "can't allocate memory"},
      {"", 0, parsing(file_text("f", "x")), 103, "setFromString: x is not a valid POID string."},
      {"", 0, parsing(text_of(foreign)), 71, "Could not recongize type 7"},
      {"", 0, updating(no_dir), 103, "update: unexpected PO type 0"},
      {"", 0, updating(no_file), 103, "update: unexpected PO type 1"},
      {"", 0, parsing("junk"), 103, "can't get PO object with junk"},
      {"POCreate", 0, make, 22, "Could not create PO object"},
      {"POCreate", kBadAlloc, make, 22, "getObjectWithPath: can't allocate memory"},
      {"POSetPath", 11, make, 11, "can't set PO path /r/5/f"},
      {"POSetDirname", 22, [&] { return dir_entry.save(&db, dir); }, 22,
       "can not write dirpo entry [" + dir + "/__dirpo__]"},
      {"", 0, [&] { return dir_entry.save(&db, path + "/g"); }, 4,
       "could not create directory " + path + "/g"},
      {"POSetDsid", 0, [&] { return dir_entry.load(&db, dir, 0); }, 4, "can't set po [" + dir},
      {"", 0, [&] { return dir_entry.load(&db, path); }, 4, "can't open DirPO file " + path},
      {"wa_deletefile", 0, remove, 2, "remove: Failed to delete directory " + spare},
      {"wa_access", kDamaged, [&] { return fresh.checkopen(); }, 67,
       "checkopen: Failed to open sqlite3 database " + spare + "/po.db [11]: "},
      {"POSetPath", 22, list, 0, "Failed to set PO [" + path + "]["},
      {"POCreate", kBadAlloc, updating(full), 22, "can't allocate memory"},
      {"POSetPath", 22, updating(full), 0, "can't set PO path " + root.path("0/c/p/f")},
      {"POGetCdoRef", 0, [&] { return db.get_retention("f", worm); }, 0, ""},
      {"POToStringMalloced", 0, save, 0, "can't PO to string"},
  };
  EXPECT_EQ(set() + save(), CR_STATUS_OK);
  for (const auto& [function, leaves, operation, result, line] : cases) {
    SCOPED_TRACE(testing::Message() << function << ": " << line);
    EXPECT_EQ(set(), CR_STATUS_OK);
    failing = function, left = leaves, cell() = CR_STATUS_OK;
    EXPECT_EQ(operation(), result);
    failing.clear();
    std::string told;
    for (const auto& error : log.messages(refhost::LogLevel::Error)) told += error + "\n";
    EXPECT_NE(told.find(line), std::string::npos) << told;
    log.clear();
  }
  EXPECT_EQ(lists, std::vector<PO*>{&full}) << "an entry of no known place is not listed";
}

}  // namespace
