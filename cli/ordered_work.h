// Work by several threads, whose output is that of one thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cli/command.h"

namespace cli {

// Runs tasks by as many threads as the machine has cores, and prints what each has printed in the
// order in which they were added. Holds a bounded number of tasks, and a bounded piece of what
// they print: a task that prints more waits for its turn. Used by one thread.
class OrderedWork {
 public:
  using Task = std::function<void(const Console&)>;

  explicit OrderedWork(const Console& console);
  OrderedWork(const OrderedWork&) = delete;
  OrderedWork& operator=(const OrderedWork&) = delete;
  // Waits for the tasks that have begun; those that have not are dropped.
  ~OrderedWork();

  // Prints what is ready, and waits while too many tasks are not done. Throws what a task threw,
  // when its turn comes.
  void add(Task task);

  // The same, but runs the task only when all before it are done, on the calling thread.
  void add_in_turn(Task task);

  // Waits for all tasks and prints what they have printed.
  void finish();

 private:
  // Tasks that one thread runs, one after the other: handing over costs more than a small task.
  struct Job {
    std::vector<Task> tasks;
    bool in_turn = false;
    bool taken = false;
    bool done = false;
    std::string out;
    std::string err;
    std::exception_ptr failure;
  };
  class Output;

  void enqueue(Task task, bool wants_turn);
  bool joins_last_job(bool in_turn) const;
  void work();
  Job* next_job();
  void run(Job* job);
  void hand_over(std::string* printed, std::string* piece);
  bool is_ready() const;
  void print_first(std::unique_lock<std::mutex>* lock);

  const Console& console_;
  std::mutex mutex_;                       // guards what follows
  std::condition_variable work_added_;     // for idle threads
  std::condition_variable changed_;        // for whoever waits for output, or for room for it
  std::deque<std::unique_ptr<Job>> jobs_;  // the first is to be printed next
  bool stop_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace cli
