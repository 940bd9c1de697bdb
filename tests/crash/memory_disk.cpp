#include "tests/crash/memory_disk.h"

#include <algorithm>

namespace {

constexpr std::size_t kSector = 512;

void overwrite(std::string& content, std::size_t offset, const std::string& bytes) {
  content.resize(std::max(content.size(), offset + bytes.size()));
  content.replace(offset, bytes.size(), bytes);
}

}  // namespace

// What becomes of changes that were not synced, one after the other.
class MemoryDisk::Fate {
 public:
  Fate(std::mt19937& random, std::size_t changes)
      : random_(random), spared_(random() % 3 == 0 ? random() % (changes + 1) : 0) {
    const auto kind = random() % 4;
    if (kind == 0) spared_ = changes;
    by_sectors_ = kind > 1;
  }

  void pass(const Change& change, Names& names, const FilePtr& file) {
    if (spared_ > 0) {
      --spared_;
      apply(change, names, file);
    } else if (by_sectors_ && change.kind == kWrite) {
      write_sectors(change, file->now);
    } else if (by_sectors_ && one_in(2)) {
      apply(change, names, file);
    }
  }

 private:
  bool one_in(unsigned int chances) { return random_() % chances == 0; }

  void write_sectors(const Change& change, std::string& content) {
    for (std::size_t at = 0; at < change.text.size();) {
      const std::size_t offset = change.offset + at;
      const std::size_t size = std::min(change.text.size() - at, kSector - offset % kSector);
      const std::size_t kept = one_in(8) ? random_() % size : one_in(2) ? size : 0;
      if (kept > 0) overwrite(content, offset, change.text.substr(at, kept));
      if (one_in(4)) content.resize(std::max(content.size(), offset + size));  // longer, not filled
      at += size;
    }
  }

  std::mt19937& random_;
  std::size_t spared_;  // so many, the oldest, survive whole
  bool by_sectors_;     // and of the others a part
};

MemoryDisk::FilePtr MemoryDisk::find(const std::string& name) const {
  const auto found = names_.find(name);
  return found != names_.end() ? found->second : nullptr;
}

MemoryDisk::FilePtr MemoryDisk::create(const std::string& name) {
  auto file = std::make_shared<File>();
  make({kNaming, file, 0, name});
  return file;
}

void MemoryDisk::remove(const std::string& name) { make({kRemoval, find(name), 0, name}); }

void MemoryDisk::write(const FilePtr& file, std::size_t offset, const std::string& bytes) {
  make({kWrite, file, offset, bytes});
}

void MemoryDisk::truncate(const FilePtr& file, std::size_t size) {
  make({kTruncation, file, size, ""});
}

void MemoryDisk::sync(const FilePtr& file) {
  if (syncs) {
    file->synced = file->now;
    forget([&](const Change& change) { return change.kind >= kTruncation && change.file == file; });
  }
  if (changed) changed();
}

void MemoryDisk::sync_names() {
  if (syncs) {
    synced_names_ = names_;
    forget([](const Change& change) { return change.kind < kTruncation; });
  }
  if (changed) changed();
}

template <typename Which>
void MemoryDisk::forget(Which which) {
  unsynced_.erase(std::remove_if(unsynced_.begin(), unsynced_.end(), which), unsynced_.end());
}

void MemoryDisk::make(Change change) {
  apply(change, names_, change.file);
  unsynced_.push_back(std::move(change));
  if (changed) changed();
}

void MemoryDisk::apply(const Change& change, Names& names, const FilePtr& file) {
  if (change.kind == kNaming) names[change.text] = file;
  if (change.kind == kRemoval) names.erase(change.text);
  if (change.kind == kTruncation) file->now.resize(change.offset);
  if (change.kind == kWrite) overwrite(file->now, change.offset, change.text);
}

MemoryDisk MemoryDisk::after_power_loss(std::mt19937& random) const {
  MemoryDisk left;
  std::map<FilePtr, FilePtr> copies;
  const auto copy_of = [&](const FilePtr& file) {
    FilePtr& copy = copies[file];
    if (copy == nullptr) copy = std::make_shared<File>(File{file->synced, ""});
    return copy;
  };
  for (const auto& [name, file] : synced_names_) left.names_[name] = copy_of(file);
  Fate fate(random, unsynced_.size());
  for (const Change& change : unsynced_) fate.pass(change, left.names_, copy_of(change.file));
  for (const auto& [file, copy] : copies) copy->synced = copy->now;
  left.synced_names_ = left.names_;
  return left;
}
