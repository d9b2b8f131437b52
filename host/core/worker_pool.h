// A fixed set of threads running posted jobs in order of arrival.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

class Worker_Pool {
 public:
  explicit Worker_Pool(int threads);
  // Runs the jobs already posted, then joins the threads.
  ~Worker_Pool();
  Worker_Pool(const Worker_Pool&) = delete;
  Worker_Pool& operator=(const Worker_Pool&) = delete;
  // False once the pool is stopping.
  bool post(std::function<void()> job);

 private:
  void run();
  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> jobs_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};
