// Storage pools and the backup catalog (routes described in host/catalog/server_api.h).
#pragma once

#include "host/http/server.h"
#include "programs/server/db.h"
#include "programs/server/keys.h"

namespace brimlet_server {

class Storage_Pools {
 public:
  Storage_Pools(Database& db, Access_Keys& keys) : db_(db), keys_(keys) {}
  void add_routes(HTTP_Server& server);

 private:
  void register_i(const HTTP_Server_Request& req, const Caller& caller, HTTP_Server_Response& resp);
  void get_i(const HTTP_Server_Request& req, const Caller& caller, HTTP_Server_Response& resp);

  Database& db_;
  Access_Keys& keys_;
};

class Catalog {
 public:
  Catalog(Database& db, Access_Keys& keys) : db_(db), keys_(keys) {}
  void add_routes(HTTP_Server& server);

 private:
  void commit_i(const HTTP_Server_Request& req, const Caller& caller, HTTP_Server_Response& resp);
  void view_i(const HTTP_Server_Request& req, const Caller& caller, HTTP_Server_Response& resp);
  void base_catalog_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp);
  void restore_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp);
  void sets_i(const HTTP_Server_Request& req, const Caller& caller, HTTP_Server_Response& resp);

  Database& db_;
  Access_Keys& keys_;
};

}  // namespace brimlet_server
