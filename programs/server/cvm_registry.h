// The CVM registry: connection entries of H3C CAS management servers (server_api::cvm_route).
// Passwords are kept under the master key and handed out only to the agent they are asked for,
// encrypted under the key the agent-side module decrypts them with.
#pragma once

#include "host/http/server.h"
#include "programs/server/db.h"
#include "programs/server/keys.h"
#include "programs/server/master_key.h"

namespace brimlet_server {

class CVM_Registry {
 public:
  CVM_Registry(Database& db, Access_Keys& keys, const Master_Key& master)
      : db_(db), keys_(keys), master_(master) {}
  void add_routes(HTTP_Server& server);

 private:
  void create_i(const HTTP_Server_Request& req, const Caller& caller, HTTP_Server_Response& resp);
  void get_i(const HTTP_Server_Request& req, const Caller& caller, HTTP_Server_Response& resp);
  void remove_i(const HTTP_Server_Request& req, const Caller& caller, HTTP_Server_Response& resp);

  Database& db_;
  Access_Keys& keys_;
  const Master_Key& master_;
};

}  // namespace brimlet_server
