// A disk in memory that knows what was synced, and SQLite's file system over it. One thread's.
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
  using Names = std::map<std::string, FilePtr>;

  MemoryDisk() = default;
  MemoryDisk(const MemoryDisk&) = delete;
  MemoryDisk& operator=(const MemoryDisk&) = delete;
  MemoryDisk(MemoryDisk&&) = default;  // before any of its files is opened
  MemoryDisk& operator=(MemoryDisk&&) = delete;
  ~MemoryDisk() = default;

  // Null for a missing file.
  FilePtr find(const std::string& name) const;
  FilePtr create(const std::string& name);
  void remove(const std::string& name);
  void write(const FilePtr& file, std::size_t offset, const std::string& bytes);
  void truncate(const FilePtr& file, std::size_t size);
  void sync(const FilePtr& file);
  // Creations and removals reach the disk.
  void sync_names();

  // The disk as a power failure leaves it now: what was synced, and of the rest nothing,
  // everything, what came before some moment, or a random part, by sectors of 512 bytes of which
  // some are torn.
  MemoryDisk after_power_loss(std::mt19937& random) const;

  std::function<void()> changed;  // after each change, syncs included; may be empty
  bool syncs = true;              // a disk that lies loses what was synced as well

 private:
  enum Kind { kNaming, kRemoval, kTruncation, kWrite };
  struct Change {
    Kind kind;
    FilePtr file;
    std::size_t offset;
    std::string text;  // a name, or bytes
  };
  class Fate;

  void make(Change change);
  template <typename Which>
  void forget(Which which);
  static void apply(const Change& change, Names& names, const FilePtr& file);

  Names names_, synced_names_;
  std::vector<Change> unsynced_;  // oldest first
};

// The disk of every file that SQLite or the library opens, looks for or removes from now on.
void use_disk(MemoryDisk* disk);
