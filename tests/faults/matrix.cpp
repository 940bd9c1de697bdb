#include "tests/faults/matrix.h"

#include <sstream>

namespace fs = std::filesystem;

namespace {

// SQLite has no code, or the library no status, of its own for a full disk, for files that cannot
// be opened and for SQLite's memory.
cr_status_t specified(Fault fault) {
  if (fault == Fault::RefusedLock) return CR_STATUS_BUSY;
  if (fault == Fault::CppMemory || fault == Fault::CMemory) return CR_STATUS_NO_MEMORY;
  if (fault == Fault::ShortRead) return CR_STATUS_OK;  // the rest is read afterwards
  const bool io = fault == Fault::IoError || fault == Fault::FailedSync;
  return io || fault == Fault::FailedDelete ? CR_STATUS_IO_ERROR : CR_STATUS_FAILED;
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
    if (run_caught(operation_, world) != CR_STATUS_OK) blame("fails without a fault");
  }
  after_ = rows_now("after");
}

void Matrix::run(Fault fault) {
  for (const bool for_good : {false, true}) {
    for (long n = 1; reached_at({fault, n, for_good}); ++n) continue;
  }
}

bool Matrix::reached_at(const Point& point) {
  restore();
  const auto held = sqlite3_memory_used();
  bool reached = false;
  {
    World world(catalog_);
    arm(point.fault, point.n, point.for_good);
    const cr_status_t status = run_caught(operation_, world);
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
  if (status == CR_STATUS_OK ? found != after_ : !may_leave(operation_, found, before_, after_)) {
    blame(point.name() + ": answers " + std::to_string(status) + " and leaves other rows");
  }
  cr_status_t again = run_caught(operation_, world);
  if (again != CR_STATUS_OK && found != after_) {
    ++tally.closed;
    world.roll_back();
    world.close();
    again = run_caught(operation_, world);
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

void Matrix::restore() const {
  fs::remove_all(catalog_);
  fs::copy(original_, catalog_, fs::copy_options::recursive);
}

Rows Matrix::rows_now(const std::string& when) {
  intact::Faults faults;
  const Rows rows = rows_of(catalog_ + "/5/c/p", faults);
  for (const std::string& fault : faults) blame(when + ": " + fault);
  return rows;
}

void Matrix::blame(const std::string& what) {
  violations_.push_back(std::string(operation_.name) + ": " + what);
}

std::string Matrix::Point::name() const {
  return std::string(name_of(fault)) + " " + std::to_string(n) + (for_good ? " for good" : " once");
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
