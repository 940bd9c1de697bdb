// What the harnesses share: how much they do, where, and rows and lists that are numbers.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <numeric>

#include "po/file_po.h"
#include "refhost/control.h"
#include "tests/support/intact.h"
#include "tests/support/temp_dir.h"

// The value of an environment variable, for long runs, or what is usual.
inline unsigned long sized(const char* variable, unsigned long usual) {
  const char* value = std::getenv(variable);
  return value != nullptr ? std::strtoul(value, nullptr, 10) : usual;
}

// Has TempDir work in memory, where a commit takes no time, unless TMPDIR says where. The log goes
// nowhere: what is cut, killed and damaged makes much of it.
inline bool work_in_memory() {
  refhost::log_to_sink([](const refhost::LogLine&) {});
  constexpr const char* kMemory = "/dev/shm";
  return access(kMemory, W_OK) == 0 && setenv("TMPDIR", kMemory, 0) == 0;
}

// A catalog directory to be hurt, where a harness has none of its own.
class Lane : public testing::Test {
 protected:
  const bool in_memory_ = work_in_memory();
  const TempDir root_;
  const std::string directory_ = root_.path("5/c/p");
  const bool made_ = std::filesystem::create_directories(directory_);
};

// Zeros that child processes write to as well, until the end of the program.
template <typename Number>
Number* shared(std::size_t count) {
  void* memory = mmap(nullptr, count * sizeof(Number), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? throw std::bad_alloc() : static_cast<Number*>(memory);
}

inline void must(cr_status_t status) {
  if (status != CR_STATUS_OK) throw status;
}

// Entries and lists take more bytes with some values than with others, some lists more than a page.
inline void store(PODB& database, const std::string& name, unsigned long value) {
  auto fields = file_fields(name, make_poid(value), value, "/c/p");
  fields.owner = std::string(value * 7 % 120, 'x');
  FilePO entry(text_of(fields));
  must(database.put(&entry));
}
inline void store(SQLiteULDB& database, const std::string& name, unsigned long value) {
  const auto count = static_cast<unsigned int>(value % 32 == 0 ? 300 : 1 + value % 30);
  std::vector<std::uint64_t> numbers(2 * count);
  std::iota(numbers.begin(), numbers.end(), value);
  UDCIDRecord list(count, reinterpret_cast<unsigned char*>(numbers.data()));
  must(database.put(name.c_str(), &list, nullptr));
}

// 0 when there is none.
inline unsigned long load(PODB& database, const std::string& name) {
  FilePO entry(5U);
  const cr_status_t status = database.get(name, &entry);
  if (status != CR_STATUS_NOT_FOUND) must(status);
  return status == CR_STATUS_OK ? entry.get_size() : 0;
}
inline unsigned long load(SQLiteULDB& database, const std::string& name) {
  const std::unique_ptr<UDCIDRecord> list(database.get(name.c_str()));
  return list != nullptr ? list->dcids[0] : 0;
}
