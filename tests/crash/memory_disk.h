// A disk in memory that knows what was synced, and the SQLite file system over it. Everything here
// belongs to one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

class MemoryDisk {
 public:
  MemoryDisk() = default;
  MemoryDisk(const MemoryDisk&) = delete;
  MemoryDisk& operator=(const MemoryDisk&) = delete;
  MemoryDisk(MemoryDisk&&) = default;  // before any of its files is opened
  MemoryDisk& operator=(MemoryDisk&&) = delete;
  ~MemoryDisk() = default;

  using Random = std::mt19937;

  // A file as it reads, as it was last synced, and the changes in between, oldest first.
  struct File {
    struct Change {
      bool truncates;  // to `offset`; otherwise `bytes` are written there
      std::size_t offset;
      std::string bytes;
    };
    std::string now, synced;
    std::vector<Change> unsynced;
  };
  using FilePtr = std::shared_ptr<File>;

  // Null for a missing file, unless it is to be made.
  FilePtr open(const std::string& name, bool create);
  void write(File& file, std::size_t offset, const std::string& bytes);
  void truncate(File& file, std::size_t size);
  void sync(File& file);
  void remove(const std::string& name);
  // Creations and removals reach the disk.
  void sync_names();

  // The disk as a power loss leaves it now: what was synced, and of the rest nothing, everything,
  // what came before some moment, or a random part, by sectors of 512 bytes of which some are torn.
  MemoryDisk after_power_loss(Random& random) const;

  std::function<void()> changed;  // after each change, syncs included; may be empty
  bool syncs = true;              // a disk that lies loses what was synced as well

 private:
  struct Naming {
    std::string name;
    FilePtr file;  // null for a removal
  };
  using Names = std::map<std::string, FilePtr>;

  void apply(Names& names, const Naming& naming) const;
  void note();

  Names names_, synced_names_;
  std::vector<Naming> unsynced_names_;
};

// The disk of every file that SQLite or the library opens, looks for or removes from now on.
void use_disk(MemoryDisk* disk);
