// The one HTTP server of the agent, the backup server and the simulator: a pool of threads,
// routes by method and path, optional TLS, bounded request sizes. Beast lives in server.cc only.
#pragma once

#include "host/core/json.h"
#include "host/http/http.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

struct HTTP_Server_Request {
  HTTP_Method method = HTTP_Method::UNKNOWN;
  std::string method_text;  // as received
  std::string target;       // path and query as received
  std::string path;         // decoded path without the query
  std::map<std::string, std::string> query;
  HTTP_Headers headers;
  std::string body;
  std::string remote;  // "address:port" of the peer
  bool tls = false;
};

struct HTTP_Server_Response {
  int status = 200;
  HTTP_Headers headers;
  std::string body;
  // Sets the body to the serialised value and the content type to application/json.
  void json(const JSON_Value& value, int status = 200);
  // {"error": message} with the status.
  void error(int status, const std::string& message);
};

// A handler runs on a pool thread and may block; it fills the response.
using HTTP_Handler = std::function<void(const HTTP_Server_Request&, HTTP_Server_Response&)>;

class HTTP_Server {
 public:
  struct Options {
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;  // 0: any free port, see port()
    int threads = 8;         // handlers that can run at once
    std::string tls_cert;    // PEM files; both set: HTTPS
    std::string tls_key;
    std::size_t max_body_bytes = 16u << 20;  // larger requests get 413
    int io_timeout = 60;                     // seconds to read a request or write an answer
  };

  HTTP_Server();
  ~HTTP_Server();
  HTTP_Server(const HTTP_Server&) = delete;
  HTTP_Server& operator=(const HTTP_Server&) = delete;

  // Exact path. Method UNKNOWN matches any method. Register routes before start().
  void route(HTTP_Method method, const std::string& path, HTTP_Handler handler);
  // Any path that starts with `prefix`; the longest matching prefix wins over shorter ones,
  // and an exact route wins over any prefix.
  void route_prefix(HTTP_Method method, const std::string& prefix, HTTP_Handler handler);

  // Binds and starts serving. False after one log line (address in use, bad TLS files).
  bool start(const Options& options);
  // The bound port (after start).
  std::uint16_t port() const;
  // Stops accepting, closes connections, waits for running handlers. Idempotent.
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Writes {"host":..., "port":..., <extra members>} to `path` atomically, for whoever started the
// program and waits for it to listen (port 0 picks a free port).
bool write_ready_file(const std::string& path, const JSON_Value& ports);
