#include "po/po.h"

#include <dlfcn.h>

#include <functional>
#include <memory>

#include "fixture.h"
#include "host/files.h"
#include "podb/retention.h"
#include "podb/sqlite_podb.h"

namespace {

std::string failing;  // the host's function that fails

template <typename Result, typename... Parameters, typename... Arguments>
Result unless_failing(const char* name, Result failure, Result (*)(Parameters...),
                      Arguments... arguments) {
  if (failing == name) return failure;
  return reinterpret_cast<Result (*)(Parameters...)>(dlsym(RTLD_NEXT, name))(arguments...);
}

}  // namespace

extern "C" {
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
_po_t* POCreate() { return unless_failing<_po_t*>(__func__, nullptr, &POCreate); }
_po_t* POCopy(const _po_t* record) {
  return unless_failing<_po_t*>(__func__, nullptr, &POCopy, record);
}
char* POToStringMalloced(const _po_t* record) {
  if (failing == __func__) cell() = CR_STATUS_NO_MEMORY;
  return unless_failing<char*>(__func__, nullptr, &POToStringMalloced, record);
}
}  // extern "C"

namespace {

using Entries = EntryTest;

TEST_F(Entries, move_to_a_path_and_give_it_up_when_written) {
  FilePO entry(5);
  std::string path;
  EXPECT_EQ(entry.set("/r", "9" + file_text("old").substr(1), "/r/5/f"), 0U);
  EXPECT_EQ(entry.get_path("/r", &path), 47U);
  EXPECT_EQ(entry.add_info("/r", "/r/5/d/e/f", nullptr), 0U);
  EXPECT_EQ(entry.get_path("/q", &path), 0U);
  EXPECT_EQ(path, "/q/5/d/e/f");
  EXPECT_EQ(entry.write(root.path("out")), 0U);
  EXPECT_EQ(wa_readfile(root.path("out").c_str(), &path), CR_STATUS_OK);
  EXPECT_EQ(path, text_of(file_fields("", "", 0, "")));
}

TEST_F(Entries, tell_what_the_host_failed_at) {
  const auto path = root.path("5/f");
  FilePO entry(file_text("f"));
  SQLitePODB db(root.path(), root.path("5"));
  const auto add = [&] { return entry.add_info(root.path(), path, nullptr); };
  const auto save = [&] { return entry.save(&db, path); };
  const auto strip = [&] { return entry.remove_info(); };
  const auto set = [&] { return entry.set(root.path(), file_text("f"), path); };
  const auto write = [&] { return entry.write(path); };
  const auto junk = [&] { return entry.set(root.path(), "junk", path); };
  std::string text;
  const struct {
    const char* function;
    std::function<unsigned int()> operation;
    std::string line;
  } cases[] = {
      {"POSetPath", add, "can't set PO path " + path},
      {"POSetPath", set, "can't add info to po [" + path + "][" + file_text("f") + "]"},
      {"POSetDsid", add, "can't set dsid " + path},
      {"POSetDirname", strip, "can't set dir name to null"},
      {"POSetBasename", strip, "can't set base name to null"},
      {"POSetDsid", strip, "can't set dsid to 0"},
      {"POSetDirname", write, "can't remove po path with " + path},
      {"POToStringMalloced", write, "to string error " + path},
      {"POToStringMalloced", [&] { return entry.to_string(text); }, ""},
      {"POSetDirname", save, "can't set dir name to null"},
      {"POToStringMalloced", save, "Failed to convert PO f to string"},
      {"", junk, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.function) + ": " + c.line);
    failing.clear(), cell() = CR_STATUS_OK;
    EXPECT_EQ(set(), 0U);
    failing = c.function;
    EXPECT_NE(c.operation(), 0U);
    std::string told;
    for (const auto& line : log.messages(refhost::LogLevel::Error)) told += line + "\n";
    EXPECT_NE(told.find(c.line), std::string::npos) << told;
    log.clear();
  }
  for (const char* function : {"POCreate", "POCopy"}) {
    failing = function;
    EXPECT_THROW(failing == "POCopy" ? FilePO(entry) : FilePO(5U), Cr_ErrnoException) << failing;
  }
  failing.clear(), log.clear();
}

TEST_F(Entries, reach_their_row_by_their_path) {
  const std::string path = root.path("5/f");
  SQLitePODB db(root.path(), root.path("5"));
  FilePO entry("/r", "/r/5/f", 5);
  tolvfs_worm_info_t found{};
  EXPECT_EQ(entry.save(&db, path), 0U);
  EXPECT_EQ(entry.load(&db, path) + entry.load(&db, path, true), 0U);
  EXPECT_EQ(entry.set_retention(&db, path, RETENTION_IMMUTABLE | RETENTION_CLOUD, 0), 0U);
  EXPECT_EQ(entry.get_retention(&db, path, found), 0U);
  EXPECT_EQ(found.worm_flags, WORM_IMMUTABLE);
  EXPECT_TRUE(entry.exists(&db, path));
  EXPECT_EQ(entry.get_logstr() + entry.get_logstr(),
            text_of(entry.record()) + text_of(entry.record()));
  EXPECT_EQ(entry.remove(&db, path), 71U) << "rows are deleted by their names alone";
  EXPECT_TRUE(entry.exists(&db, path));
}

// Wherever memory runs out: in the host's functions, in the object, in a text.
TEST_F(Entries, come_from_a_factory_that_never_throws) {
  refhost::RecordFields fields = dir_fields("a leaf that is longer than a short string");
  for (const bool from_text : {true, false}) {
    const std::string text = text_of(fields);
    std::unique_ptr<PO> made;
    for (long n = 0; made == nullptr && n < 1000; ++n) {
      allocations_left = n;
      made.reset(from_text ? PO::getObject(text, PO_STYPE_NONE)
                           : PO::getObjectWithPath("/r", text, 5));
      allocations_left = -1;
      EXPECT_TRUE(made != nullptr || cell() == CR_STATUS_NO_MEMORY);
    }
    EXPECT_EQ(dynamic_cast<DirPO*>(made.get()) != nullptr, from_text);
  }
  fields.type = 2;
  const std::pair<std::string, cr_status_t> refused[] = {
      {text_of(fields), 71}, {"junk", 103}, {file_text("f", "no poid"), 103}};
  for (const auto& [text, status] : refused) {
    cell() = CR_STATUS_OK;
    EXPECT_EQ(PO::getObject(text, PO_STYPE_NONE), nullptr);
    EXPECT_EQ(cell(), status);
  }
  EXPECT_THROW(FilePO(std::string("junk")), Cr_ErrnoException);
  EXPECT_THROW(FilePO("/r", "/r", 25), Cr_ErrnoException) << "not read past its end";
  log.clear();
}

}  // namespace
