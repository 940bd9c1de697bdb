// One file of the tree that is ingested.
#pragma once

#include <openssl/types.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "refhost/fd_internal.h"

namespace cli {

struct SourceFile {
  struct stat attributes {};
  std::string poid;  // SHA-256 of the content; empty for an empty file and for one not read
};

// Reads files, one after the other, with one buffer. A reading fails early once `stop` is set.
class FileReader {
 public:
  explicit FileReader(const std::atomic<bool>& stop);

  // The attributes, and the content's POID when `with_content` says so. A file that is written to
  // meanwhile is read again, at most three times in all, so that attributes and content belong
  // together. False with the reason in `why`.
  bool read(int directory, const std::string& name, bool with_content, SourceFile* file,
            std::string* why);

 private:
  struct FreeDigest {
    void operator()(EVP_MD_CTX* digest) const;
  };
  enum class Attempt { done, failed, changed };

  bool look(int directory, const std::string& name, SourceFile* file, std::string* why) const;
  Attempt hash(const refhost::Fd& opened, SourceFile* file, std::string* why);
  bool feed(const refhost::Fd& opened, off_t* length);
  std::string finish();

  const std::atomic<bool>& stop_;
  std::unique_ptr<EVP_MD_CTX, FreeDigest> digest_;
  std::vector<unsigned char> buffer_;
};

}  // namespace cli
