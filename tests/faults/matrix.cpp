#include "tests/faults/matrix.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <sstream>

#include "host/files.h"

namespace fs = std::filesystem;

namespace {

// SQLite has no code, or the library no status, of its own for a full disk, for files that cannot
// be opened and for SQLite's memory.
cr_status_t specified(Fault fault) {
  switch (fault) {
    case Fault::IoError:
    case Fault::FailedSync:
    case Fault::FailedDelete:
      return CR_STATUS_IO_ERROR;
    case Fault::RefusedLock:
      return CR_STATUS_BUSY;
    case Fault::CppMemory:
    case Fault::CMemory:
      return CR_STATUS_NO_MEMORY;
    case Fault::ShortRead:
      return CR_STATUS_OK;  // the rest is read afterwards
    default:
      return CR_STATUS_FAILED;
  }
}

}  // namespace

Matrix::Matrix(const Operation& operation) : operation_(operation) {
  {
    World world(catalog_);
    operation_.prepare(world, operation_.rows);
  }
  fs::create_directories(catalog_);
  fs::rename(catalog_, original_);
  restore();
  before_ = rows_now("before");
  restore();
  {
    World world(catalog_);
    if (run_caught(world) != CR_STATUS_OK) blame("fails without a fault");
  }
  after_ = rows_now("after");
}

void Matrix::run(Fault fault) {
  for (const bool for_good : {false, true}) {
    for (long n = 1; reached_at({fault, n, for_good}); ++n) {
    }
  }
}

bool Matrix::reached_at(const Point& point) {
  restore();
  const auto held = sqlite3_memory_used();
  bool reached = false;
  {
    World world(catalog_);
    arm(point.fault, point.n, point.for_good);
    const cr_status_t status = run_caught(world);
    reached = disarm();
    if (reached) check_end(point, world, status);
  }
  if (sqlite3_memory_used() != held) blame(point.name() + ": SQLite keeps memory");
  return reached;
}

void Matrix::check_end(const Point& point, World& world, cr_status_t status) {
  Tally& tally = tallies_[point.fault];
  ++tally.points;
  ++tally.statuses[status];
  if (!is_specified(point.fault, status))
    blame(point.name() + ": answers " + std::to_string(status));
  if (world.roll_back() != CR_STATUS_OK) blame(point.name() + ": cannot be rolled back");
  const Rows found = rows_now(point.name());
  if (status == CR_STATUS_OK ? found != after_ : !allowed(found)) {
    blame(point.name() + ": answers " + std::to_string(status) + " and leaves other rows");
  }
  cr_status_t again = run_caught(world);
  if (again != CR_STATUS_OK && found != after_) {
    ++tally.closed;
    world.roll_back();
    world.close();
    again = run_caught(world);
    if (is_empty_leftover(again)) return;
    if (again != CR_STATUS_OK)
      blame(point.name() + ": answers " + std::to_string(again) + " for good");
  }
  if (rows_now(point.name() + ", run again") != after_)
    blame(point.name() + ": does not do it again");
}

bool Matrix::is_specified(Fault fault, cr_status_t status) const {
  if (status == CR_STATUS_OK || status == specified(fault) || status == operation_.also)
    return true;
  // A file that cannot be looked at is not opened.
  if (fault == Fault::IoError) return status == CR_STATUS_BAD_DATA;
  return fault >= Fault::SqliteMemory && status == operation_.also_without_memory;
}

// A creation that failed may leave a file without content behind. It is not taken for a database:
// po.db says that it is unusable, ul.db that the table is missing.
bool Matrix::is_empty_leftover(cr_status_t status) const {
  const std::string file = status == CR_STATUS_BAD_DATA ? "/5/c/p/po.db" : "/5/c/p/ul.db";
  return before_.empty() && fs::exists(catalog_ + file) && fs::is_empty(catalog_ + file);
}

// All or nothing; of a journal that is replayed by lines, a first part.
bool Matrix::allowed(const Rows& rows) const {
  if (rows == before_ || rows == after_) return true;
  if (!operation_.by_lines) return false;
  Rows added, all_added;
  std::set_difference(rows.begin(), rows.end(), before_.begin(), before_.end(),
                      std::back_inserter(added));
  std::set_difference(after_.begin(), after_.end(), before_.begin(), before_.end(),
                      std::back_inserter(all_added));
  return rows.size() == before_.size() + added.size() && added.size() <= all_added.size() &&
         std::equal(added.begin(), added.end(), all_added.begin());
}

// What the host and the library may throw is what memory running out looks like.
cr_status_t Matrix::run_caught(World& world) const {
  try {
    return operation_.run(world, operation_.rows);
  } catch (const std::bad_alloc&) {
    return CR_STATUS_NO_MEMORY;
  } catch (const Cr_ErrnoException& caught) {
    return caught.status();
  }
}

void Matrix::restore() const {
  fs::remove_all(catalog_);
  fs::copy(original_, catalog_, fs::copy_options::recursive);
}

Matrix::Rows Matrix::rows_now(const std::string& when) {
  Rows rows;
  intact::Faults faults;
  const std::string dir = catalog_ + "/5/c/p/";
  const auto take = [&](sqlite3_stmt* row) {
    std::string line;
    for (int i = 0; i < sqlite3_column_count(row); ++i) line += intact::text(row, i) + "|";
    rows.push_back(line);
  };
  const auto table = [&](const std::string& file, const std::string& name) {
    intact::check_database(dir + file, "SELECT * FROM " + name, faults, take);
    if (intact::has_content(dir + file)) rows.push_back(" " + file);  // before its rows
  };
  table(SQLitePODB::dbfilename(), "po");
  table(SQLiteULDB::dbfilename(), "utable");
  std::string record;
  wa_readfile((dir + DirPO::recordfilename()).c_str(), &record);
  if (!record.empty()) rows.push_back(record);
  std::sort(rows.begin(), rows.end());
  for (const std::string& fault : faults) blame(when + ": " + fault);
  return rows;
}

void Matrix::blame(const std::string& what) {
  violations_.push_back(std::string(operation_.name) + ": " + what);
}

std::string Matrix::Point::name() const {
  return std::string(name_of(fault)) + " " + std::to_string(n) + (for_good ? " for good" : " once");
}

long Matrix::points(Fault fault) const {
  const auto found = tallies_.find(fault);
  return found == tallies_.end() ? 0 : found->second.points;
}

std::string Matrix::figures() const {
  std::ostringstream out;
  for (const auto& [fault, tally] : tallies_) {
    out << operation_.name << ", " << name_of(fault) << ": " << tally.points << " points, "
        << tally.closed << " closed first; status";
    for (const auto& [status, times] : tally.statuses) out << " " << status << " x " << times;
    out << "\n";
  }
  return out.str();
}
