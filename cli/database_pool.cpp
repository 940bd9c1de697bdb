#include "cli/database_pool.h"

#include <exception>
#include <utility>

#include "host/log.h"

namespace cli {
namespace {

constexpr std::size_t kLoansOfAPool = 1000;

}  // namespace

LentDatabase::LentDatabase(std::shared_ptr<PODBPool> pool, std::string directory)
    : pool_(std::move(pool)),
      directory_(std::move(directory)),
      db_(std::dynamic_pointer_cast<SQLitePODB>(pool_->get_podb(directory_))) {}

// What cannot be closed now is closed with its pool; the library has logged why.
LentDatabase::~LentDatabase() {
  try {
    static_cast<void>(pool_->close_podb(directory_, 0));
  } catch (const std::exception& error) {
    ErrorA(CR_STATUS_FAILED, "%s: %s stays open (%s).", "close_podb", directory_.c_str(),
           error.what());
  }
}

LentDatabase DatabasePool::lend(const std::string& directory) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (lent_ == kLoansOfAPool || pool_ == nullptr) {
    auto fresh = std::make_shared<PODBPool>(kLoansOfAPool);
    fresh->init(root_, std::make_unique<SQLitePODBFactory>().release());
    pool_ = std::move(fresh);
    lent_ = 0;
  }
  ++lent_;
  return LentDatabase(pool_, directory);
}

}  // namespace cli
