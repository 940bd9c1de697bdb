// The ways in which single things are removed from a catalog.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cli/catalog.h"
#include "cli/ingest_result.h"
#include "cli/protection.h"
#include "cli/refusal.h"

namespace cli {

class Removal {
 public:
  explicit Removal(const CatalogPath& path) : path_(path) {}
  virtual ~Removal() = default;
  Removal(const Removal&) = delete;
  Removal& operator=(const Removal&) = delete;

  virtual Refusal refusal() const = 0;

  // The directory whose lock guards the entry.
  virtual CatalogPath guard() const = 0;

  // Removes what was not refused. What that means for the counters goes to `outcome`.
  virtual cr_status_t apply(IngestOutcome* outcome) const = 0;

 protected:
  const CatalogPath path_;
  const ComplianceClock clock_;
};

// A file's row or a directory: of both of one name the file, unless `directory_only`.
std::unique_ptr<Removal> removal_of_entry(const CatalogPath& path, bool directory_only);

// A row of a directory with which something is wrong, by the number that `verify` names: it may
// have no name, and no source that could replace it. A sound row is refused, and one whose record
// is sound and says that it is protected.
std::unique_ptr<Removal> removal_of_damaged_row(const CatalogPath& directory, std::int64_t rowid);

}  // namespace cli
