// Measures the library beside its floor: the same work without it, in the same process and in turn.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// The timed part of one round. What it holds is released after the clock has stopped.
using Work = std::function<void()>;

// One way to do the work of a case: `prepare` sets up a round, untimed.
struct Side {
  std::string name;
  std::function<Work()> prepare;
};

// The first side is the library, the second the floor; the others show what the design costs.
struct Case {
  std::string name;
  std::size_t operations;  // in one round, for the time of each
  double target;           // floor's time over the library's that is to be reached
  std::vector<Side> sides;
};

// What was measured, side by side as in the case: seconds of each round.
struct Result {
  const Case* measured;
  std::vector<std::vector<double>> seconds;

  double median(std::size_t side) const;
  // The median over the rounds of a side's time over the library's in the same round.
  double ratio(std::size_t side) const;
};

// Runs every side once a round, in turn; which one is first changes from round to round.
Result measure(const Case& measured, int rounds);

// Keeps the compiler from dropping a result that nobody reads.
void keep(std::size_t value);

}  // namespace bench
