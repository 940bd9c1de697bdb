// Every bit of a database turned over, and pages lost, zeroed, exchanged and out of date: nobody
// may get to see what was never stored, and no row may have changed unnoticed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "tests/damage/subject.h"
#include "tests/support/files.h"

namespace {

constexpr std::size_t kPage = 4096;

// Numbers of damaged images.
struct Tally {
  std::size_t images = 0, sqlite = 0, checksum = 0, verify = 0, harmless = 0;
  std::size_t invisible = 0, unchecked = 0, wrong = 0, unreported = 0, changed = 0;

  void print(const std::string& what) const {
    std::printf(
        "[ figures ] %s: %zu images: found by SQLite %zu, by the checksum of a row %zu, by "
        "verify alone %zu, harmless %zu; rows changed %zu, row not found %zu, unchecked "
        "name or number %zu; wrong answers %zu, unreported %zu\n",
        what.c_str(), images, sqlite, checksum, verify, harmless, changed, invisible, unchecked,
        wrong, unreported);
    std::fflush(stdout);
  }
};

class Rot {
 public:
  explicit Rot(std::unique_ptr<Subject> subject)
      : subject_(std::move(subject)),
        image_(read_file(subject_->file())),
        rows_(subject_->raw_rows()) {
    for (std::size_t row = 0; row < kRows; ++row) {
      for (const std::string& key : subject_->keys(row)) {
        for (auto at = image_.find(key); at != std::string::npos; at = image_.find(key, at + 1)) {
          places_.emplace_back(at, row);
        }
      }
    }
    std::sort(places_.begin(), places_.end());
  }

  const std::string& image() const { return image_; }
  Subject& subject() const { return *subject_; }
  std::size_t pages() const { return image_.size() / kPage; }

  // Examines one damaged image, whose damage is at `offset`, and counts it.
  void examine(const std::string& damaged, std::size_t offset, Tally& tally, bool sample = false) {
    write(damaged);
    const char kind = offset < kPage ? '\0' : image_[offset / kPage * kPage];
    log_told_of_checksum();  // what verify found before
    const Answers answers = subject_->ask(rows_near(offset), kind);
    write(damaged);
    const bool changed = kind != kIndexLeaf && subject_->raw_rows() != rows_;
    const bool noticed = answers.refused || answers.mismatch;
    const bool differs = changed || answers.absent || answers.unchecked || !answers.wrong.empty();
    const bool unreported = (differs || noticed) &&
                            (!sample || !noticed || tally.images % 16 == 0) &&
                            !subject_->verify_reports();
    ++tally.images;
    ++(answers.refused    ? tally.sqlite
       : answers.mismatch ? tally.checksum
       : differs          ? tally.verify
                          : tally.harmless);
    tally.invisible += answers.absent && !noticed;
    tally.unchecked += answers.unchecked && !noticed;
    tally.changed += changed;
    tally.wrong += !answers.wrong.empty();
    tally.unreported += unreported;
    if ((unreported || !answers.wrong.empty()) && notes_.size() < 2000) {
      notes_ +=
          "\nbyte " + std::to_string(offset) + (unreported ? " unreported " : " ") + answers.wrong;
    }
  }

  // Where the first wrong answers and unreported changes were.
  const std::string& notes() const { return notes_; }

 private:
  void write(const std::string& bytes) const {
    std::filesystem::remove(subject_->file() + "-journal");
    write_file(subject_->file(), bytes);
  }

  // Those that lie there, and one elsewhere.
  std::vector<std::size_t> rows_near(std::size_t offset) const {
    const auto next =
        std::lower_bound(places_.begin(), places_.end(), std::make_pair(offset, std::size_t{0}));
    std::set<std::size_t> near;
    for (auto at = next - (next != places_.begin()); at != places_.end() && at - next < 2; ++at) {
      near.insert(at->second);
    }
    std::vector<std::size_t> rows(near.begin(), near.end());
    if (near.insert(offset * 7919 % kRows).second) rows.push_back(offset * 7919 % kRows);
    return rows;
  }

  const std::unique_ptr<Subject> subject_;
  const std::string image_;
  const std::string rows_;
  std::vector<std::pair<std::size_t, std::size_t>> places_;  // where in the file: which row
  std::string notes_;
};

// Every so many'th bit is turned over: POCATALOG_BIT_STRIDE, or every one with POCATALOG_SOAK.
std::size_t stride() {
  const char* given = std::getenv("POCATALOG_BIT_STRIDE");
  if (given != nullptr) return std::max(std::strtoull(given, nullptr, 10), 1ULL);
  return std::getenv("POCATALOG_SOAK") != nullptr ? 1 : 2503;
}

class Damage : public testing::TestWithParam<std::unique_ptr<Subject> (*)()> {
 protected:
  static void SetUpTestSuite() { prepare(); }

  void check(const std::string& damage) const {
    tally.print(std::filesystem::path(rot.subject().file()).filename().string() + ", " + damage);
    EXPECT_EQ(tally.unreported, 0U) << rot.notes();
  }

  Rot rot{GetParam()()};
  Tally tally;
};

TEST_P(Damage, of_a_bit_gives_the_true_answer_or_a_failure) {
  std::string image = rot.image();
  for (std::size_t bit = 0; bit < 8 * image.size(); bit += stride()) {
    char& byte = image[bit / 8];
    const char whole = byte;
    byte = static_cast<char>(byte ^ (1 << bit % 8));
    rot.examine(image, bit / 8, tally, stride() == 1);
    byte = whole;
  }
  check("bits");
  EXPECT_EQ(tally.wrong, 0U) << rot.notes();
  EXPECT_GT(tally.checksum, tally.images / 10);
}

TEST_P(Damage, of_pages_gives_the_true_answer_or_a_failure) {
  const std::string& image = rot.image();
  for (std::size_t page = 0; page < rot.pages(); ++page) {
    const std::size_t at = page * kPage;
    rot.examine(image.substr(0, at), at, tally);
    rot.examine(image.substr(0, at + kPage / 2), at, tally);
    std::string zeroed = image;
    rot.examine(zeroed.replace(at, kPage, kPage, '\0'), at, tally);
    for (const std::size_t other : {(page + 1) % rot.pages(), (page + 13) % rot.pages()}) {
      std::string swapped = image;
      swapped.replace(at, kPage, image, other * kPage, kPage);
      rot.examine(swapped.replace(other * kPage, kPage, image, at, kPage), at, tally);
    }
  }
  check("pages");
  EXPECT_EQ(tally.wrong, 0U) << rot.notes();
}

// Old rows have the checksums that they had. That they are old shows in the index, which knows the
// rows by other numbers and other POIDs.
TEST_P(Damage, of_pages_from_another_time_is_found_by_verify) {
  rot.subject().change_all();
  const std::string other = read_file(rot.subject().file());
  for (std::size_t at = 0; at < std::min(rot.image().size(), other.size()); at += kPage) {
    std::string mixed = rot.image();
    rot.examine(mixed.replace(at, kPage, other, at, kPage), at, tally);
  }
  check("stale pages");
}

TEST_P(Damage, is_seen_here_when_an_answer_is_wrong) {
  rot.subject().change_all();
  rot.examine(read_file(rot.subject().file()), 0, tally);
  EXPECT_EQ(tally.wrong, 1U);
  EXPECT_EQ(tally.unreported, 1U);
}

INSTANTIATE_TEST_SUITE_P(Databases, Damage, testing::Values(make_po_subject, make_ul_subject));

}  // namespace
