#include "host/core/worker_pool.h"

Worker_Pool::Worker_Pool(int threads) {
  for (int i = 0; i < (threads > 0 ? threads : 1); ++i)
    threads_.emplace_back([this] { run(); });
}

Worker_Pool::~Worker_Pool() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  cv_.notify_all();
  for (auto& t : threads_)
    t.join();
}

bool Worker_Pool::post(std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_)
      return false;
    jobs_.push_back(std::move(job));
  }
  cv_.notify_one();
  return true;
}

void Worker_Pool::run() {
  for (;;) {
    std::function<void()> job;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      cv_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      if (jobs_.empty())
        return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    job();
  }
}
