// Routes JSON-RPC methods to handlers and serves them over HTTP POST.
#pragma once

#include "host/jsonrpc/jsonrpc.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

class HTTP_Server;
struct HTTP_Server_Request;

class JSON_RPC_Router {
 public:
  void add(const std::string& method, std::shared_ptr<JSON_RPC_Handler> handler);
  // Null when no handler serves the method.
  std::shared_ptr<JSON_RPC_Handler> find(const std::string& method) const;
  // Drops every handler (their objects are destroyed when no request holds them).
  void clear();

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<JSON_RPC_Handler>> handlers_;
};

// Serves `router` on POST `path`: a JSON-RPC request in the body, its answer in the reply.
// Parse errors (-32700), invalid requests (-32600) and unknown methods (-32601) are answered here;
// a handler that has not answered within `timeout` seconds gets -32603 "Request timed out.".
// Notifications are answered with 204 once handled. A request that `authorize` (when given)
// refuses gets 401 and reaches no handler.
using HTTP_Authorizer = std::function<bool(const HTTP_Server_Request&)>;
void serve_json_rpc(HTTP_Server& server, const std::string& path,
                    std::shared_ptr<JSON_RPC_Router> router, int timeout,
                    HTTP_Authorizer authorize = nullptr);
