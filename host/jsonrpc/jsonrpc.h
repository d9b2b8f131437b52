// JSON-RPC 2.0: messages, the channel a reply goes back on, and handlers.
#pragma once

#include "host/core/json.h"

#include <memory>
#include <string>

enum JSON_RPC_Error_Code {
  JSON_RPC_PARSE_ERROR = -32700,
  JSON_RPC_INVALID_REQUEST = -32600,
  JSON_RPC_METHOD_NOT_FOUND = -32601,
  JSON_RPC_INVALID_PARAMS = -32602,
  JSON_RPC_INTERNAL_ERROR = -32603,
};

class JSON_RPC_Object {
 public:
  virtual ~JSON_RPC_Object() = default;
  virtual bool is_request() const = 0;
  const JSON_Value& id() const { return id_; }
  void set_id(JSON_Value id) { id_ = std::move(id); }
  virtual JSON_Value to_json() const = 0;

 protected:
  JSON_Value id_;
};

class JSON_RPC_Request : public JSON_RPC_Object {
 public:
  JSON_RPC_Request() = default;
  JSON_RPC_Request(std::string method, JSON_Value params, JSON_Value id);
  bool is_request() const override { return true; }
  // A request without "id" expects no answer.
  bool is_notification() const { return !has_id_; }
  const std::string& method() const { return method_; }
  const JSON_Value& params() const { return params_; }
  JSON_Value to_json() const override;

 private:
  friend std::shared_ptr<JSON_RPC_Object> parse_json_rpc(const JSON_Value&, int&, std::string&);
  std::string method_;
  JSON_Value params_;
  bool has_id_ = true;
};

class JSON_RPC_Response : public JSON_RPC_Object {
 public:
  JSON_RPC_Response() = default;
  explicit JSON_RPC_Response(JSON_Value id) { id_ = std::move(id); }
  bool is_request() const override { return false; }
  bool is_error() const { return is_error_; }
  const JSON_Value& result() const { return result_; }
  JSON_Value& result() { return result_; }
  void set_result(JSON_Value result);
  // {"code", "message", "data"}
  const JSON_Value& error() const { return error_; }
  void set_error(int code, const std::string& message, JSON_Value data = nullptr);
  JSON_Value to_json() const override;

 private:
  friend std::shared_ptr<JSON_RPC_Object> parse_json_rpc(const JSON_Value&, int&, std::string&);
  bool is_error_ = false;
  JSON_Value result_;
  JSON_Value error_;
};

// One JSON-RPC 2.0 message (request or response). Null with `code` -32600 and a message for
// anything that is not one; batches are refused the same way.
std::shared_ptr<JSON_RPC_Object> parse_json_rpc(const JSON_Value& value, int& code,
                                                std::string& message);

// Where the answer to one request goes: an HTTP exchange or a framed socket.
class JSON_RPC_Channel {
 public:
  virtual ~JSON_RPC_Channel() = default;
  // Sends a message; 0 on success, -1 when it could not be sent (the requester has gone).
  virtual int send(const JSON_RPC_Object& obj) = 0;
  // The handler has finished with this request, answered or not.
  virtual void done() {}
  int send_error(int code, const JSON_Value& id, const char* message,
                 const JSON_Value& data = nullptr);
  // The response object for `req` (its id copied); null with errno ENOMEM when it cannot be made.
  static std::shared_ptr<JSON_RPC_Response> create_response(const JSON_RPC_Request& req);
};

// Handlers are owned by std::shared_ptr (the router, a module's factory wrapper), so a request
// still running on a worker thread can keep its handler alive.
class JSON_RPC_Handler : public std::enable_shared_from_this<JSON_RPC_Handler> {
 public:
  virtual ~JSON_RPC_Handler() = default;
  // Handles one message routed to this handler: the result of the channel's send, or -1 when
  // nothing could be sent.
  virtual int handle_object(std::shared_ptr<JSON_RPC_Channel> channel,
                            std::shared_ptr<JSON_RPC_Object> obj) = 0;
};

// A handler whose requests run on a worker thread of a process-wide pool. While a request waits
// for a thread the channel is held weakly: if the requester has gone by then, handle_object_i
// receives a null channel.
class JSON_RPC_Thread_Handler : public JSON_RPC_Handler {
 public:
  int handle_object(std::shared_ptr<JSON_RPC_Channel> channel,
                    std::shared_ptr<JSON_RPC_Object> obj) final;

 protected:
  virtual int handle_object_i(std::shared_ptr<JSON_RPC_Channel> channel,
                              std::shared_ptr<JSON_RPC_Object> obj) = 0;
};

// What a handler checks first: `obj` as the request to answer on `chn`, or null after one log line
// when it is not a request or the requester has gone.
const JSON_RPC_Request* answerable_request(const std::shared_ptr<JSON_RPC_Channel>& chn,
                                           const std::shared_ptr<JSON_RPC_Object>& obj);

// Size of the worker pool behind JSON_RPC_Thread_Handler (default 16); set before first use.
void set_json_rpc_worker_threads(int threads);
// Finishes queued requests and joins the workers; call before unloading handler code.
void stop_json_rpc_workers();
