// Every bit of a database turned over, and pages lost, zeroed, exchanged and out of date: nobody
// may get to see what was never stored, and no row may have changed unnoticed.
#include <fcntl.h>

#include "tests/damage/subjects.h"

namespace {

constexpr std::size_t kPage = 4096;

class Damage : public Lane, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    refhost::set_log_level(refhost::LogLevel::Error);
    examine(image_, 0);
    ASSERT_EQ(harmless_, 1U) << "it was sound";
  }

  // Examines one damaged image, whose damage is at `offset`.
  void examine(const std::string& damaged, std::size_t offset) {
    put(damaged);
    const Answers answers = subject_->ask(rows_near(offset));
    put(damaged);  // some answers change the file
    const bool harmless = !answers.noticed && !answers.differs && !answers.wrong;
    const bool unreported = !harmless && !verify_finds_faults(subject_->root_.path());
    ++images_, noticed_ += answers.noticed, harmless_ += harmless, summed_ += answers.summed;
    wrong_ += answers.wrong, unreported_ += unreported;
    if (unreported || answers.wrong) places_ += " " + std::to_string(offset);
  }

  void print(const char* what) const {
    std::printf(
        "%s.db, %s: %zu images: seen by whoever asks %zu, of these by a checksum %zu, by verify "
        "alone %zu, harmless %zu; wrong answers %zu, unreported changes %zu\n",
        GetParam() ? "po" : "ul", what, images_, noticed_, summed_, images_ - noticed_ - harmless_,
        harmless_, wrong_, unreported_);
  }

  const std::unique_ptr<Subject> subject_ =
      GetParam() ? std::unique_ptr<Subject>(new PoSubject) : std::make_unique<UlSubject>();
  const std::string image_ = read_file(subject_->file_);
  std::size_t images_ = 0, noticed_ = 0, harmless_ = 0, summed_ = 0, wrong_ = 0, unreported_ = 0;
  std::string places_;  // of wrong answers and unreported changes

 private:
  // In place: a file made anew takes longer.
  void put(const std::string& bytes) const {
    unlink((subject_->file_ + "-journal").c_str());
    const int fd = open(subject_->file_.c_str(), O_WRONLY | O_CREAT, 0600);
    EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(bytes.size())), 0);
    close(fd);
  }

  // The one before, the one after and one elsewhere.
  std::set<std::size_t> rows_near(std::size_t offset) const {
    std::set<std::size_t> rows = {offset * 7919 % kRows};
    for (const std::size_t at : {image_.rfind("a1000", offset), image_.find("a1000", offset)}) {
      if (at != std::string::npos) rows.insert(std::stoul(image_.substr(at + 1, 6)) - kFirstKey);
    }
    return rows;
  }
};

TEST_P(Damage, of_a_bit_gives_the_true_answer_or_a_failure) {
  const std::size_t stride = sized("POCATALOG_BIT_STRIDE", 1009);
  std::string image = image_;
  for (std::size_t bit = sized("POCATALOG_BIT_OFFSET", 0); bit < 8 * image.size(); bit += stride) {
    char& byte = image[bit / 8];
    const char whole = byte;
    byte = static_cast<char>(byte ^ (1 << bit % 8));
    examine(image, bit / 8);
    byte = whole;
  }
  print("bits");
  EXPECT_TRUE(wrong_ + unreported_ == 0 && summed_ > 0) << places_;
}

TEST_P(Damage, of_pages_gives_the_true_answer_or_a_failure) {
  for (std::size_t at = 0; at < image_.size(); at += kPage) {
    examine(image_.substr(0, at), at);
    examine(image_.substr(0, at + kPage / 2), at);
    examine(std::string(image_).replace(at, kPage, kPage, '\0'), at);
    const std::size_t other = (at + 3 * kPage) % image_.size();
    const std::string twice = std::string(image_).replace(at, kPage, image_, other, kPage);
    examine(std::string(twice).replace(other, kPage, image_, at, kPage), at);
  }
  print("pages");
  EXPECT_EQ(wrong_ + unreported_, 0U) << places_;
}

// Old rows have the checksums that they had. That they are old shows in the index, which knows the
// rows by other numbers and other POIDs, unless all pages are old.
TEST_P(Damage, of_pages_from_another_time_is_found_by_verify_when_not_all_are_changed) {
  subject_->fill(1000);
  const std::string other = read_file(subject_->file_);
  for (std::size_t at = 0; at < std::min(image_.size(), other.size()); at += kPage) {
    examine(std::string(image_).replace(at, kPage, other, at, kPage), at);
  }
  EXPECT_EQ(unreported_, 0U) << places_;
  const std::size_t wrong_before = wrong_;
  examine(other, 0);
  print("stale pages, and all of them stale");
  EXPECT_EQ(wrong_, wrong_before + 1) << "this test sees what is wrong";
  EXPECT_EQ(unreported_, 1U);
}

INSTANTIATE_TEST_SUITE_P(PoAndUl, Damage, testing::Values(true, false));

}  // namespace
