// What came of an ingest, or of a part of it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/po_record.h"
#include "host/status.h"

namespace cli {

// Something that was not done, or that was found wrong and mended.
struct Problem {
  std::string path;
  cr_status_t status;
  std::string text;
};

// The problem that `errno` tells.
Problem os_problem(const std::string& path, const std::string& text);

// What is left out of a catalog without being a failure.
enum SkippedKind : std::size_t {
  kSkippedLink,
  kSkippedSocket,
  kSkippedPipe,
  kSkippedDevice,
  kSkippedCatalog,  // the catalog itself, lying in the tree
  kSkippedKinds
};

struct IngestCounts {
  std::uint64_t added = 0;
  std::uint64_t replaced = 0;
  std::uint64_t unchanged = 0;
  std::uint64_t removed = 0;
  std::uint64_t directories = 0;
  std::uint64_t removed_directories = 0;
  std::array<std::uint64_t, kSkippedKinds> skipped{};
  std::uint64_t mended = 0;
  std::uint64_t not_done = 0;
  std::uint64_t bytes = 0;  // of the files added, replaced and unchanged

  void add(const IngestCounts& other);
};

// The outcome of some entries. The counters of the data store follow what is committed.
struct IngestOutcome {
  IngestCounts counts;
  ds_info_t delta{};
  std::vector<Problem> problems;
  bool recount = false;  // `delta` does not tell all: damage hid what went

  void add(IngestOutcome&& other);

  // Counts and reports one thing that was not done.
  void not_done(Problem problem);

  // Counts and reports one thing that was found wrong and mended.
  void mended(const std::string& path, const std::string& text);
};

}  // namespace cli
