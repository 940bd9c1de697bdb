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

// What is held at a moment; the listing's own descriptor is there each time.
std::multiset<std::string> holdings(const std::string& temporary) {
  std::multiset<std::string> held = {"SQLite's memory " + std::to_string(sqlite3_memory_used())};
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    held.insert("descriptor of " + fs::read_symlink(entry, gone).string());
  }
  for (const auto& entry : fs::recursive_directory_iterator(temporary)) {
    held.insert("file " + entry.path().string());
  }
  return held;
}

// What the third and the fourth time added: the first times fill what is kept for good.
template <class Act>
std::string kept_by(const std::string& temporary, const Act& act) {
  act(), act();
  const auto before = holdings(temporary);
  const long blocks = live_blocks;
  act(), act();
  const long kept_blocks = live_blocks - blocks;
  const auto after = holdings(temporary);
  std::string kept = kept_blocks != 0 ? "blocks " + std::to_string(kept_blocks) : "";
  std::vector<std::string> changed;
  std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(),
                                std::back_inserter(changed));
  for (const std::string& thing : changed) kept += " " + thing;
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
  void prepare_commands() {
    add_file("img");
    write("below/file", "content");
    write_file(temp_.path("journal"), "UPDATE registry SET value = '1';\n");
    setenv("TMPDIR", temporary_.path().c_str(), 1);
  }
  void TearDown() override { unsetenv("TMPDIR"), CatalogTest::TearDown(); }

  std::vector<std::string> commands(const std::string& root) const {
    const std::string image = root + " 5/client/policy";
    const std::string apply = root + "/5/client/policy/po.db " + temp_.path("journal");
    const std::string ingest = "ingest " + source_ + " --root " + root;
    return {"ls " + image,
            "show " + image + "/img",
            "find " + root + " *",
            "stats " + root,
            "verify " + root,
            "dcids " + image + "/img",
            "check " + root,
            "rm " + image + "/gone",
            ingest + " --dsid 5 --client client --policy policy --threads 1",
            "retention show " + image + "/img",
            "journal apply " + apply,
            "journal apply --dry-run " + apply};
  }

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

TEST_F(Leaks, leave_nothing_behind_in_the_command) {
  prepare_commands();
  const std::string garbage = temp_.path("garbage");
  fs::create_directories(garbage + "/" + image_);
  replace_by_garbage(garbage + "/" + image_);
  for (const std::string& root : {root_, garbage, temp_.path("missing")}) {
    for (const std::string& line : commands(root)) {
      Outcome outcome{};
      const std::string kept = kept_by(temporary_.path(), [&] { outcome = command(line); });
      EXPECT_EQ(kept, "") << line << "\n" << outcome.err;
      EXPECT_NE(outcome.status, cli::kUsage) << line << outcome.err;
    }
  }
}

TEST_F(Leaks, are_seen) {
  const auto kept = [this](const auto& act) { return kept_by(temporary_.path(), act); };
  std::vector<std::unique_ptr<int>> blocks;
  EXPECT_EQ(kept([&] { blocks.push_back(std::make_unique<int>()); }), "blocks 2");
  std::vector<int> descriptors;
  EXPECT_THAT(kept([&] { descriptors.push_back(dup(0)); }), testing::HasSubstr(" descriptor"));
  for (const int descriptor : descriptors) close(descriptor);
  int files = 0;
  EXPECT_THAT(kept([&] { std::ofstream(temporary_.path(std::to_string(++files))); }),
              testing::HasSubstr(" file"));
}

// While a connection of this process is open, every command leaves its descriptors alone.
TEST_F(Leaks, close_no_database_beside_SQLite) {
  prepare_commands();
  std::vector<std::unique_ptr<sqlite3, decltype(&sqlite3_close)>> open_databases;
  SQLiteULDB(full(image_), 0).begin_transaction();
  for (const std::string& file : {database(image_), full(image_) + "/ul.db"}) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    open_databases.emplace_back(db, &sqlite3_close);
    sqlite3_exec(db, "SELECT * FROM sqlite_master", nullptr, nullptr, nullptr);
  }
  for (const std::string& line : commands(root_)) {
    command(line);
    EXPECT_THAT(closed_beside_sqlite(), testing::IsEmpty()) << line;
  }
  EXPECT_GT(opened_by_sqlite(), 10);
  std::ifstream(database(image_)).get();  // the negative control
  EXPECT_THAT(closed_beside_sqlite(), testing::ElementsAre(database(image_)));
}

}  // namespace
