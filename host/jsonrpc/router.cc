#include "host/jsonrpc/router.h"

#include "host/core/log.h"
#include "host/http/server.h"

#include <chrono>
#include <condition_variable>

void JSON_RPC_Router::add(const std::string& method, std::shared_ptr<JSON_RPC_Handler> handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handlers_[method] = std::move(handler);
}

std::shared_ptr<JSON_RPC_Handler> JSON_RPC_Router::find(const std::string& method) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = handlers_.find(method);
  return it == handlers_.end() ? nullptr : it->second;
}

void JSON_RPC_Router::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  handlers_.clear();
}

namespace {

// The answer to one HTTP exchange: the handler sends at most once; the HTTP thread waits for it.
class HTTP_Exchange_Channel : public JSON_RPC_Channel {
 public:
  int send(const JSON_RPC_Object& obj) override {
    std::string text = obj.to_json().dump();
    std::lock_guard<std::mutex> lock(mutex_);
    if (finished_)
      return -1;
    reply_ = std::move(text);
    finished_ = true;
    cv_.notify_all();
    return 0;
  }

  void done() override {
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
    cv_.notify_all();
  }

  // The reply (empty when the handler finished without one); false on time-out, after which
  // the handler's late answer is refused.
  bool wait(int timeout, std::string& reply) {
    std::unique_lock<std::mutex> lock(mutex_);
    bool ok = cv_.wait_for(lock, std::chrono::seconds(timeout), [this] { return finished_; });
    finished_ = true;
    reply = std::move(reply_);
    return ok;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool finished_ = false;
  std::string reply_;
};

void answer_error(HTTP_Server_Response& resp, int code, const JSON_Value& id,
                  const std::string& message) {
  JSON_RPC_Response r(id);
  r.set_error(code, message);
  resp.json(r.to_json());
}

}  // namespace

void serve_json_rpc(HTTP_Server& server, const std::string& path,
                    std::shared_ptr<JSON_RPC_Router> router, int timeout,
                    HTTP_Authorizer authorize) {
  server.route(
      HTTP_Method::POST, path,
      [router, timeout, authorize](const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
        if (authorize && !authorize(req)) {
          resp.error(401, "unknown access key");
          return;
        }
        JSON_Value body = JSON_Value::parse(req.body, nullptr, false);
        if (body.is_discarded()) {
          answer_error(resp, JSON_RPC_PARSE_ERROR, nullptr, "Parse error.");
          return;
        }
        int code = 0;
        std::string message;
        auto obj = parse_json_rpc(body, code, message);
        if (!obj || !obj->is_request()) {
          answer_error(resp, JSON_RPC_INVALID_REQUEST, obj ? obj->id() : JSON_Value(),
                       obj ? "Expected a request." : message);
          return;
        }
        auto& request = static_cast<JSON_RPC_Request&>(*obj);
        auto handler = router->find(request.method());
        if (!handler) {
          answer_error(resp, JSON_RPC_METHOD_NOT_FOUND, request.id(),
                       "Method '" + request.method() + "' not found.");
          return;
        }
        auto channel = std::make_shared<HTTP_Exchange_Channel>();
        if (handler->handle_object(channel, obj) < 0)
          channel->done();
        std::string reply;
        if (!channel->wait(timeout, reply)) {
          LOG_MSG((LM_ERROR, "JSON-RPC method '%s' did not answer within %d seconds.\n",
                   request.method().c_str(), timeout));
          answer_error(resp, JSON_RPC_INTERNAL_ERROR, request.id(), "Request timed out.");
          return;
        }
        if (reply.empty()) {
          if (request.is_notification()) {
            resp.status = 204;
          } else {
            answer_error(resp, JSON_RPC_INTERNAL_ERROR, request.id(),
                         "No answer from the handler.");
          }
          return;
        }
        resp.body = std::move(reply);
        resp.headers.put("Content-Type", "application/json");
      });
}
