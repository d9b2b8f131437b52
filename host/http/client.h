// HTTP clients: one keep-alive connection (TCP or TLS) per session, a JSON layer over it, and
// the REST clients built on that. The transport lives in client.cc only.
#pragma once

#include "host/core/json.h"
#include "host/http/http.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

struct ssl_ctx_st;

// One connection to one server, opened on the first send and re-opened when the server closed
// it. Not for concurrent use: one thread at a time.
//
// What every implementation of send() must do, because the JSON layer and the REST clients rely
// on it (a session that breaks a call on purpose included):
//   - start by clearing `resp`;
//   - send the session's headers() with the request, except those the request itself carries;
//   - true: an answer arrived, whatever its status; `resp` holds status, every header field as
//     received (repeats kept) and the body (empty for HEAD);
//   - false: no usable answer (connect, TLS, time-out, protocol, size limit, invalid request).
//     Exactly one error line names the method, the target and "host:port" and never a header
//     value or the body, which may hold secrets; `resp` is left cleared (status 0, no headers).
//     The caller decides whether to send again: JSON_HTTP_Session does so for idempotent
//     methods only.
class HTTP_Session {
 public:
  virtual ~HTTP_Session() = default;
  // Fields sent with every request of this session (the request's own fields win).
  HTTP_Headers& headers() { return headers_; }
  // Sends one request and reads the whole answer into `resp`; see above.
  virtual bool send(const HTTP_Request& req, const std::string* body, HTTP_Response& resp) = 0;
  virtual const std::string& host() const = 0;
  virtual std::uint16_t port() const = 0;

 protected:
  HTTP_Headers headers_;
};

// Forwards every call to another session. A test derives from it and overrides only the call it
// breaks (fail the Nth send, answer a status of its own), so the rest is the real transport. An
// override that fails a send keeps the contract above: clear `resp`, log one line, return false.
// Fields put in the wrapper's own headers() are copied into the target's before each request, so
// they reach the wire exactly as if they had been set on the target.
class HTTP_Session_Wrapper : public HTTP_Session {
 public:
  explicit HTTP_Session_Wrapper(std::shared_ptr<HTTP_Session> target)
      : target_(std::move(target)) {}
  bool send(const HTTP_Request& req, const std::string* body, HTTP_Response& resp) override {
    for (const auto& [name, value] : headers_.fields())
      target_->headers().put(name, value);
    return target_->send(req, body, resp);
  }
  const std::string& host() const override { return target_->host(); }
  std::uint16_t port() const override { return target_->port(); }
  HTTP_Session& target() { return *target_; }

 private:
  std::shared_ptr<HTTP_Session> target_;
};

class HTTP_Session_Factory {
 public:
  // The connection is made by the first send, so an unreachable server shows as a failed send.
  //   local_address: bind before connecting (null: any)
  //   connect_attempts: tries per connect
  //   tls: a context to use (null: a default one; peer verification per verify_peer)
  //   connect_timeout, io_timeout: seconds
  //   max_response_bytes: 0 means 256 MiB
  // Null after one log line when the session cannot be set up (bad TLS setup).
  static std::shared_ptr<HTTP_Session> create(const std::string& host, std::uint16_t port, bool ssl,
                                              const char* local_address = nullptr,
                                              int connect_attempts = 3, ssl_ctx_st* tls = nullptr,
                                              bool verify_peer = false, int connect_timeout = 120,
                                              int io_timeout = 120,
                                              std::size_t max_response_bytes = 0, int reserved = 0);
};

// JSON requests over a session. Each call returns true when an answer arrived (any status);
// `out`, when given, holds the parsed body (null for an empty or non-JSON body).
class JSON_HTTP_Session {
 public:
  // attempts: sends of one request when the connection fails before an answer (idempotent
  // methods only); timeout: seconds one request may take.
  JSON_HTTP_Session(std::shared_ptr<HTTP_Session> session, int attempts, int timeout);
  bool get(const HTTP_Request& req, HTTP_Response& resp, JSON_Value* out);
  bool del(const HTTP_Request& req, HTTP_Response& resp, JSON_Value* out);
  bool post(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp, JSON_Value* out);
  bool put(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp, JSON_Value* out);
  bool send(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp, JSON_Value* out);
  HTTP_Session& session() { return *session_; }

 private:
  std::shared_ptr<HTTP_Session> session_;
  int attempts_;
  int timeout_;
};

// A REST client over a JSON session: true only for a 2xx answer. On any other answer `resp`
// keeps status and headers for the caller; a 2xx body that is not JSON is a failure.
class JSON_RESTful_Client {
 public:
  // `flags` is kept for callers written against the agent framework's signature; none is defined.
  explicit JSON_RESTful_Client(int flags = 0) {}
  void reset(std::shared_ptr<JSON_HTTP_Session> session) { session_ = std::move(session); }
  bool get(const HTTP_Request& req, HTTP_Response& resp, JSON_Value* out);
  bool del(const HTTP_Request& req, HTTP_Response& resp, JSON_Value* out);
  bool post(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp, JSON_Value* out);
  bool put(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp, JSON_Value* out);

 private:
  bool finish(bool sent, const HTTP_Request& req, HTTP_Response& resp);
  std::shared_ptr<JSON_HTTP_Session> session_;
};

// The authenticated client to the backup server this agent belongs to; every request carries
// the access key (server_api::access_key_header). Safe for concurrent use (one connection per
// call).
class Upstream_JSON_RESTful_Client {
 public:
  static Upstream_JSON_RESTful_Client* instance();
  void configure(const std::string& host, std::uint16_t port, bool ssl,
                 const std::string& access_key);
  // configure() with the server and key apply_agent_identity() has set (WebSocket_Options and
  // Host_Manager); the agent and the CLI call it after that.
  void configure_from_identity();
  // True for a 2xx answer with a JSON (or empty: null) body; false after one log line.
  bool get(HTTP_Request& req, JSON_Value& response);
  bool post(HTTP_Request& req, const JSON_Value& body, JSON_Value& response);
  bool put(HTTP_Request& req, const JSON_Value& body, JSON_Value& response);
  bool del(HTTP_Request& req, JSON_Value& response);
  // As above, but every answer counts; `resp` tells the status.
  bool send(HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp, JSON_Value& out);

 private:
  std::mutex mutex_;
  std::string host_;
  std::uint16_t port_ = 0;
  bool ssl_ = false;
  std::string access_key_;
};
