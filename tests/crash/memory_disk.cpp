#include "tests/crash/memory_disk.h"

#include <algorithm>

namespace {

constexpr std::size_t kSector = 512;

// What a power loss does to changes that were not synced, one after the other.
class Fate {
 public:
  explicit Fate(MemoryDisk::Random& random, std::size_t changes)
      : random_(random),
        kind_(static_cast<Kind>(random() % 4)),
        kept_(kind_ == kUpToAMoment ? random() % (changes + 1) : 0) {}

  // Whether the next change survives.
  bool spares() {
    if (kind_ == kUpToAMoment) return seen_++ < kept_;
    return kind_ == kAll || (kind_ == kSome && random_() % 2 == 0);
  }
  // How much of a sector's `size` bytes survives.
  std::size_t spared(std::size_t size) {
    if (kind_ == kSome && random_() % 8 == 0) return random_() % (size + 1);
    return spares() ? size : 0;
  }
  // Whether a lost write has made its file longer all the same.
  bool grows() { return kind_ == kSome && random_() % 4 == 0; }
  bool takes_single_sectors() const { return kind_ == kSome; }

 private:
  enum Kind { kNothing, kAll, kUpToAMoment, kSome };

  MemoryDisk::Random& random_;
  const Kind kind_;
  const std::size_t kept_;
  std::size_t seen_ = 0;
};

void overwrite(std::string& content, std::size_t offset, const std::string& bytes) {
  content.resize(std::max(content.size(), offset + bytes.size()));
  content.replace(offset, bytes.size(), bytes);
}

void overwrite_sectors(std::string& content, const MemoryDisk::File::Change& change, Fate& fate) {
  for (std::size_t at = 0; at < change.bytes.size();) {
    const std::size_t to_border = kSector - (change.offset + at) % kSector;
    const std::size_t size = std::min(change.bytes.size() - at, to_border);
    const std::size_t spared = fate.spared(size);
    if (spared > 0) overwrite(content, change.offset + at, change.bytes.substr(at, spared));
    if (fate.grows()) content.resize(std::max(content.size(), change.offset + at + size));
    at += size;
  }
}

std::string survivor(const MemoryDisk::File& file, MemoryDisk::Random& random) {
  std::string content = file.synced;
  Fate fate(random, file.unsynced.size());
  for (const auto& change : file.unsynced) {
    if (!change.truncates && fate.takes_single_sectors()) {
      overwrite_sectors(content, change, fate);
    } else if (!fate.spares()) {
      continue;
    } else if (change.truncates) {
      content.resize(change.offset);
    } else {
      overwrite(content, change.offset, change.bytes);
    }
  }
  return content;
}

}  // namespace

MemoryDisk::FilePtr MemoryDisk::open(const std::string& name, bool create) {
  const auto found = names_.find(name);
  if (found != names_.end()) return found->second;
  if (!create) return nullptr;
  const Naming naming{name, std::make_shared<File>()};
  apply(names_, naming);
  unsynced_names_.push_back(naming);
  note();
  return naming.file;
}

void MemoryDisk::write(File& file, std::size_t offset, const std::string& bytes) {
  overwrite(file.now, offset, bytes);
  file.unsynced.push_back({false, offset, bytes});
  note();
}

void MemoryDisk::truncate(File& file, std::size_t size) {
  file.now.resize(size);
  file.unsynced.push_back({true, size, ""});
  note();
}

void MemoryDisk::sync(File& file) {
  if (syncs) file.synced = file.now, file.unsynced.clear();
  note();
}

void MemoryDisk::remove(const std::string& name) {
  const Naming naming{name, nullptr};
  apply(names_, naming);
  unsynced_names_.push_back(naming);
  note();
}

void MemoryDisk::sync_names() {
  if (syncs) synced_names_ = names_, unsynced_names_.clear();
  note();
}

void MemoryDisk::apply(Names& names, const Naming& naming) const {
  if (naming.file == nullptr) {
    names.erase(naming.name);
  } else {
    names[naming.name] = naming.file;
  }
}

void MemoryDisk::note() {
  if (changed) changed();
}

MemoryDisk MemoryDisk::after_power_loss(Random& random) const {
  Names survivors = synced_names_;
  Fate fate(random, unsynced_names_.size());
  for (const Naming& naming : unsynced_names_) {
    if (fate.spares()) apply(survivors, naming);
  }
  MemoryDisk disk;
  for (const auto& [name, file] : survivors) {
    File content;
    content.now = content.synced = survivor(*file, random);
    disk.names_[name] = std::make_shared<File>(std::move(content));
  }
  disk.synced_names_ = disk.names_;
  return disk;
}
