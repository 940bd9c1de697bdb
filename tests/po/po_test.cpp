#include <dlfcn.h>

#include <functional>
#include <memory>

#include "po/dir_po.h"
#include "po/file_po.h"
#include "podb/retention.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_database.h"
#include "tests/support/records.h"
#include "tests/support/spy_podb.h"
#include "tests/support/temp_dir.h"

namespace {

// The host's function that fails, and the status that it leaves.
std::string failing;
cr_status_t left = CR_STATUS_OK;

cr_status_t& cell() { return *__cr_errno_location(); }

template <typename Result, typename... Parameters, typename... Arguments>
Result unless_failing(const char* name, Result failure, Result (*)(Parameters...),
                      Arguments... arguments) {
  if (failing == name) return cell() = left, failure;
  return reinterpret_cast<Result (*)(Parameters...)>(dlsym(RTLD_NEXT, name))(arguments...);
}

}  // namespace

extern "C" {
int POSetFromString(_po_t* record, const char* text) {
  return unless_failing(__func__, -1, &POSetFromString, record, text);
}
int POSetDirname(_po_t* record, const char* name) {
  return unless_failing(__func__, -1, &POSetDirname, record, name);
}
int POSetBasename(_po_t* record, const char* name) {
  return unless_failing(__func__, -1, &POSetBasename, record, name);
}
int POSetDsid(_po_t* record, std::uint32_t dsid) {
  return unless_failing(__func__, -1, &POSetDsid, record, dsid);
}
int POSetPath(_po_t* record, const char* path) {
  return unless_failing(__func__, -1, &POSetPath, record, path);
}
int POSetSpecialFlags(_po_t* record, std::uint32_t flags) {
  return unless_failing(__func__, -1, &POSetSpecialFlags, record, flags);
}
int POSetAtime(_po_t* record, std::uint64_t seconds) {
  return unless_failing(__func__, -1, &POSetAtime, record, seconds);
}
_po_t* POCreate() { return unless_failing<_po_t*>(__func__, nullptr, &POCreate); }
_po_t* POCopy(const _po_t* record) {
  return unless_failing<_po_t*>(__func__, nullptr, &POCopy, record);
}
char* POToStringMalloced(const _po_t* record) {
  return unless_failing<char*>(__func__, nullptr, &POToStringMalloced, record);
}
}  // extern "C"

namespace {

// Updates of the catalog directory 5/c/d and of the file "f" in it.
class Updates : public testing::Test {
 protected:
  void TearDown() override {
    for (const PO* old : removed) delete old;
  }
  unsigned int update(refhost::RecordFields fields, char mod_type) {
    fields.dsid = 5;
    fields.mod_type = mod_type;
    entry.reset(PO::getObject(text_of(fields), PO_STYPE_NONE));
    return entry->update(&db, info, removed, udcid, action);
  }
  unsigned int update_dir(char mod_type, const std::string& leaf = "d",
                          const std::string& parent = "/c") {
    return update(dir_fields(leaf, parent), mod_type);
  }

  const TempDir root;
  const std::string dir = root.path("5/c/d"), file = dir + "/po.db";
  LogCapture log{refhost::LogLevel::Trace};
  SpyPODB db{root.path(), dir};
  ds_info_t info = {100, 10, 10};
  std::unique_ptr<PO> entry;
  std::vector<PO*> removed, udcid;
  std::string action;
};

TEST_F(Updates, make_directories_and_remove_them_unless_their_database_may_hold_rows) {
  const std::pair<std::string, bool> cases[] = {{"a row", true}, {"", false}, {"junk", true}};
  for (const auto& [content, kept] : cases) {
    EXPECT_EQ(update_dir('N') + update_dir('N'), 0U);
    EXPECT_EQ(info.dir_count, 11U) << "a new one counts once";
    EXPECT_EQ(read_file(dir + "/__dirpo__"), text_of(dir_fields("", "")));
    EXPECT_EQ(update_dir('D', ""), 47U) << "without a name it would take its parent along";
    EXPECT_EQ(update_dir('D', "c", "/../5"), 47U) << "it would leave its data store";
    FilePO row(file_text("f"));
    if (content != "a row") write_file(file, content);
    EXPECT_EQ(content == "a row" ? db.put(&row) : 0, CR_STATUS_OK);
    EXPECT_EQ(update_dir('D'), 0U);
    EXPECT_EQ(info.dir_count, 10U);
    EXPECT_EQ(std::filesystem::exists(dir), kept) << content;
    log.clear();
    db.close_db(0);
    std::filesystem::remove_all(dir);
  }
}

enum Before { kNothing, kRow, kImmutable, kBadSum };

TEST_F(Updates, change_row_statistics_and_lists_alike) {
  const struct {
    Before before;  // a row with POID 1 and 7 bytes
    char mod_type;
    std::uint64_t poid, size;
    const char* action;
    const char* refused;  // statements that begin so answer 11
    unsigned int result;
    std::int64_t bytes, files;  // change of the statistics
    std::size_t removed;
    std::uint64_t poid_after;  // 0: no row
  } cases[] = {{kNothing, 'N', 2, 5, "", "", 0, 5, 1, 0, 2},
               {kRow, 'N', 1, 7, "", "", 0, 0, 0, 0, 1},
               {kRow, 'N', 2, 5, "", "", 0, -2, 0, 1, 2},
               {kBadSum, 'N', 2, 5, "", "", 0, 5, 0, 1, 2},
               {kImmutable, 'N', 2, 5, "", "", 127, 0, 0, 0, 1},
               {kRow, 'N', 2, 5, "", "DELETE", 11, 0, 0, 1, 1},
               {kRow, 'N', 2, 5, "", "INSERT", 11, -7, 0, 1, 0},
               {kImmutable, 'N', 2, 5, "", "SELECT COUNT", 11, 0, 0, 0, 1},
               {kImmutable, 'N', 2, 5, "", "SELECT basename", 11, 0, 0, 0, 1},
               {kNothing, 'D', 2, 5, "", "", 0, 0, 0, 0, 0},
               {kRow, 'D', 2, 4, "action_imgchk", "", 0, -4, -1, 1, 0},
               {kBadSum, 'D', 2, 5, "", "", 0, 0, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "", "", 0, -7, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "action_imgchk", "", 127, 0, 0, 0, 1},
               {kRow, 'D', 2, 0, "", "DELETE", 11, 0, 0, 1, 1},
               {kRow, 'D', 2, 0, "", "SELECT basename", 11, 0, 0, 0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    refhost::RecordFields old = file_fields("f", make_poid(1), 7, "/c/d");
    old.content_fp = "f00d";
    old.special_flags = c.before == kImmutable ? SF_IMMUTABLE : 0;
    EXPECT_EQ(FilePO(text_of(old)).save(&db, ""), 0U);
    if (c.before == kNothing) raw_sql(file, "DELETE FROM po");
    if (c.before == kBadSum) raw_sql(file, "UPDATE po SET crc = 1");
    refhost::RecordFields incoming = file_fields("f", make_poid(c.poid), c.size, "/c/d");
    incoming.content_fp = "f00d";
    info = {100, 3, 10};
    action = c.action;
    udcid.clear();
    const std::size_t removed_before = removed.size();
    db.refused = c.refused;
    EXPECT_EQ(update(incoming, c.mod_type), c.result);
    db.refused.clear();
    EXPECT_EQ(static_cast<std::int64_t>(info.total_size) - 100, c.bytes);
    EXPECT_EQ(static_cast<std::int64_t>(info.file_count) - 10, c.files);
    EXPECT_EQ(udcid.size(), c.result == 0 && c.mod_type != 'D' ? 1U : 0U);
    EXPECT_EQ(raw_sql(file, "SELECT poid FROM po"),
              c.poid_after != 0 ? RawRows{{make_poid(c.poid_after)}} : RawRows{});
    EXPECT_EQ(removed.size() - removed_before, c.removed);
    log.clear();
  }
}

using Entries = Updates;

TEST_F(Entries, tell_what_the_host_failed_at_and_which_status_it_left) {
  const std::string path = dir + "/f";
  FilePO file_entry(file_text("f"));
  DirPO dir_entry(5);
  std::string text;
  const auto add = [&] { return file_entry.add_info(root.path(), path, nullptr); };
  const auto set = [&] { return file_entry.set(root.path(), file_text("f"), path); };
  const auto save = [&] { return file_entry.save(&db, path); };
  const auto write = [&] { return file_entry.write(path); };
  const auto lock = [&] {
    return file_entry.set_retention(&db, path, RETENTION_LOCK | RETENTION_CLOUD, 0);
  };
  const auto make = [&] {
    return std::unique_ptr<PO>(PO::getObjectWithPath("/r", "/r/5/f", 5)) != nullptr ? 0 : cell();
  };
  const auto parse = [&] {
    return std::unique_ptr<PO>(PO::getObject(file_text("f"), PO_STYPE_NONE)) != nullptr ? 0
                                                                                        : cell();
  };
  const auto thrown = [](const auto& construct) {
    return [construct]() -> cr_status_t {
      try {
        return construct(), CR_STATUS_OK;
      } catch (const Cr_ErrnoException& caught) {
        return caught.status();
      }
    };
  };
  const struct {
    const char* function;
    cr_status_t left;
    std::function<cr_status_t()> operation;
    cr_status_t result;
    std::string line;
  } cases[] = {
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
      {"POToStringMalloced", 0, [&] { return file_entry.to_string(text); }, 4, ""},
      {"", 0, [&] { return file_entry.write(dir); }, 4, "write file error " + dir + ", "},
      {"POSetSpecialFlags", 0, lock, 4, "set_retention: set po failed for f"},
      {"POSetAtime", 22, lock, 22, "set_retention: set po failed for f"},
      {"POCreate", 0, parse, 4, "Allocate po struct failed."},
      {"POCreate", 0, make, 22, "Could not create PO object"},
      {"POSetPath", 21, make, 21, "can't set PO path /r/5/f"},
      {"POCreate", 0, thrown([] { FilePO(5U); }), 13, ""},
      {"POCopy", 0, thrown([&] { FilePO{file_entry}; }), 13, ""},
      {"POSetFromString", 0, thrown([] { FilePO(file_text("f")); }), 103, ""},
      {"POSetPath", 0, thrown([] { FilePO("/r", "/r/5/f", 5); }), 4, ""},
      {"POSetDirname", 22, [&] { return dir_entry.save(&db, dir); }, 22,
       "can not write dirpo entry [" + dir + "/__dirpo__]"},
      {"", 0, [&] { return dir_entry.save(&db, path + "/g"); }, 4,
       "could not create directory " + path + "/g"},
      {"POSetDsid", 0, [&] { return dir_entry.load(&db, dir); }, 4, "can't set po [" + dir},
      {"", 0, [&] { return dir_entry.load(&db, path); }, 4, "can't open DirPO file " + path},
  };
  EXPECT_EQ(set() + save(), CR_STATUS_OK);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.function) + ": " + c.line);
    EXPECT_EQ(set(), CR_STATUS_OK);
    failing = c.function, left = c.left, cell() = CR_STATUS_OK;
    EXPECT_EQ(c.operation(), c.result);
    failing.clear();
    std::string told;
    for (const auto& line : log.messages(refhost::LogLevel::Error)) told += line + "\n";
    EXPECT_NE(told.find(c.line), std::string::npos) << told;
    log.clear();
  }
}

TEST_F(Entries, reach_their_row_by_their_path) {
  const std::string path = dir + "/f";
  FilePO file_entry(root.path(), path, 5);
  DirPO parent(5);
  tolvfs_worm_info_t found{};
  std::string text;
  EXPECT_EQ(file_entry.get_path("/q", &text) + file_entry.save(&db, path), 0U);
  EXPECT_EQ(text, "/q/5/c/d/f");
  EXPECT_EQ(file_entry.get_path("/q", nullptr) + file_entry.get_path("/q", &text), 9U + 47U);
  EXPECT_EQ(file_entry.load(&db, path) + file_entry.load(&db, path, true), 0U);
  EXPECT_EQ(file_entry.set_retention(&db, path, RETENTION_IMMUTABLE | RETENTION_CLOUD, 0), 0U);
  EXPECT_EQ(file_entry.get_retention(&db, path, found), 0U);
  EXPECT_EQ(found.worm_flags, WORM_IMMUTABLE);
  EXPECT_EQ(file_entry.remove(&db, path), 71U) << "rows are deleted by their names alone";
  EXPECT_TRUE(file_entry.exists(&db, path));
  EXPECT_EQ(parent.load(&db, dir), 0U) << "a missing record has a default";
  EXPECT_EQ(text_of(parent.record()),
            "5|/c|d|1|||||0|N|0|040755|0||260|0|0|0|1024||||0|||0|64|0|0");
  refhost::RecordFields fields = dir_fields("d");
  fields.type = 2;
  const std::pair<std::string, cr_status_t> refused[] = {
      {text_of(fields), 71}, {"junk", 103}, {file_text("f", "no poid"), 103}};
  for (const auto& [form, status] : refused) {
    cell() = CR_STATUS_OK;
    EXPECT_EQ(PO::getObject(form, PO_STYPE_NONE), nullptr);
    EXPECT_EQ(cell(), status);
  }
  log.clear();
}

}  // namespace
