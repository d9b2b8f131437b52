// Storage pools as the backup server knows them, and the pool's share of the I/O options.
#pragma once

#include "host/core/json.h"
#include "host/http/client.h"
#include "host/storage/options.h"

#include <string>

struct Pool_Info {
  std::string uuid;
  std::string name;
  std::string url;  // the pool's base location, such as file:///srv/pool1
  JSON_Value io_options = JSON_Value::object();  // the pool's own I/O options, object form
};

// Fills `info` with pool `uuid` from the backup server behind `upstream` (null: the process's
// instance). `device` names a device of the pool and may be null; a pool of this server has one
// location, so it only appears in the log. `with_options` false leaves `info.io_options` empty.
// Failed transport and server errors are tried again for up to `retry_seconds`; an unknown pool
// is not. `reserved` and `flags` are accepted for callers written against the agent framework.
// False after one log line.
bool get_pool_info(Upstream_JSON_RESTful_Client* upstream, const std::string& uuid,
                   const char* device, Pool_Info& info, bool with_options = true,
                   const char* reserved = nullptr, int retry_seconds = 0, int flags = -1);
inline bool get_pool_info(const std::string& uuid, const char* device, Pool_Info& info) {
  return get_pool_info(Upstream_JSON_RESTful_Client::instance(), uuid, device, info);
}

// Lays the pool's own I/O options over `opts` (keys the pool does not set stay). False, with
// `opts` unchanged, after one log line when they are invalid.
bool set_options_by_pool(Client_IO_Base::Options& opts, const Pool_Info& info);
