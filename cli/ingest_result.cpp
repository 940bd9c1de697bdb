#include "cli/ingest_result.h"

#include <cerrno>
#include <iterator>
#include <system_error>
#include <utility>

#include "cli/catalog.h"
#include "cli/cause.h"
#include "cli/command.h"
#include "cli/dsinfo.h"

namespace cli {

Problem os_problem(const std::string& path, const std::string& text) {
  const std::string reason = std::generic_category().message(errno);
  const cr_status_t status = status_of_errno("ingest");
  take_cause();  // told already
  return {path, status, text + ": " + reason};
}

void IngestCounts::add(const IngestCounts& other) {
  for (const auto counter :
       {&IngestCounts::added, &IngestCounts::replaced, &IngestCounts::unchanged,
        &IngestCounts::removed, &IngestCounts::directories, &IngestCounts::removed_directories,
        &IngestCounts::mended, &IngestCounts::not_done, &IngestCounts::bytes}) {
    this->*counter += other.*counter;
  }
  for (std::size_t kind = 0; kind < kSkippedKinds; ++kind) skipped[kind] += other.skipped[kind];
}

void IngestOutcome::add(IngestOutcome&& other) {
  counts.add(other.counts);
  add_counters(&delta, other.delta);
  recount |= other.recount;
  problems.insert(problems.end(), std::make_move_iterator(other.problems.begin()),
                  std::make_move_iterator(other.problems.end()));
}

void IngestOutcome::mended(const std::string& path, const std::string& text) {
  ++counts.mended;
  problems.push_back({path, CR_STATUS_OK, text});
}

// The cause is known now, and told later.
void IngestOutcome::not_done(Problem problem) {
  ++counts.not_done;
  const std::string cause = take_cause();
  if (needs_cause(problem.status) && !cause.empty()) problem.text += ": " + printable(cause);
  problems.push_back(std::move(problem));
}

}  // namespace cli
