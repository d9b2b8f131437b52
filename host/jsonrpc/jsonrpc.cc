#include "host/jsonrpc/jsonrpc.h"

#include "host/core/log.h"

#include "host/core/worker_pool.h"

#include <malloc.h>

#include <cerrno>
#include <mutex>
#include <new>

JSON_RPC_Request::JSON_RPC_Request(std::string method, JSON_Value params, JSON_Value id)
    : method_(std::move(method)), params_(std::move(params)) {
  id_ = std::move(id);
}

JSON_Value JSON_RPC_Request::to_json() const {
  JSON_Value v = {{"jsonrpc", "2.0"}, {"method", method_}};
  if (!params_.is_null())
    v["params"] = params_;
  if (has_id_)
    v["id"] = id_;
  return v;
}

void JSON_RPC_Response::set_result(JSON_Value result) {
  is_error_ = false;
  result_ = std::move(result);
  error_ = nullptr;
}

void JSON_RPC_Response::set_error(int code, const std::string& message, JSON_Value data) {
  is_error_ = true;
  result_ = nullptr;
  error_ = {{"code", code}, {"message", message}, {"data", std::move(data)}};
}

JSON_Value JSON_RPC_Response::to_json() const {
  JSON_Value v = {{"jsonrpc", "2.0"}, {"id", id_}};
  if (is_error_)
    v["error"] = error_;
  else
    v["result"] = result_;
  return v;
}

std::shared_ptr<JSON_RPC_Object> parse_json_rpc(const JSON_Value& value, int& code,
                                                std::string& message) {
  code = JSON_RPC_INVALID_REQUEST;
  if (value.is_array()) {
    message = "Batch requests are not supported.";
    return nullptr;
  }
  if (!value.is_object()) {
    message = "A JSON-RPC message must be an object.";
    return nullptr;
  }
  auto version = value.find("jsonrpc");
  if (version == value.end() || *version != "2.0") {
    message = "Member 'jsonrpc' must be \"2.0\".";
    return nullptr;
  }
  auto id = value.find("id");
  if (id != value.end() && !id->is_string() && !id->is_number() && !id->is_null()) {
    message = "Member 'id' must be a string, a number or null.";
    return nullptr;
  }
  auto method = value.find("method");
  if (method != value.end()) {
    if (!method->is_string()) {
      message = "Member 'method' must be a string.";
      return nullptr;
    }
    auto params = value.find("params");
    if (params != value.end() && !params->is_object() && !params->is_array()) {
      message = "Member 'params' must be an object or an array.";
      return nullptr;
    }
    auto req = std::make_shared<JSON_RPC_Request>();
    req->method_ = method->get<std::string>();
    if (params != value.end())
      req->params_ = *params;
    req->has_id_ = id != value.end();
    if (req->has_id_)
      req->id_ = *id;
    return req;
  }
  auto result = value.find("result");
  auto error = value.find("error");
  if ((result == value.end()) == (error == value.end()) || id == value.end()) {
    message = "Neither a request nor a response.";
    return nullptr;
  }
  auto resp = std::make_shared<JSON_RPC_Response>(*id);
  if (result != value.end()) {
    resp->result_ = *result;
  } else {
    if (!error->is_object() || !error->contains("code") || !(*error)["code"].is_number_integer()) {
      message = "Member 'error' must be an object with an integer 'code'.";
      return nullptr;
    }
    resp->is_error_ = true;
    resp->error_ = *error;
  }
  return resp;
}

int JSON_RPC_Channel::send_error(int code, const JSON_Value& id, const char* message,
                                 const JSON_Value& data) {
  JSON_RPC_Response resp(id);
  resp.set_error(code, message, data);
  return send(resp);
}

std::shared_ptr<JSON_RPC_Response> JSON_RPC_Channel::create_response(const JSON_RPC_Request& req) {
  try {
    return std::make_shared<JSON_RPC_Response>(req.id());
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

namespace {

std::mutex pool_mutex;
int pool_threads = 16;
std::unique_ptr<Worker_Pool> pool;

Worker_Pool& worker_pool() {
  std::lock_guard<std::mutex> lock(pool_mutex);
  if (!pool)
    pool = std::make_unique<Worker_Pool>(pool_threads);
  return *pool;
}

}  // namespace

void set_json_rpc_worker_threads(int threads) {
  std::lock_guard<std::mutex> lock(pool_mutex);
  pool_threads = threads > 0 ? threads : 1;
}

void stop_json_rpc_workers() {
  std::unique_ptr<Worker_Pool> p;
  {
    std::lock_guard<std::mutex> lock(pool_mutex);
    p = std::move(pool);
  }
  p.reset();
}

const JSON_RPC_Request* answerable_request(const std::shared_ptr<JSON_RPC_Channel>& chn,
                                           const std::shared_ptr<JSON_RPC_Object>& obj) {
  if (!obj || !obj->is_request()) {
    LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, obj is not JSON-RPC request!\n"));
    return nullptr;
  }
  if (!chn) {
    LOG_MSG((LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n"));
    return nullptr;
  }
  return static_cast<const JSON_RPC_Request*>(obj.get());
}

int JSON_RPC_Thread_Handler::handle_object(std::shared_ptr<JSON_RPC_Channel> channel,
                                           std::shared_ptr<JSON_RPC_Object> obj) {
  std::weak_ptr<JSON_RPC_Channel> weak = channel;
  channel.reset();
  // Holds the handler while the request runs, when it is shared-owned (it normally is).
  auto self = weak_from_this().lock();
  bool queued = worker_pool().post([this, self, weak, obj] {
    auto chn = weak.lock();
    try {
      handle_object_i(chn, obj);
    } catch (const std::exception& e) {
      LOG_MSG((LM_ERROR, "JSON-RPC handler failed: %s.\n", e.what()));
      if (chn && obj && obj->is_request())
        chn->send_error(JSON_RPC_INTERNAL_ERROR, obj->id(), "Internal error.");
    }
    if (chn)
      chn->done();
    // Each worker allocates from its own malloc arena, which keeps what a large answer freed;
    // handing it back keeps the daemon's size near that of the requests in flight.
    malloc_trim(0);
  });
  if (!queued) {
    LOG_MSG((LM_ERROR, "JSON-RPC workers are stopping, request dropped.\n"));
    return -1;
  }
  return 0;
}
