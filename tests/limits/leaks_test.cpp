// Descriptors, memory and temporary files are the same before and after every operation, done or
// failed, and nobody closes a database beside SQLite.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <set>

#include "tests/cli/read_fixture.h"
#include "tests/faults/world.h"
#include "tests/limits/watch.h"

namespace fs = std::filesystem;

namespace {
std::atomic<long> live_blocks{0};
}  // namespace

// Memory of the C library is watched by the address sanitizer.
void* operator new(std::size_t size) {
  ++live_blocks;
  void* const block = std::malloc(size);
  return block != nullptr ? block : throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  if (block != nullptr) --live_blocks;
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

namespace {

// What is held at a moment.
struct Holdings {
  std::multiset<std::string> descriptors;
  std::set<std::string> temporary;
  sqlite3_int64 of_sqlite;
};

// The listing's own descriptor is there each time.
Holdings holdings(const std::string& temporary) {
  Holdings held{{}, {}, sqlite3_memory_used()};
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    held.descriptors.insert(fs::read_symlink(entry, gone));
  }
  for (const auto& entry : fs::recursive_directory_iterator(temporary)) {
    held.temporary.insert(entry.path());
  }
  return held;
}

// What the third and the fourth time added: the first times fill what is kept for good.
template <class Act>
std::string kept_by(const std::string& temporary, const Act& act) {
  act(), act();
  const Holdings before = holdings(temporary);
  const long blocks = live_blocks;
  act(), act();
  const long kept_blocks = live_blocks - blocks;
  const Holdings after = holdings(temporary);
  std::string kept;
  if (after.descriptors != before.descriptors) kept += " descriptors";
  if (after.temporary != before.temporary) kept += " temporary files";
  if (after.of_sqlite != before.of_sqlite) kept += " memory of SQLite";
  if (kept_blocks != 0) kept += " blocks of memory: " + std::to_string(kept_blocks);
  return kept;
}

void forbid_growth(bool forbidden) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = forbidden ? 1024 : limit.rlim_max;
  setrlimit(RLIMIT_FSIZE, &limit);
}

void replace_by_garbage(const std::string& directory) {
  for (const char* name : {"/po.db", "/ul.db"}) std::ofstream(directory + name) << "no database";
}

class Leaks : public CatalogTest {
 protected:
  const TempDir temporary_;
};

enum class Fate { done, cannot_grow, garbage, missing };

TEST_F(Leaks, leave_nothing_behind_in_the_library) {
  int cases = 0;
  for (const Operation& operation : operations()) {
    for (const Fate fate : {Fate::done, Fate::cannot_grow, Fate::garbage, Fate::missing}) {
      const std::string catalog = temporary_.path("catalog");
      const auto act = [&] {
        World world(catalog);
        if (fate != Fate::missing) operation.prepare(world, operation.rows);
        if (fate == Fate::garbage) fs::create_directories(world.dir), replace_by_garbage(world.dir);
        if (fate == Fate::cannot_grow) forbid_growth(true);
        closed_beside_sqlite();  // by the preparation
        operation.run(world, operation.rows);
        forbid_growth(false);
        world.roll_back();
        world.close();
        fs::remove_all(catalog);
      };
      EXPECT_EQ(kept_by(temporary_.path(), act), "") << operation.name << " " << int(fate);
      ++cases;
    }
  }
  std::printf("[ figures ] %d operations, done and failed, keep nothing\n", cases);
}

// Each also on a catalog that is not there, and on garbage.
constexpr const char* kCommands[] = {
    "ls ROOT 5/client/policy",
    "show ROOT 5/client/policy/img",
    "find ROOT *",
    "stats ROOT",
    "verify ROOT",
    "dcids ROOT 5/client/policy/img",
    "check ROOT",
    "rm ROOT 5/client/policy/gone",
    "ingest SOURCE --root ROOT --dsid 5 --client client --policy policy --threads 1",
    "retention show ROOT 5/client/policy/img",
    "journal apply ROOT/5/client/policy/po.db JOURNAL",
    "journal apply --dry-run ROOT/5/client/policy/po.db JOURNAL"};

std::vector<std::string> words_of(std::string line, const std::string& root,
                                  const std::string& temporary) {
  for (const auto& [word, value] : {std::pair<std::string, std::string>{"ROOT", root},
                                    {"SOURCE", temporary + "/source"},
                                    {"JOURNAL", temporary + "/journal"}}) {
    for (auto at = line.find(word); at != std::string::npos; at = line.find(word, at)) {
      line.replace(at, word.size(), value);
    }
  }
  std::istringstream words(line);
  return {std::istream_iterator<std::string>(words), {}};
}

TEST_F(Leaks, leave_nothing_behind_in_the_command) {
  add_file("img");
  setenv("TMPDIR", temporary_.path().c_str(), 1);
  fs::create_directories(temporary_.path("source/below"));
  std::ofstream(temporary_.path("source/below/file")) << "content";
  std::ofstream(temporary_.path("journal")) << "UPDATE registry SET value = '1';\n";
  const std::string garbage = temp_.path("garbage"), missing = temp_.path("missing");
  fs::create_directories(garbage + "/" + image_);
  replace_by_garbage(garbage + "/" + image_);
  for (const char* line : kCommands) {
    for (const std::string& root : {root_, garbage, missing}) {
      const auto words = words_of(line, root, temporary_.path());
      Outcome outcome{};
      const std::string kept = kept_by(temporary_.path(), [&] { outcome = run_command(words); });
      EXPECT_EQ(kept, "") << line << " in " << root << "\n" << outcome.err;
      EXPECT_NE(outcome.status, cli::kUsage) << line << outcome.err;
    }
  }
  unsetenv("TMPDIR");
}

TEST_F(Leaks, are_seen) {
  const auto kept = [this](const auto& act) { return kept_by(temporary_.path(), act); };
  std::vector<std::unique_ptr<int>> blocks;
  EXPECT_NE(kept([&] { blocks.push_back(std::make_unique<int>()); }), "");
  std::vector<int> descriptors;
  EXPECT_EQ(kept([&] { descriptors.push_back(dup(0)); }).substr(0, 12), " descriptors");
  for (const int descriptor : descriptors) close(descriptor);
  int files = 0;
  EXPECT_EQ(kept([&] { std::ofstream(temporary_.path(std::to_string(++files))); }).substr(0, 16),
            " temporary files");
}

// While a connection of this process is open, every command leaves its descriptors alone.
TEST_F(Leaks, close_no_database_beside_SQLite) {
  add_file("img");
  std::vector<std::unique_ptr<sqlite3, decltype(&sqlite3_close)>> open_databases;
  SQLiteULDB(full(image_), 0).begin_transaction();
  for (const std::string& file : {database(image_), full(image_) + "/ul.db"}) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    open_databases.emplace_back(db, &sqlite3_close);
    sqlite3_exec(db, "SELECT * FROM sqlite_master", nullptr, nullptr, nullptr);
  }
  fs::create_directories(temporary_.path("source"));
  std::ofstream(temporary_.path("source/file")) << "content";
  std::ofstream(temporary_.path("journal")) << "UPDATE registry SET value = '1';\n";
  for (const char* line : kCommands) {
    run_command(words_of(line, root_, temporary_.path()));
    EXPECT_THAT(closed_beside_sqlite(), testing::IsEmpty()) << line;
  }
  EXPECT_GT(opened_by_sqlite(), 10);
  std::ifstream(database(image_)).get();  // the negative control
  EXPECT_THAT(closed_beside_sqlite(), testing::ElementsAre(database(image_)));
}

}  // namespace
