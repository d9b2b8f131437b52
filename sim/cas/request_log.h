// What the simulated CVM was asked and how it answered, for tests to read back. Bounded: the
// oldest records give way to new ones.
#pragma once

#include "host/core/json.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace cas_sim {

struct Request_Record {
  std::uint64_t seq = 0;  // from 1, never reused, not even after clear()
  std::string time;       // UTC, "2026-01-31T12:00:00.123Z"
  std::string method;
  std::string target;
  int status = 0;    // 0 when the connection was dropped without an answer
  std::string user;  // the authenticated operator, or ""
  std::int64_t duration_ms = 0;
};

// Thread-safe.
class Request_Log {
 public:
  explicit Request_Log(std::size_t capacity = 10000) : capacity_(capacity) {}

  // Gives the record its sequence number and time.
  void add(Request_Record record);
  // The records with a sequence number above `seq`, oldest first.
  std::vector<Request_Record> since(std::uint64_t seq) const;
  std::uint64_t last_seq() const;
  // Forgets every record; returns how many there were.
  std::size_t clear();

 private:
  const std::size_t capacity_;
  mutable std::mutex mutex_;
  std::deque<Request_Record> records_;
  std::uint64_t last_seq_ = 0;
};

JSON_Value dump_record(const Request_Record& record);

}  // namespace cas_sim
