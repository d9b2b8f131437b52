#include "host/catalog/retry.h"

#include <algorithm>
#include <chrono>
#include <thread>

bool run_with_retries(int retry_seconds, const std::function<Attempt()>& attempt) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline =
      Clock::now() + std::chrono::seconds(std::max(retry_seconds, 0));
  std::chrono::milliseconds wait(1000);
  for (;;) {
    Attempt a = attempt();
    if (a != Attempt::Retry)
      return a == Attempt::Done;
    Clock::time_point now = Clock::now();
    if (now >= deadline)
      return false;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
    std::this_thread::sleep_for(std::min(wait, left));
    wait = std::min(wait * 2, std::chrono::milliseconds(10000));
  }
}
