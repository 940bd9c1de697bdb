#include <dlfcn.h>

#include <functional>
#include <memory>

#include "po/dir_po.h"
#include "po/file_po.h"
#include "podb/retention.h"
#include "podb/sqlite_podb.h"
#include "tests/support/log_capture.h"
#include "tests/support/records.h"
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
char* POToStringMalloced(const _po_t* record) {
  return unless_failing<char*>(__func__, nullptr, &POToStringMalloced, record);
}
}  // extern "C"

namespace {

TEST(FailingHost, is_told_of_with_the_status_that_it_left) {
  const TempDir root;
  const std::string dir = root.path("5/c/d");
  LogCapture log;
  SQLitePODB db(root.path(), dir);
  const std::string path = dir + "/f";
  FilePO file_entry(file_text("f"));
  DirPO dir_entry(5);
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
      {"", 0, [&] { return file_entry.write(dir); }, 4, "write file error " + dir + ", "},
      {"POSetSpecialFlags", 0, lock, 4, "set_retention: set po failed for f"},
      {"POSetAtime", 22, lock, 22, "set_retention: set po failed for f"},
      {"POCreate", 0, parse, 4, "Allocate po struct failed."},
      {"POCreate", 0, make, 22, "Could not create PO object"},
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

}  // namespace
