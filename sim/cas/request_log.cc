#include "sim/cas/request_log.h"

#include <sys/time.h>

#include <ctime>

namespace cas_sim {

namespace {

std::string utc_now() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  tm utc{};
  gmtime_r(&tv.tv_sec, &utc);
  char text[40];
  size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(text + n, sizeof text - n, ".%03dZ", static_cast<int>(tv.tv_usec / 1000));
  return text;
}

}  // namespace

void Request_Log::add(Request_Record record) {
  record.time = utc_now();
  std::lock_guard<std::mutex> lock(mutex_);
  record.seq = ++last_seq_;
  records_.push_back(std::move(record));
  while (records_.size() > capacity_)
    records_.pop_front();
}

std::vector<Request_Record> Request_Log::since(std::uint64_t seq) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Request_Record> out;
  for (const Request_Record& r : records_)
    if (r.seq > seq)
      out.push_back(r);
  return out;
}

std::uint64_t Request_Log::last_seq() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return last_seq_;
}

std::size_t Request_Log::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t n = records_.size();
  records_.clear();
  return n;
}

JSON_Value dump_record(const Request_Record& record) {
  return {{"seq", record.seq},
          {"time", record.time},
          {"method", record.method},
          {"target", record.target},
          {"status", record.status},
          {"user", record.user},
          {"duration_ms", record.duration_ms}};
}

}  // namespace cas_sim
