#include <gtest/gtest.h>
#include <sqlite3.h>

#include <map>
#include <type_traits>

#include "fixture.h"

namespace {

using sqlitedb::db_exception;

TEST(DbException, maps_every_code_to_its_status) {
  const std::map<int, cr_status_t> expected = {
      {SQLITE_OK, CR_STATUS_OK},           {SQLITE_ROW, CR_STATUS_OK},
      {SQLITE_DONE, CR_STATUS_OK},         {SQLITE_OK_LOAD_PERMANENTLY, CR_STATUS_OK},
      {SQLITE_BUSY, CR_STATUS_BUSY},       {SQLITE_BUSY_RECOVERY, CR_STATUS_BUSY},
      {SQLITE_IOERR, CR_STATUS_IO_ERROR},  {SQLITE_IOERR_READ, CR_STATUS_IO_ERROR},
      {SQLITE_CORRUPT, CR_STATUS_CORRUPT}, {SQLITE_CORRUPT_INDEX, CR_STATUS_CORRUPT},
      {SQLITE_NOTADB, CR_STATUS_CORRUPT},  {SQLITE_READONLY_DBMOVED, CR_STATUS_CORRUPT},
      {SQLITE_READONLY, CR_STATUS_FAILED}, {SQLITE_READONLY_RECOVERY, CR_STATUS_FAILED},
      {SQLITE_ERROR, CR_STATUS_FAILED},    {SQLITE_CONSTRAINT, CR_STATUS_FAILED},
      {SQLITE_FULL, CR_STATUS_FAILED},     {SQLITE_NOMEM, CR_STATUS_FAILED},
      {0xABC, CR_STATUS_FAILED},           {-1, CR_STATUS_FAILED}};
  for (const auto& [code, status] : expected) {
    EXPECT_EQ(db_exception::dberr_to_crstatus(code), status) << code;
    EXPECT_EQ(db_exception(code).cr_status(), status) << code;
    EXPECT_STREQ(db_exception(code).what(), sqlite3_errstr(code));
  }
}

TEST(DbException, keeps_what_it_is_given) {
  static_assert(!std::is_base_of_v<std::exception, db_exception>);
  EXPECT_EQ(db_exception(1, CR_STATUS_BUSY).cr_status(), CR_STATUS_BUSY);
  const db_exception with_text(SQLITE_READONLY_DBMOVED, "gone");
  EXPECT_STREQ(with_text.what(), "gone");
  EXPECT_EQ(with_text.errcode(), SQLITE_READONLY_DBMOVED);
  EXPECT_EQ(with_text.cr_status(), CR_STATUS_CORRUPT);
}

using ErrorHook = ConnectionTest;

TEST_F(ErrorHook, logs_every_failure_and_throws_corruption_alone) {
  EXPECT_EQ(db.on_db_error(SQLITE_BUSY), CR_STATUS_BUSY);
  log.expect_info(CR_STATUS_NONE, "[DBERR 00000005]: database is locked");
  EXPECT_EQ(db.on_db_error(SQLITE_IOERR_READ), CR_STATUS_IO_ERROR);
  log.expect_info(CR_STATUS_NONE, "[DBERR 0000010A]: disk I/O error");
  try {
    db.on_db_error(SQLITE_CORRUPT);
    ADD_FAILURE() << "corruption was not thrown";
  } catch (const db_exception& thrown) {
    EXPECT_EQ(thrown.errcode(), SQLITE_CORRUPT);
    EXPECT_EQ(thrown.cr_status(), CR_STATUS_CORRUPT);
  }
  log.expect_info(CR_STATUS_NONE, "[DBERR 0000000B]: database disk image is malformed");
}

}  // namespace
