// SPDX-License-Identifier: MIT
//
// A mutex that serves its threads in the order in which they came.

#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace QuenloftSearch {

// With std::mutex a thread that asks again and again for points which others have yet to tell
// the values of can keep those others out for minutes.
class FairMutex {
 public:
  void lock() {
    std::unique_lock<std::mutex> guard(mutex_);
    const std::uint64_t ticket = next_++;
    turn_.wait(guard, [&] { return served_ == ticket; });
  }
  void unlock() {
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      ++served_;
    }
    turn_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable turn_;
  std::uint64_t next_ = 0;
  std::uint64_t served_ = 0;
};

}  // namespace QuenloftSearch
