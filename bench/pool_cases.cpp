// PODBPool::get_podb of databases that are there, by several threads, beside a map behind a mutex.
#include <map>
#include <mutex>
#include <thread>

#include "bench/cases.h"
#include "bench/rows.h"
#include "podb/podb_pool.h"
#include "podb/sqlite_podb.h"

namespace bench {

namespace {

constexpr std::size_t kLookups = 400000;

class Map {
 public:
  void add(const std::string& key) { map_[key] = std::make_shared<SQLitePODB>("/cat", key); }
  std::shared_ptr<PODB> get(const std::string& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return map_.find(key)->second;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<PODB>> map_;
};

// Made by the first case of a number of keys, for all of them.
struct Keys {
  std::vector<std::string> keys;
  std::vector<std::size_t> order;
  PODBPool pool;
  Map map;

  explicit Keys(std::size_t count) : order(shuffled(count)), pool(count) {
    pool.init("/cat", std::make_unique<SQLitePODBFactory>().release());  // the pool owns it now
    for (std::size_t n = 0; n < count; ++n) {
      keys.push_back("/cat/1/client-" + std::to_string(n % 100) + "/policy/usr/share/" +
                     std::to_string(n));
      pool.get_podb(keys.back());
      map.add(keys.back());
    }
  }
};

template <typename Get>
void look_up(const Keys& keys, std::size_t lookups, std::size_t threads, Get get) {
  std::vector<std::thread> running;
  for (std::size_t thread = 0; thread < threads; ++thread) {
    running.emplace_back([&, thread] {
      std::size_t found = 0;
      for (std::size_t n = thread; n < lookups; n += threads) {
        found += get(keys.keys[keys.order[n % keys.order.size()]]) != nullptr ? 1 : 0;
      }
      keep(found);
    });
  }
  for (std::thread& thread : running) thread.join();
}

Case pool_case(const std::shared_ptr<std::unique_ptr<Keys>>& shared, std::size_t count,
               std::size_t threads, std::size_t lookups) {
  const auto made = [=]() -> Keys& {
    if (!*shared) *shared = std::make_unique<Keys>(count);
    return **shared;
  };
  return {"get_podb/" + grouped(count) + " keys, " + std::to_string(threads) +
              (threads == 1 ? " thread" : " threads"),
          lookups,
          0.90,
          {{"library",
            [=] {
              Keys& keys = made();
              return [=, &keys] {
                look_up(keys, lookups, threads,
                        [&](const std::string& key) { return keys.pool.get_podb(key); });
              };
            }},
           {"floor", [=] {
              Keys& keys = made();
              return [=, &keys] {
                look_up(keys, lookups, threads,
                        [&](const std::string& key) { return keys.map.get(key); });
              };
            }}}};
}

}  // namespace

void add_pool_cases(Cases& cases, std::size_t scale) {
  for (const std::size_t keys : {100UL, 10000UL, 1000000UL}) {
    const auto shared = std::make_shared<std::unique_ptr<Keys>>();
    for (const std::size_t threads : {1UL, 2UL, 4UL}) {
      cases.push_back(pool_case(shared, keys / scale, threads, kLookups / scale));
    }
  }
}

}  // namespace bench
