#include "podb/podb_pool.h"

#include <atomic>
#include <iterator>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "host/files.h"
#include "host/log.h"

namespace {

constexpr unsigned long kIdleSeconds = 300;

// Spellings of one directory have one key. `folded` holds it when it is not `dir` itself: lookups
// are many, and a copy for each would take longer than most of them.
const std::string& key_of(const std::string& dir, std::string& folded) {
  if (OSIsCaseSensitive()) return dir;
  folded = dir;
  ConvertStringCase(folded, CASE_DIR_LOWER);
  return folded;
}

// Handles are copied from the pool's own under the pool's lock only, so a database that is the
// pool's alone stays so while that lock is held. use_count synchronises with nobody: the fence lets
// what follows see what the last holder did.
bool reclaimable(const std::shared_ptr<PODB>& database) {
  if (database.use_count() != 1) return false;
  std::atomic_thread_fence(std::memory_order_acquire);
  unsigned long idle = 0;
  return !database->is_transaction_active(&idle) && idle > kIdleSeconds;
}

}  // namespace

PODBPool::PODBPool(unsigned long limit) : capacity(limit) {}

PODBPool::~PODBPool() = default;

void PODBPool::init(const std::string& catalog_root, PODBFactory* owned) {
  std::unique_ptr<PODBFactory> replaced;
  if (factory.get() != owned) {
    replaced = std::move(factory);
    factory.reset(owned);
  }
  root = catalog_root;  // before the old factory goes: the text may be its own
}

std::shared_ptr<PODB> PODBPool::get_podb(const std::string& dir) {
  const std::lock_guard<std::mutex> lock(mutex);
  std::string folded;
  const std::string& key = key_of(dir, folded);
  const auto found = databases.find(key);
  if (found != databases.end()) return found->second;
  if (factory == nullptr) throw std::logic_error("PODBPool::get_podb was called before init");
  if (databases.size() >= capacity) reclaim();
  std::shared_ptr<PODB> created = factory->create_podb(root, dir);
  databases.emplace(key, created);
  InfoA(CR_STATUS_OK, "created PODB instance for %s", dir.c_str());
  return created;
}

void PODBPool::reclaim() {
  for (auto entry = databases.begin(); entry != databases.end();) {
    entry = reclaimable(entry->second) ? databases.erase(entry) : std::next(entry);
  }
}

cr_status_t PODBPool::close_podb(const std::string& dir, unsigned int flags) {
  const std::lock_guard<std::mutex> lock(mutex);
  std::string folded;
  const auto found = databases.find(key_of(dir, folded));
  if (found == databases.end()) return CR_STATUS_OK;
  const std::shared_ptr<PODB> database = found->second;
  return database == nullptr ? CR_STATUS_OK : database->close_db(flags);
}

cr_status_t PODBPool::commit_all() {
  const std::lock_guard<std::mutex> lock(mutex);
  for (const auto& [key, database] : databases) {
    if (database == nullptr || !database->is_transaction_active(nullptr)) continue;
    const cr_status_t status = database->commit_transaction();
    if (status == CR_STATUS_OK) continue;
    ErrorA(status, "%s: Failed to commit transaction for %s", "commit_all", key.c_str());
    return status;
  }
  return CR_STATUS_OK;
}

cr_status_t PODBPool::close_all() {
  const std::lock_guard<std::mutex> lock(mutex);
  for (const auto& [key, database] : databases) {
    const cr_status_t status = database == nullptr ? CR_STATUS_OK : database->close_db(0);
    if (status == CR_STATUS_OK) continue;
    ErrorA(status, "Failed to close database %s", key.c_str());
    return status;
  }
  return CR_STATUS_OK;
}

bool PODBPool::exists_po(const std::string& path) {
  const std::shared_ptr<PODB> database = get_podb(getdirname(path));
  if (database != nullptr) return database->exists(getbasename(path));
  *__cr_errno_location() = CR_STATUS_FAILED;  // nobody has looked
  return false;
}

std::uint64_t PODBPool::get_item_count() const { return databases.size(); }

void PODBPool::print(std::ostream& out) {
  for (const auto& [key, database] : databases) {
    out << "(" << key << "," << std::to_string(database.use_count()) << ") ";
  }
  out << "\n";
}
