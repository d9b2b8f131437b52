#include "programs/server/keys.h"

#include "host/catalog/server_api.h"
#include "host/core/crypto.h"
#include "host/core/log.h"
#include "host/core/text.h"

#include <ctime>

namespace brimlet_server {

namespace {

constexpr std::size_t key_bytes = 32;
constexpr std::size_t max_host_id = 255;

std::string key_hash(const std::string& key) {
  MD_Generator md(key.data(), key.size(), MD_SHA256);
  return Hex_String_T(md.get(), md.length()).str();
}

bool valid_host_id(const std::string& id) {
  if (id.empty() || id.size() > max_host_id)
    return false;
  for (unsigned char c : id)
    if (c < 0x20 || c == 0x7f)
      return false;
  return true;
}

}  // namespace

bool Access_Keys::enroll(const std::string& host_id, const std::string& role, std::string& key) {
  if (!valid_host_id(host_id)) {
    LOG_MSG((LM_ERROR, "Invalid host id '%s': 1 to %d printable characters expected.\n",
             host_id.c_str(), static_cast<int>(max_host_id)));
    return false;
  }
  if (role != "agent" && role != "admin") {
    LOG_MSG((LM_ERROR, "Invalid role '%s': 'agent' or 'admin' expected.\n", role.c_str()));
    return false;
  }
  unsigned char raw[key_bytes];
  if (!random_bytes(raw, sizeof raw)) {
    LOG_MSG((LM_ERROR, "Failed to make an access key: no random bytes.\n"));
    return false;
  }
  std::string fresh = Hex_String_T(raw, sizeof raw).str();
  secure_zero(raw, sizeof raw);

  auto conn = db_.acquire();
  if (!conn)
    return false;
  auto st = conn->prepare(
      "INSERT INTO access_key (key_hash, host_id, role, created) VALUES (?, ?, ?, ?)");
  if (!st.bind(1, key_hash(fresh))
           .bind(2, host_id)
           .bind(3, role)
           .bind(4, static_cast<std::int64_t>(std::time(nullptr)))
           .run())
    return false;
  LOG_MSG((LM_INFO, "Enrolled host '%s' as %s.\n", host_id.c_str(), role.c_str()));
  key = std::move(fresh);
  return true;
}

bool Access_Keys::list(std::vector<Key_Entry>& out) {
  auto conn = db_.acquire();
  if (!conn)
    return false;
  auto st = conn->prepare("SELECT host_id, role, created FROM access_key ORDER BY created, rowid");
  out.clear();
  while (st.next())
    out.push_back({st.text(0), st.text(1), st.integer(2)});
  return st.ok();
}

bool Access_Keys::authenticate(const HTTP_Server_Request& req, HTTP_Server_Response& resp,
                               Caller& caller) {
  const std::string* key = req.headers.get(server_api::access_key_header);
  if (!key || key->empty()) {
    LOG_MSG((LM_WARNING, "Refused %s '%s' from '%s': no access key.\n", req.method_text.c_str(),
             req.path.c_str(), req.remote.c_str()));
    resp.error(401, "access key required");
    return false;
  }
  auto conn = db_.acquire();
  if (!conn) {
    resp.error(500, "database unavailable");
    return false;
  }
  auto st = conn->prepare("SELECT host_id, role FROM access_key WHERE key_hash = ?");
  if (st.bind(1, key_hash(*key)).next()) {
    caller.host_id = st.text(0);
    caller.role = st.text(1);
    return true;
  }
  if (!st.ok()) {
    resp.error(500, "database failure");
    return false;
  }
  LOG_MSG((LM_WARNING, "Refused %s '%s' from '%s': unknown access key.\n", req.method_text.c_str(),
           req.path.c_str(), req.remote.c_str()));
  resp.error(401, "unknown access key");
  return false;
}

}  // namespace brimlet_server
