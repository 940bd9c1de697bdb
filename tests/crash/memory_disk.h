// A disk in memory that knows what was synced. One thread's.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>

struct MemoryDisk {
  struct File {
    std::string now, synced;
  };
  using Names = std::map<std::string, std::shared_ptr<File>>;

  void sync(File& file) const {
    if (syncs) file.synced = file.now;
    changed();
  }
  // Creations and removals reach the disk.
  void sync_names() {
    if (syncs) synced_names = names;
    changed();
  }

  // The disk as a power failure leaves it now: what was synced, and of the changes since then none,
  // all or some: names one by one, contents by sectors of 512 bytes of which some are torn.
  MemoryDisk after_power_loss(std::mt19937& random) const {
    MemoryDisk left;
    Names all = names;
    all.insert(synced_names.begin(), synced_names.end());
    const auto chances = random() % 5;
    for (const auto& [name, any] : all) {
      const Names& side = random() % 4 < chances ? names : synced_names;
      const auto found = side.find(name);
      if (found == side.end()) continue;
      const std::string content = rest_of(*found->second, random);
      left.names[name] = std::make_shared<File>(File{content, content});
    }
    left.synced_names = left.names;
    return left;
  }

  Names names, synced_names;
  std::function<void()> changed = [] {};  // after each change, syncs included
  bool syncs = true;                      // a disk that lies loses what was synced as well

 private:
  static std::string rest_of(const File& file, std::mt19937& random) {
    constexpr std::size_t kSector = 512;
    const std::string& now = file.now;
    const auto chances = random() % 5;
    std::string content = file.synced;
    if (random() % 4 < chances) content.resize(now.size());
    for (std::size_t at = 0; at < now.size(); at += kSector) {
      if (random() % 4 >= chances) continue;
      const std::size_t most = random() % 8 == 0 && chances < 4 ? random() % kSector : kSector;
      const std::size_t size = std::min(most, now.size() - at);
      content.resize(std::max(content.size(), at + size));
      content.replace(at, size, now, at, size);
    }
    return content;
  }
};

// The disk of every file that SQLite or the library opens, looks for or removes from now on. One
// connection at a time opens a file, so there are no locks.
void use_disk(MemoryDisk* disk);
