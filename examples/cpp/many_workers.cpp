// SPDX-License-Identifier: MIT
//
// One search on a pool of eight threads: each asks for a point, evaluates it, and tells the
// value. The trials are the same as on one thread; only the time is not.
//
// The function is a stand-in for a simulation: Rosenbrock's valley in four variables (1960),
// with a cache size and a rounding mode as an integer and a categorical variable. A call
// sleeps 20 to 60 ms.

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "search/search.h"

using QuenloftSearch::Point;
using QuenloftSearch::Problem;
using QuenloftSearch::Search;

namespace {

double Simulate(const Point& point) {
  double sum = 0.0;
  for (int k = 0; k < 3; ++k) {
    const double valley = point.x[k + 1] - point.x[k] * point.x[k];
    sum += 100.0 * valley * valley + (1.0 - point.x[k]) * (1.0 - point.x[k]);
  }
  sum += (point.x[4] - 12.0) * (point.x[4] - 12.0) + 3.0 * point.categories[0];
  const auto pause = 20 + static_cast<int>(40.0 * std::fmod(std::abs(sum), 1.0));
  std::this_thread::sleep_for(std::chrono::milliseconds(pause));
  return sum;
}

// Evaluates for a search until that is finished. A thread for which the search has no point
// waits until another one has told a value.
class Pool {
 public:
  explicit Pool(Search& search) : search_(search) {}

  void Run(int threads) {
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; ++i) pool.emplace_back([this] { Work(); });
    for (std::thread& thread : pool) thread.join();
  }

 private:
  void Work() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!search_.IsFinished()) {
      const std::uint64_t told = told_;
      const std::vector<Point> points = search_.Ask();
      if (points.empty()) {
        is_told_.wait(lock, [&] { return told_ != told; });
        continue;
      }
      lock.unlock();
      const double value = Simulate(points[0]);
      lock.lock();
      search_.Tell(points[0], value);
      search_.Advance();
      ++told_;
      is_told_.notify_all();
    }
  }

  Search& search_;
  std::mutex mutex_;
  std::condition_variable is_told_;
  std::uint64_t told_ = 0;
};

}  // namespace

int main() {
  Problem problem;
  problem.variables.assign(4, {-2.0, 2.0});
  problem.variables.push_back({1.0, 64.0, /*is_logarithmic=*/true, /*is_integer=*/true, 64});
  problem.category_sizes = {2};
  Search search(problem);
  search.SetLimit(300);

  const auto start = std::chrono::steady_clock::now();
  Pool(search).Run(8);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;

  const auto trials = search.GetTrials();
  const std::size_t best = *search.Best();
  std::printf("minimum %.4f at (%.3f, %.3f, %.3f, %.3f), %g, %d: %zu trials in %.1f s,\n",
              trials.value[best], trials.x.Row(best)[0], trials.x.Row(best)[1],
              trials.x.Row(best)[2], trials.x.Row(best)[3], trials.x.Row(best)[4],
              trials.categories.Row(best)[0], trials.value.rows, seconds.count());
  std::printf("and %zu evaluations that were not needed\n", search.OpenPoints().size());
  return trials.value.rows == 300 ? 0 : 1;
}
