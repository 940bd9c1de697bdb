// Every bit of a database turned over, and pages lost, zeroed, exchanged and out of date: nobody
// may get to see what was never stored, and no row may have changed unnoticed.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/crash/lane.h"
#include "tests/damage/subject.h"
#include "tests/support/files.h"

namespace {

constexpr std::size_t kPage = 4096;

class Damage : public testing::TestWithParam<std::unique_ptr<Subject> (*)()> {
 protected:
  static void SetUpTestSuite() { prepare(); }

  // Examines one damaged image, whose damage is at `offset`.
  void examine(const std::string& damaged, std::size_t offset) {
    put(damaged);
    const Answers answers = subject_->ask(rows_near(offset, image_));
    put(damaged);  // some answers change the file
    const bool clean = !answers.noticed && !answers.differs && answers.wrong.empty();
    const bool harmless = clean && subject_->raw_rows() == rows_;
    const bool reported = harmless || subject_->verify_reports();
    ++images_;
    noticed_ += answers.noticed;
    harmless_ += harmless;
    wrong_ += !answers.wrong.empty();
    unreported_ += !reported;
    if (notes_.size() < 2000 && (!reported || !answers.wrong.empty())) {
      notes_ +=
          "\nbyte " + std::to_string(offset) + (reported ? " " : " unreported ") + answers.wrong;
    }
  }

  void print(const char* what) const {
    std::printf(
        "%s, %s: %zu images: seen by whoever asks %zu, by verify alone %zu, harmless %zu; "
        "wrong answers %zu, unreported changes %zu\n",
        subject_->file().c_str() + subject_->file().size() - 5, what, images_, noticed_,
        images_ - noticed_ - harmless_, harmless_, wrong_, unreported_);
  }

  const std::unique_ptr<Subject> subject_ = GetParam()();
  const std::string image_ = read_file(subject_->file());
  std::size_t images_ = 0, noticed_ = 0, harmless_ = 0, wrong_ = 0, unreported_ = 0;
  std::string notes_;  // where the first wrong answers and unreported changes were

 private:
  // In place: a file made anew takes longer.
  void put(const std::string& bytes) const {
    unlink((subject_->file() + "-journal").c_str());
    const int fd = open(subject_->file().c_str(), O_WRONLY | O_CREAT, 0600);
    EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(bytes.size())), 0);
    close(fd);
  }

  const std::string rows_ = subject_->raw_rows();
};

TEST_P(Damage, of_a_bit_gives_the_true_answer_or_a_failure) {
  const std::size_t stride = sized("POCATALOG_BIT_STRIDE", 2503);
  std::string image = image_;
  for (std::size_t bit = sized("POCATALOG_BIT_OFFSET", 0); bit < 8 * image.size(); bit += stride) {
    char& byte = image[bit / 8];
    const char whole = byte;
    byte = static_cast<char>(byte ^ (1 << bit % 8));
    examine(image, bit / 8);
    byte = whole;
  }
  print("bits");
  EXPECT_EQ(wrong_ + unreported_, 0U) << notes_;
  EXPECT_GT(noticed_, images_ / 3);
}

TEST_P(Damage, of_pages_gives_the_true_answer_or_a_failure) {
  for (std::size_t at = 0; at < image_.size(); at += kPage) {
    examine(image_.substr(0, at), at);
    examine(image_.substr(0, at + kPage / 2), at);
    std::string zeroed = image_;
    examine(zeroed.replace(at, kPage, kPage, '\0'), at);
    for (const std::size_t distance : {kPage, 7 * kPage}) {
      const std::size_t other = (at + distance) % image_.size();
      std::string swapped = image_;
      swapped.replace(at, kPage, image_, other, kPage);
      examine(swapped.replace(other, kPage, image_, at, kPage), at);
    }
  }
  print("pages");
  EXPECT_EQ(wrong_ + unreported_, 0U) << notes_;
}

// Old rows have the checksums that they had. That they are old shows in the index, which knows the
// rows by other numbers and other POIDs.
TEST_P(Damage, of_pages_from_another_time_is_found_by_verify) {
  subject_->store(1000);
  const std::string other = read_file(subject_->file());
  for (std::size_t at = 0; at < std::min(image_.size(), other.size()); at += kPage) {
    std::string mixed = image_;
    examine(mixed.replace(at, kPage, other, at, kPage), at);
  }
  print("stale pages");
  EXPECT_EQ(unreported_, 0U) << notes_;
}

TEST_P(Damage, is_seen_here_when_an_answer_is_wrong) {
  subject_->store(1000);
  examine(read_file(subject_->file()), 0);
  EXPECT_EQ(wrong_, 1U);
  EXPECT_EQ(unreported_, 1U);
}

INSTANTIATE_TEST_SUITE_P(Databases, Damage, testing::Values(make_po_subject, make_ul_subject));

}  // namespace
