#include "programs/server/handler.h"

#include "host/core/log.h"

#include <exception>
#include <utility>

namespace brimlet_server {

namespace {

const char* role_name(unsigned roles) {
  return roles == admin_role ? "admin" : "agent";
}

void dispatch(Access_Keys& keys, const std::vector<Method_Handler>& methods,
              const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  try {
    Caller caller;
    if (!keys.authenticate(req, resp, caller))
      return;
    for (const auto& m : methods)
      if (m.method == req.method) {
        if (permitted(req, caller, m.roles, m.action, resp))
          m.run(req, caller, resp);
        return;
      }
    std::string allow;
    for (const auto& m : methods)
      allow += (allow.empty() ? "" : ", ") + std::string(http_method_string(m.method));
    resp.error(405, "method not allowed");
    resp.headers.put("Allow", allow);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Failed to answer %s '%s': %s.\n", req.method_text.c_str(), req.path.c_str(),
             e.what()));
    resp.headers.reset();
    resp.error(500, "internal error");
  }
}

}  // namespace

void add_route(HTTP_Server& server, Access_Keys& keys, const std::string& path, bool prefix,
               std::vector<Method_Handler> methods) {
  HTTP_Handler h = [&keys, methods = std::move(methods)](const HTTP_Server_Request& req,
                                                         HTTP_Server_Response& resp) {
    dispatch(keys, methods, req, resp);
  };
  if (prefix)
    server.route_prefix(HTTP_Method::UNKNOWN, path, std::move(h));
  else
    server.route(HTTP_Method::UNKNOWN, path, std::move(h));
}

bool permitted(const HTTP_Server_Request& req, const Caller& caller, unsigned roles,
               const char* action, HTTP_Server_Response& resp) {
  if ((caller.role == "agent" && (roles & agent_role)) ||
      (caller.role == "admin" && (roles & admin_role)))
    return true;
  LOG_MSG((LM_WARNING, "Refused %s '%s' from '%s': host '%s' has an %s key.\n",
           req.method_text.c_str(), req.path.c_str(), req.remote.c_str(), caller.host_id.c_str(),
           caller.role.c_str()));
  resp.error(403, std::string(action) + " needs an " + role_name(roles) + " key");
  return false;
}

const std::string* query_param(const HTTP_Server_Request& req, const char* key) {
  auto it = req.query.find(key);
  return it == req.query.end() ? nullptr : &it->second;
}

bool require_query(const HTTP_Server_Request& req, std::initializer_list<const char*> keys,
                   HTTP_Server_Response& resp) {
  bool complete = true;
  for (const char* k : keys)
    complete = complete && query_param(req, k);
  if (complete)
    return true;
  if (keys.size() == 1) {
    resp.error(400, "missing query key '" + std::string(*keys.begin()) + "'");
    return false;
  }
  std::string names;
  std::size_t i = 0;
  for (const char* k : keys) {
    names += i == 0 ? "'" : i + 1 == keys.size() ? " and '" : ", '";
    names += k + std::string("'");
    ++i;
  }
  resp.error(400, names + " are required");
  return false;
}

bool parse_object(const HTTP_Server_Request& req, HTTP_Server_Response& resp, JSON_Value& out) {
  out = JSON_Value::parse(req.body, nullptr, false);
  if (out.is_object())
    return true;
  resp.error(400, "a JSON object body is expected");
  return false;
}

Request_DB::Request_DB(Database& db, HTTP_Server_Response& resp, Mode mode)
    : resp_(resp), lease_(db.acquire()) {
  if (!lease_) {
    resp_.error(500, "database unavailable");
    return;
  }
  ok_ = mode == autocommit || tx_.emplace(*lease_).ok();
  if (!ok_)
    fail();
}

void Request_DB::fail() const {
  resp_.error(500, "database failure");
}

}  // namespace brimlet_server
