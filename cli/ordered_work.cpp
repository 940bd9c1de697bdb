#include "cli/ordered_work.h"

#include <algorithm>
#include <ostream>
#include <streambuf>
#include <system_error>
#include <utility>

#include "cli/cause.h"

namespace cli {
namespace {

constexpr std::size_t kMostJobs = 64;
constexpr std::size_t kMostTasks = 16;      // of a job
constexpr std::size_t kPiece = 64U << 10U;  // bytes

}  // namespace

// A stream whose bytes go to the job in pieces.
class OrderedWork::Output : private std::streambuf {
 public:
  Output(OrderedWork* work, std::string* target) : stream(this), work_(work), target_(target) {}

  void flush_piece() { work_->hand_over(target_, &piece_); }

  std::ostream stream;

 private:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char byte = traits_type::to_char_type(c);
    return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
  }
  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    piece_.append(bytes, static_cast<std::size_t>(count));
    if (piece_.size() >= kPiece) flush_piece();
    return count;
  }

  OrderedWork* const work_;
  std::string* const target_;
  std::string piece_;
};

OrderedWork::OrderedWork(const Console& console) : console_(console) {
  const unsigned int count = std::max(1U, std::thread::hardware_concurrency());
  try {
    for (unsigned int i = 0; i < count; ++i) threads_.emplace_back([this] { work(); });
  } catch (const std::system_error&) {  // fewer will do, or none
  }
}

OrderedWork::~OrderedWork() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  work_added_.notify_all();
  changed_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void OrderedWork::add(Task task) { enqueue(std::move(task), false); }

void OrderedWork::add_in_turn(Task task) { enqueue(std::move(task), true); }

// Only behind enough jobs for all threads, so that few large tasks do not fall to one.
bool OrderedWork::joins_last_job(bool in_turn) const {
  if (in_turn || jobs_.empty() || jobs_.back()->tasks.size() == kMostTasks) return false;
  const auto waiting =
      std::count_if(jobs_.begin(), jobs_.end(), [](const auto& job) { return !job->taken; });
  return !jobs_.back()->taken && static_cast<std::size_t>(waiting) > threads_.size();
}

void OrderedWork::enqueue(Task task, bool wants_turn) {
  const bool in_turn = wants_turn || threads_.empty();
  std::unique_lock<std::mutex> lock(mutex_);
  if (!joins_last_job(in_turn)) {
    jobs_.push_back(std::make_unique<Job>());
    jobs_.back()->in_turn = jobs_.back()->taken = in_turn;
    work_added_.notify_one();
  }
  jobs_.back()->tasks.push_back(std::move(task));
  while (!jobs_.empty() && (is_ready() || jobs_.size() >= kMostJobs)) print_first(&lock);
}

void OrderedWork::finish() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!jobs_.empty()) print_first(&lock);
}

void OrderedWork::work() {
  while (Job* job = next_job()) run(job);
}

OrderedWork::Job* OrderedWork::next_job() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (stop_) return nullptr;
    const auto waiting = std::find_if(jobs_.begin(), jobs_.end(),
                                      [](const std::unique_ptr<Job>& job) { return !job->taken; });
    if (waiting != jobs_.end()) {
      (*waiting)->taken = true;
      return waiting->get();
    }
    work_added_.wait(lock);
  }
}

// Nothing leaves a thread but through its job.
void OrderedWork::run(Job* job) {
  Output out(this, &job->out), err(this, &job->err);
  const auto guarded = [job](const auto& step) {
    try {
      step();
    } catch (...) {
      if (!job->failure) job->failure = std::current_exception();
    }
  };
  guarded([&] {
    for (const Task& task : job->tasks) {
      take_cause();  // of what was overcome elsewhere
      task({out.stream, err.stream, console_.json, false});
    }
  });
  guarded([&] { out.flush_piece(), err.flush_piece(); });
  const std::lock_guard<std::mutex> lock(mutex_);
  job->done = true;
  changed_.notify_all();
}

void OrderedWork::hand_over(std::string* printed, std::string* piece) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return stop_ || printed->size() < kPiece; });
  if (!stop_) printed->append(*piece);
  piece->clear();
  changed_.notify_all();
}

bool OrderedWork::is_ready() const {
  const Job& first = *jobs_.front();
  return first.done || first.in_turn || !first.out.empty() || !first.err.empty();
}

// Waits for something to print of the first job.
void OrderedWork::print_first(std::unique_lock<std::mutex>* lock) {
  changed_.wait(*lock, [this] { return is_ready(); });
  Job& first = *jobs_.front();
  const std::string out = std::exchange(first.out, ""), err = std::exchange(first.err, "");
  std::unique_ptr<Job> ended;
  if (first.done || first.in_turn) {
    ended = std::move(jobs_.front());
    jobs_.pop_front();
  }
  lock->unlock();
  changed_.notify_all();
  console_.out << out;
  console_.err << err;
  if (ended && ended->failure) std::rethrow_exception(ended->failure);
  if (ended && ended->in_turn) ended->tasks.front()(console_);
  lock->lock();
}

}  // namespace cli
