// The record of a catalog directory ("__dirpo__"), and the directory itself. Under its lock.
#pragma once

#include <sys/stat.h>

#include <string>

#include "cli/ingest_dir.h"

namespace cli {

// Gives the directory the record of its source, unless it has that already.
void store_directory(const IngestJob& job, const std::string& directory,
                     const struct stat& attributes, IngestOutcome* outcome);

// Gives a directory without a record the default one: nothing is known about its source.
cr_status_t store_default_directory(const IngestJob& job, const std::string& directory,
                                    IngestOutcome* outcome);

// Deletes a directory that has no rows, and nothing in it but the catalog's own files. What stands
// against that is reported, and the directory stays.
void remove_directory(const IngestJob& job, const std::string& directory, IngestOutcome* outcome);

}  // namespace cli
