// The tree that is ingested: its directories and files, read without following symbolic links.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "refhost/fd_internal.h"

namespace cli {

// Which file a path names at the moment.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;
};

inline FileId id_of(const struct stat& file) { return {file.st_dev, file.st_ino}; }
inline bool operator==(const FileId& a, const FileId& b) {
  return a.device == b.device && a.inode == b.inode;
}

std::string path_below(const std::string& directory, const std::string& name);

struct SourceEntry {
  std::string name;
  mode_t kind;  // an S_IF value; 0 when it could not be found out
};

// An open directory of the tree. Functions that return false leave the reason in `errno`.
class SourceDirectory {
 public:
  // Opens the directory that `id` names: one that was exchanged meanwhile, even behind a symbolic
  // link higher up, is refused.
  bool open(const std::string& path, const FileId& id);

  // The entries, by name in byte order.
  bool read(std::vector<SourceEntry>* entries) const;

  int fd() const { return directory_.get(); }
  const struct stat& attributes() const { return attributes_; }

 private:
  refhost::Fd directory_;
  struct stat attributes_ {};
};

}  // namespace cli
