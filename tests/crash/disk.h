// A catalog on a disk that knows what was synced. One thread's.
#pragma once

#include <functional>
#include <map>
#include <random>

#include "tests/support/temp_dir.h"

class Disk {
 public:
  void clear();

  // Becomes what a power failure leaves of another disk now: what was synced, and of the changes
  // since then none, all or some: names one by one, contents by sectors of 512 bytes of which some
  // are torn.
  void restart_after(const Disk& failing, std::mt19937& random);

  // The file, or the names when it is the directory, reach the disk.
  void sync(int fd);

  const TempDir root;
  const std::string directory = root.path("5/c/p");
  std::function<void()> changed;  // after each change, syncs included
  bool syncs = true;              // a disk that lies loses what was synced as well

 private:
  struct Files {
    std::map<std::string, ino_t> names;
    std::map<ino_t, std::string> contents;
  };
  Files now() const;

  Files synced_;
};

// The disk on which everybody writes, syncs and removes from now on; null for none that matters.
inline Disk* disk_in_use = nullptr;
