// One file of the tree that is ingested.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <string>
#include <vector>

#include "cli/content_hash.h"
#include "cli/progress.h"
#include "refhost/fd_internal.h"

namespace cli {

struct SourceFile {
  struct stat attributes {};
  Content content;  // nothing when it was not read
};

// Reads files, one after the other, with one buffer, and shows how it gets on. A reading fails
// early once `stop` is set.
class FileReader {
 public:
  FileReader(const std::atomic<bool>& stop, Progress& progress);

  // The attributes, and the content when `with_content` says so. A file that is written to
  // meanwhile is read again, at most three times in all, so that attributes and content belong
  // together. False with the reason in `why`.
  bool read(int directory, const std::string& name, bool with_content, SourceFile* file,
            std::string* why);

 private:
  enum class Attempt { done, failed, changed };

  bool look(int directory, const std::string& name, SourceFile* file, std::string* why) const;
  Attempt hash(const refhost::Fd& opened, SourceFile* file, std::string* why);
  bool feed(const refhost::Fd& opened, off_t* length);

  const std::atomic<bool>& stop_;
  Progress& progress_;
  ContentHash hash_;
  std::vector<unsigned char> buffer_;
};

}  // namespace cli
