// A disk in memory that knows what was synced. One thread's.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

class MemoryDisk {
 public:
  struct File {
    std::string now, synced;
  };
  using FilePtr = std::shared_ptr<File>;
  enum Kind { kNaming, kRemoval, kTruncation, kWrite };
  struct Change {
    Kind kind;
    FilePtr file;
    std::size_t offset;  // or size
    std::string text;    // a name, or bytes
  };

  // Null for a missing file.
  FilePtr find(const std::string& name) const;
  void make(Change change);
  void sync(const FilePtr& file);
  // Creations and removals reach the disk.
  void sync_names();

  // The disk as a power failure leaves it now: what was synced, and of the rest nothing,
  // everything, what came before some moment, or a random part, by sectors of 512 bytes of which
  // some are torn.
  MemoryDisk after_power_loss(std::mt19937& random) const;

  std::function<void()> changed = [] {};  // after each change, syncs included
  bool syncs = true;                      // a disk that lies loses what was synced as well

 private:
  using Names = std::map<std::string, FilePtr>;

  static void apply(const Change& change, Names& names, const FilePtr& file);

  Names names_, synced_names_;
  std::vector<Change> unsynced_;  // oldest first
};

// The disk of every file that SQLite or the library opens, looks for or removes from now on. One
// connection at a time opens a file, so there are no locks.
void use_disk(MemoryDisk* disk);
