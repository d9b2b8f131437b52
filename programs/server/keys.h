// Access keys: every request but the health probe names its caller by
// server_api::access_key_header.
#pragma once

#include "host/http/server.h"
#include "programs/server/db.h"

#include <cstdint>
#include <string>
#include <vector>

namespace brimlet_server {

// Who sent a request: the host id and role the key was enrolled with.
struct Caller {
  std::string host_id;
  std::string role;
};

struct Key_Entry {
  std::string host_id;
  std::string role;
  std::int64_t created = 0;  // seconds since the epoch
};

class Access_Keys {
 public:
  explicit Access_Keys(Database& db) : db_(db) {}

  // A new random key (64 hex digits) for `host_id` in `role` ("agent" or "admin"). Only its
  // SHA-256 is stored. False after one log line, bad arguments included.
  bool enroll(const std::string& host_id, const std::string& role, std::string& key);
  // Every key's host id and role, oldest first.
  bool list(std::vector<Key_Entry>& out);

  // The caller of `req`; otherwise false with `resp` filled in (401 for a missing or unknown
  // key, 500 when the database fails) and no data.
  bool authenticate(const HTTP_Server_Request& req, HTTP_Server_Response& resp, Caller& caller);

 private:
  Database& db_;
};

}  // namespace brimlet_server
