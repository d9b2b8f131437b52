// What the server's route handlers share: the access check with the roles a method admits, query
// parameters, JSON bodies, and the database side of one request.
#pragma once

#include "host/http/server.h"
#include "programs/server/db.h"
#include "programs/server/keys.h"

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace brimlet_server {

// The roles a method admits, as a set of bits.
enum Roles : unsigned { agent_role = 1, admin_role = 2, any_role = agent_role | admin_role };

using Route_Handler =
    std::function<void(const HTTP_Server_Request&, const Caller&, HTTP_Server_Response&)>;

// A handler that calls a member function of `object`.
template <typename T>
Route_Handler member(T* object, void (T::*function)(const HTTP_Server_Request&, const Caller&,
                                                    HTTP_Server_Response&)) {
  return [object, function](const HTTP_Server_Request& req, const Caller& caller,
                            HTTP_Server_Response& resp) { (object->*function)(req, caller, resp); };
}

// One method of a route.
struct Method_Handler {
  HTTP_Method method;
  unsigned roles;
  // What the method does, as the refusal of another role names it ("registering storage pools").
  const char* action;
  Route_Handler run;
};

// Serves `path` (every path below it when `prefix`) with `methods`, in this order of checks: 401
// for a missing or unknown access key, 405 (with "Allow") for another method, 403 for a key whose
// role the method does not admit. An exception a handler lets out is logged and answered 500.
void add_route(HTTP_Server& server, Access_Keys& keys, const std::string& path, bool prefix,
               std::vector<Method_Handler> methods);

// Answers 403 {"error": "<action> needs an <role> key"} unless `caller` has one of `roles`;
// for checks that depend on more than the method.
bool permitted(const HTTP_Server_Request& req, const Caller& caller, unsigned roles,
               const char* action, HTTP_Server_Response& resp);

// The value of query parameter `key`; null when absent.
const std::string* query_param(const HTTP_Server_Request& req, const char* key);
// True when every key is in the query; otherwise answers 400 naming them.
bool require_query(const HTTP_Server_Request& req, std::initializer_list<const char*> keys,
                   HTTP_Server_Response& resp);

// The body as a JSON object; otherwise false with a 400 answer.
bool parse_object(const HTTP_Server_Request& req, HTTP_Server_Response& resp, JSON_Value& out);

// The database side of one request: a connection of its own and, when asked, a transaction
// holding the write lock from the start (so that a check and the write after it are atomic).
// Each failure answers 500 once; its cause is logged where it was found.
class Request_DB {
 public:
  // autocommit: each statement stands alone.
  enum Mode { autocommit, transaction };
  // Check the result with `operator bool` before use.
  Request_DB(Database& db, HTTP_Server_Response& resp, Mode mode);
  Request_DB(const Request_DB&) = delete;
  Request_DB& operator=(const Request_DB&) = delete;

  // False when no connection or transaction could be had: 500 answered already.
  explicit operator bool() const { return ok_; }
  Connection& operator*() const { return *lease_; }
  Connection* operator->() const { return lease_.operator->(); }

  // Answers 500 for a statement that failed.
  void fail() const;
  // Commits the transaction; false when that failed (nothing answered yet).
  bool commit() { return tx_ && tx_->commit(); }

 private:
  HTTP_Server_Response& resp_;
  Database::Lease lease_;
  std::optional<Transaction> tx_;
  bool ok_ = false;
};

}  // namespace brimlet_server
