// Runs the rows of a table side by side, as they mostly wait; the results are judged afterwards.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

namespace test {

// The results of run(0) to run(count - 1), a few at a time for each processor.
template <typename Result>
std::vector<Result> InParallel(size_t count, const std::function<Result(size_t)>& run) {
#ifdef BTHAL_SANITIZED
  constexpr size_t kPerProcessor = 2;
#else
  constexpr size_t kPerProcessor = 4;
#endif
  const size_t at_once = kPerProcessor * std::max(2u, std::thread::hardware_concurrency());
  std::vector<Result> results(count);
  std::atomic<size_t> next{0};
  std::vector<std::thread> threads;
  for (size_t i = 0; i < std::min(at_once, count); ++i) {
    threads.emplace_back([&] {
      for (size_t row; (row = next++) < count;) results[row] = run(row);
    });
  }
  for (std::thread& thread : threads) thread.join();
  return results;
}

}  // namespace test
