// The HTTP clients on Beast. Blocking calls of a Beast stream ignore its time-outs, so every
// operation is started asynchronously on the session's own io_context and run to completion.
#include "host/http/client.h"

#include "host/catalog/server_api.h"
#include "host/core/identity.h"
#include "host/core/log.h"

#include <openssl/ssl.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <chrono>
#include <optional>
#include <thread>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;
using Clock = std::chrono::steady_clock;

constexpr std::size_t default_max_response_bytes = 256u << 20;
constexpr std::uint32_t max_header_bytes = 64u << 10;
constexpr int upstream_attempts = 3;
constexpr int upstream_timeout = 120;

struct Session_Settings {
  std::string host;
  std::uint16_t port = 0;
  std::optional<asio::ip::address> local_address;
  int connect_attempts = 1;
  bool verify_peer = false;
  int connect_timeout = 0;
  int io_timeout = 0;
  std::size_t max_response_bytes = default_max_response_bytes;
};

// The target goes on the request line as it is: a space or a control character would split it.
bool valid_target(const std::string& target) {
  if (target.empty() || target[0] != '/')
    return false;
  for (unsigned char c : target) {
    if (c <= 0x20 || c == 0x7f)
      return false;
  }
  return true;
}

// What a server that dropped an idle kept-alive connection looks like to the next request.
bool closed_by_peer(const error_code& ec) {
  return ec == http::error::end_of_stream || ec == asio::error::eof ||
         ec == asio::error::connection_reset || ec == asio::error::broken_pipe ||
         ec == asio::error::connection_aborted || ec == asio::ssl::error::stream_truncated;
}

bool is_ip_literal(const std::string& host) {
  error_code ec;
  asio::ip::make_address(host, ec);
  return !ec;
}

bool blank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

bool success(int status) {
  return status >= 200 && status <= 299;
}

class Beast_HTTP_Session final : public HTTP_Session {
 public:
  Beast_HTTP_Session(Session_Settings settings, std::shared_ptr<asio::ssl::context> tls)
      : settings_(std::move(settings)), tls_(std::move(tls)) {}

  bool send(const HTTP_Request& req, const std::string* body, HTTP_Response& resp) override;
  const std::string& host() const override { return settings_.host; }
  std::uint16_t port() const override { return settings_.port; }

  // Bounds every operation until reset to time_point::max().
  void set_deadline(Clock::time_point deadline) { deadline_ = deadline; }

 private:
  using Request = http::request<http::string_body>;

  beast::tcp_stream& tcp() {
    return tls_stream_ ? beast::get_lowest_layer(*tls_stream_) : *tcp_stream_;
  }
  bool connected() const { return tcp_stream_ || tls_stream_; }

  // Starts one asynchronous operation and runs the io_context until it completes.
  template <class Start>
  error_code run_i(Start&& start) {
    error_code result = asio::error::would_block;
    start([&result](error_code ec, auto&&...) { result = ec; });
    ioc_.restart();
    ioc_.run();
    return result;
  }

  void arm_i(Clock::time_point expiry) {
    expiry = std::min(expiry, deadline_);
    if (expiry == Clock::time_point::max()) {
      tcp().expires_never();
    } else {
      tcp().expires_at(expiry);
    }
  }
  Clock::time_point after_i(int seconds) const {
    return seconds > 0 ? Clock::now() + std::chrono::seconds(seconds) : Clock::time_point::max();
  }

  bool connect_i();
  error_code connect_tcp_i(const tcp::resolver::results_type& endpoints);
  error_code exchange_i(Request& msg, bool head, HTTP_Response& resp, bool& answered_any);
  void disconnect_i();
  std::string host_field_i() const;

  Session_Settings settings_;
  std::shared_ptr<asio::ssl::context> tls_;  // null for plain TCP
  asio::io_context ioc_;
  std::unique_ptr<beast::tcp_stream> tcp_stream_;
  std::unique_ptr<beast::ssl_stream<beast::tcp_stream>> tls_stream_;
  beast::flat_buffer buffer_;
  Clock::time_point deadline_ = Clock::time_point::max();
};

bool Beast_HTTP_Session::send(const HTTP_Request& req, const std::string* body,
                              HTTP_Response& resp) {
  resp.clear();
  const std::string target = req.uri();
  const char* method = http_method_string(req.method());
  if (req.method() == HTTP_Method::UNKNOWN || !valid_target(target)) {
    LOG_MSG((LM_ERROR, "Refused to send a %s request to '%s:%u': invalid method or target.\n",
             method, settings_.host.c_str(), static_cast<unsigned>(settings_.port)));
    return false;
  }

  Request msg;
  msg.method_string(method);
  msg.target(target);
  msg.version(11);
  for (const auto& [name, value] : headers_.fields()) {
    if (!req.headers().get(name))
      msg.insert(name, value);
  }
  for (const auto& [name, value] : req.headers().fields())
    msg.insert(name, value);
  if (msg.find(http::field::host) == msg.end())
    msg.set(http::field::host, host_field_i());
  if (msg.find(http::field::user_agent) == msg.end())
    msg.set(http::field::user_agent, "brimlet");
  if (body)
    msg.body() = *body;
  msg.prepare_payload();

  // A kept-alive connection may have been closed by the server meanwhile: then one fresh
  // connection gets the request again.
  for (int round = 0;; ++round) {
    bool reused = connected();
    if (!reused && !connect_i())
      return false;
    bool answered_any = false;
    error_code ec = exchange_i(msg, req.method() == HTTP_Method::HEAD, resp, answered_any);
    if (!ec)
      return true;
    disconnect_i();
    resp.clear();
    if (reused && round == 0 && !answered_any && ec != beast::error::timeout &&
        closed_by_peer(ec)) {
      continue;
    }
    LOG_MSG((LM_ERROR, "Failed to send '%s %s' to '%s:%u': %s.\n", method, target.c_str(),
             settings_.host.c_str(), static_cast<unsigned>(settings_.port), ec.message().c_str()));
    return false;
  }
}

error_code Beast_HTTP_Session::exchange_i(Request& msg, bool head, HTTP_Response& resp,
                                          bool& answered_any) {
  arm_i(after_i(settings_.io_timeout));
  error_code ec = run_i([&](auto handler) {
    if (tls_stream_) {
      http::async_write(*tls_stream_, msg, std::move(handler));
    } else {
      http::async_write(*tcp_stream_, msg, std::move(handler));
    }
  });
  if (ec)
    return ec;

  http::response_parser<http::string_body> parser;
  parser.body_limit(settings_.max_response_bytes);
  parser.header_limit(max_header_bytes);
  parser.skip(head);
  // The header is read on its own: Beast 1.74 loses the body_limit error of a too large
  // Content-Length when the body arrives in the same read.
  arm_i(after_i(settings_.io_timeout));
  ec = run_i([&](auto handler) {
    if (tls_stream_) {
      http::async_read_header(*tls_stream_, buffer_, parser, std::move(handler));
    } else {
      http::async_read_header(*tcp_stream_, buffer_, parser, std::move(handler));
    }
  });
  if (!ec && !parser.is_done()) {
    ec = run_i([&](auto handler) {
      if (tls_stream_) {
        http::async_read(*tls_stream_, buffer_, parser, std::move(handler));
      } else {
        http::async_read(*tcp_stream_, buffer_, parser, std::move(handler));
      }
    });
  }
  answered_any = parser.got_some();
  if (ec)
    return ec;

  auto& answer = parser.get();
  resp.set_status(static_cast<int>(answer.result_int()));
  for (const auto& field : answer) {
    resp.headers().add(std::string(field.name_string()), std::string(field.value()));
  }
  resp.body() = std::move(answer.body());
  if (!answer.keep_alive())
    disconnect_i();
  return {};
}

bool Beast_HTTP_Session::connect_i() {
  disconnect_i();
  error_code ec;
  tcp::resolver resolver(ioc_);
  auto endpoints = resolver.resolve(settings_.host, std::to_string(settings_.port), ec);
  if (ec) {
    LOG_MSG(
        (LM_ERROR, "Failed to resolve '%s': %s.\n", settings_.host.c_str(), ec.message().c_str()));
    return false;
  }
  for (int attempt = 1;; ++attempt) {
    if (tls_) {
      tls_stream_ = std::make_unique<beast::ssl_stream<beast::tcp_stream>>(ioc_, *tls_);
    } else {
      tcp_stream_ = std::make_unique<beast::tcp_stream>(ioc_);
    }
    ec = connect_tcp_i(endpoints);
    if (!ec)
      break;
    disconnect_i();
    if (attempt >= settings_.connect_attempts || Clock::now() >= deadline_) {
      LOG_MSG((LM_ERROR, "Failed to connect to '%s:%u': %s.\n", settings_.host.c_str(),
               static_cast<unsigned>(settings_.port), ec.message().c_str()));
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
  }
  tcp().socket().set_option(tcp::no_delay(true), ec);
  if (!tls_stream_)
    return true;

  // SNI carries names only, never addresses (RFC 6066).
  if (!is_ip_literal(settings_.host)) {
    SSL_set_tlsext_host_name(tls_stream_->native_handle(), settings_.host.c_str());
  }
  if (settings_.verify_peer) {
    tls_stream_->set_verify_mode(asio::ssl::verify_peer, ec);
    if (!ec) {
      tls_stream_->set_verify_callback(asio::ssl::host_name_verification(settings_.host), ec);
    }
  } else {
    tls_stream_->set_verify_mode(asio::ssl::verify_none, ec);
  }
  if (!ec) {
    arm_i(after_i(settings_.io_timeout));
    ec = run_i([&](auto handler) {
      tls_stream_->async_handshake(asio::ssl::stream_base::client, std::move(handler));
    });
  }
  if (ec) {
    LOG_MSG((LM_ERROR, "TLS handshake with '%s:%u' failed: %s.\n", settings_.host.c_str(),
             static_cast<unsigned>(settings_.port), ec.message().c_str()));
    disconnect_i();
    return false;
  }
  return true;
}

error_code Beast_HTTP_Session::connect_tcp_i(const tcp::resolver::results_type& endpoints) {
  // One connect time-out covers all addresses of the name.
  const Clock::time_point expiry = after_i(settings_.connect_timeout);
  error_code ec = asio::error::host_not_found;
  for (const auto& entry : endpoints) {
    auto& socket = tcp().socket();
    error_code ignored;
    socket.close(ignored);
    if (settings_.local_address) {
      socket.open(entry.endpoint().protocol(), ec);
      if (!ec)
        socket.bind(tcp::endpoint(*settings_.local_address, 0), ec);
      if (ec)
        continue;
    }
    arm_i(expiry);
    ec = run_i([&](auto handler) { tcp().async_connect(entry.endpoint(), std::move(handler)); });
    if (!ec || ec == beast::error::timeout)
      break;
  }
  return ec;
}

void Beast_HTTP_Session::disconnect_i() {
  if (connected()) {
    error_code ignored;
    tcp().socket().shutdown(tcp::socket::shutdown_both, ignored);
    tcp().close();
  }
  tls_stream_.reset();
  tcp_stream_.reset();
  buffer_.consume(buffer_.size());
}

std::string Beast_HTTP_Session::host_field_i() const {
  std::string host =
      settings_.host.find(':') != std::string::npos ? "[" + settings_.host + "]" : settings_.host;
  const unsigned default_port = tls_ ? 443 : 80;
  if (settings_.port != default_port)
    host += ":" + std::to_string(settings_.port);
  return host;
}

// Puts the JSON session's per-request time limit on the sessions of this file.
class Deadline_Scope {
 public:
  Deadline_Scope(HTTP_Session& session, int timeout) : session_(transport(session)) {
    if (timeout > 0)
      deadline_ = Clock::now() + std::chrono::seconds(timeout);
    if (session_)
      session_->set_deadline(deadline_);
  }
  ~Deadline_Scope() {
    if (session_)
      session_->set_deadline(Clock::time_point::max());
  }
  Deadline_Scope(const Deadline_Scope&) = delete;
  Deadline_Scope& operator=(const Deadline_Scope&) = delete;
  bool expired() const { return Clock::now() >= deadline_; }

 private:
  // Wrappers forward to a real session, which must keep the time limit.
  static Beast_HTTP_Session* transport(HTTP_Session& session) {
    HTTP_Session* inner = &session;
    while (auto* wrapper = dynamic_cast<HTTP_Session_Wrapper*>(inner))
      inner = &wrapper->target();
    return dynamic_cast<Beast_HTTP_Session*>(inner);
  }

  Beast_HTTP_Session* session_;
  Clock::time_point deadline_ = Clock::time_point::max();
};

}  // namespace

std::shared_ptr<HTTP_Session> HTTP_Session_Factory::create(
    const std::string& host, std::uint16_t port, bool ssl, const char* local_address,
    int connect_attempts, ssl_ctx_st* tls, bool verify_peer, int connect_timeout, int io_timeout,
    std::size_t max_response_bytes, int reserved) {
  Session_Settings settings;
  settings.host = host;
  settings.port = port;
  settings.connect_attempts = connect_attempts < 1 ? 1 : connect_attempts;
  settings.verify_peer = verify_peer;
  settings.connect_timeout = connect_timeout;
  settings.io_timeout = io_timeout;
  if (max_response_bytes)
    settings.max_response_bytes = max_response_bytes;
  if (local_address && *local_address) {
    error_code ec;
    settings.local_address = asio::ip::make_address(local_address, ec);
    if (ec) {
      LOG_MSG((LM_ERROR, "Invalid local address '%s' for '%s:%u': %s.\n", local_address,
               host.c_str(), static_cast<unsigned>(port), ec.message().c_str()));
      return nullptr;
    }
  }

  std::shared_ptr<asio::ssl::context> context;
  if (ssl) {
    try {
      if (tls) {
        // The wrapper frees its handle: it gets a reference of its own.
        SSL_CTX_up_ref(tls);
        context = std::make_shared<asio::ssl::context>(tls);
      } else {
        context = std::make_shared<asio::ssl::context>(asio::ssl::context::tls_client);
        if (verify_peer)
          context->set_default_verify_paths();
      }
    } catch (const boost::system::system_error& e) {
      LOG_MSG((LM_ERROR, "Failed to set up TLS for '%s:%u': %s.\n", host.c_str(),
               static_cast<unsigned>(port), e.what()));
      return nullptr;
    }
  }
  return std::make_shared<Beast_HTTP_Session>(std::move(settings), std::move(context));
}

JSON_HTTP_Session::JSON_HTTP_Session(std::shared_ptr<HTTP_Session> session, int attempts,
                                     int timeout)
    : session_(std::move(session)), attempts_(attempts < 1 ? 1 : attempts), timeout_(timeout) {}

bool JSON_HTTP_Session::get(const HTTP_Request& req, HTTP_Response& resp, JSON_Value* out) {
  return send(req, nullptr, resp, out);
}

bool JSON_HTTP_Session::del(const HTTP_Request& req, HTTP_Response& resp, JSON_Value* out) {
  return send(req, nullptr, resp, out);
}

bool JSON_HTTP_Session::post(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp,
                             JSON_Value* out) {
  return send(req, body, resp, out);
}

bool JSON_HTTP_Session::put(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp,
                            JSON_Value* out) {
  return send(req, body, resp, out);
}

bool JSON_HTTP_Session::send(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp,
                             JSON_Value* out) {
  resp.clear();
  if (out)
    *out = nullptr;
  HTTP_Request request = req;
  std::string text;
  if (body) {
    try {
      text = body->dump();
    } catch (const JSON_Value::exception& e) {
      LOG_MSG((LM_ERROR, "Failed to serialise the body of '%s %s': %s.\n",
               http_method_string(req.method()), req.uri().c_str(), e.what()));
      return false;
    }
    if (!request.headers().get("Content-Type")) {
      request.headers().put("Content-Type", "application/json");
    }
  }
  if (!request.headers().get("Accept"))
    request.headers().put("Accept", "application/json");

  // Only a request that may be repeated is sent again.
  const HTTP_Method method = req.method();
  const bool idempotent =
      method == HTTP_Method::GET || method == HTTP_Method::DELETE || method == HTTP_Method::PUT;
  const int sends = idempotent ? attempts_ : 1;
  Deadline_Scope deadline(*session_, timeout_);
  bool answered = false;
  for (int i = 0; i < sends && !answered; ++i) {
    if (i > 0 && deadline.expired())
      break;
    answered = session_->send(request, body ? &text : nullptr, resp);
  }
  if (!answered)
    return false;
  if (out && !blank(resp.body())) {
    *out = JSON_Value::parse(resp.body(), nullptr, false);
    if (out->is_discarded())
      *out = nullptr;
  }
  return true;
}

bool JSON_RESTful_Client::get(const HTTP_Request& req, HTTP_Response& resp, JSON_Value* out) {
  if (!CHECK_TRUE(session_ != nullptr))
    return false;
  return finish(session_->get(req, resp, out), req, resp);
}

bool JSON_RESTful_Client::del(const HTTP_Request& req, HTTP_Response& resp, JSON_Value* out) {
  if (!CHECK_TRUE(session_ != nullptr))
    return false;
  return finish(session_->del(req, resp, out), req, resp);
}

bool JSON_RESTful_Client::post(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp,
                               JSON_Value* out) {
  if (!CHECK_TRUE(session_ != nullptr))
    return false;
  return finish(session_->post(req, body, resp, out), req, resp);
}

bool JSON_RESTful_Client::put(const HTTP_Request& req, const JSON_Value* body, HTTP_Response& resp,
                              JSON_Value* out) {
  if (!CHECK_TRUE(session_ != nullptr))
    return false;
  return finish(session_->put(req, body, resp, out), req, resp);
}

bool JSON_RESTful_Client::finish(bool sent, const HTTP_Request& req, HTTP_Response& resp) {
  // A failed send was logged by the session; other statuses are for the caller to report.
  if (!sent || !success(resp.status()))
    return false;
  if (!blank(resp.body()) && !JSON_Value::accept(resp.body())) {
    const HTTP_Session& session = session_->session();
    LOG_MSG((LM_ERROR, "The answer to '%s %s' from '%s:%u' is not JSON (status %d).\n",
             http_method_string(req.method()), req.uri().c_str(), session.host().c_str(),
             static_cast<unsigned>(session.port()), resp.status()));
    return false;
  }
  return true;
}

Upstream_JSON_RESTful_Client* Upstream_JSON_RESTful_Client::instance() {
  static Upstream_JSON_RESTful_Client client;
  return &client;
}

void Upstream_JSON_RESTful_Client::configure(const std::string& host, std::uint16_t port, bool ssl,
                                             const std::string& access_key) {
  std::lock_guard<std::mutex> lock(mutex_);
  host_ = host;
  port_ = port;
  ssl_ = ssl;
  access_key_ = access_key;
}

void Upstream_JSON_RESTful_Client::configure_from_identity() {
  const WebSocket_Options& server = *WebSocket_Options::instance();
  configure(server.host, server.port, server.ssl, Host_Manager::instance()->access_key());
}

bool Upstream_JSON_RESTful_Client::send(HTTP_Request& req, const JSON_Value* body,
                                        HTTP_Response& resp, JSON_Value& out) {
  resp.clear();
  out = nullptr;
  std::string host, access_key;
  std::uint16_t port;
  bool ssl;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    host = host_;
    port = port_;
    ssl = ssl_;
    access_key = access_key_;
  }
  if (host.empty()) {
    LOG_MSG((LM_ERROR, "Cannot send '%s %s': the backup server is not configured.\n",
             http_method_string(req.method()), req.uri().c_str()));
    return false;
  }
  // A session per call: callers on several threads never share a connection.
  auto session = HTTP_Session_Factory::create(host, port, ssl);
  if (!session || !session->headers().put(server_api::access_key_header, access_key))
    return false;
  JSON_HTTP_Session json(std::move(session), upstream_attempts, upstream_timeout);
  return json.send(req, body, resp, &out);
}

namespace {

// One call of the upstream client that counts only a 2xx JSON answer.
bool upstream_call(Upstream_JSON_RESTful_Client& client, HTTP_Request& req, const JSON_Value* body,
                   JSON_Value& response) {
  HTTP_Response resp;
  if (!client.send(req, body, resp, response))
    return false;
  const char* problem = nullptr;
  if (!success(resp.status())) {
    problem = "failed";
  } else if (response.is_null() && !blank(resp.body()) && !JSON_Value::accept(resp.body())) {
    problem = "got an answer that is not JSON";
  }
  if (!problem)
    return true;
  LOG_MSG((LM_ERROR, "Request '%s %s' to the backup server %s (status %d).\n",
           http_method_string(req.method()), req.uri().c_str(), problem, resp.status()));
  response = nullptr;
  return false;
}

}  // namespace

bool Upstream_JSON_RESTful_Client::get(HTTP_Request& req, JSON_Value& response) {
  return upstream_call(*this, req, nullptr, response);
}

bool Upstream_JSON_RESTful_Client::post(HTTP_Request& req, const JSON_Value& body,
                                        JSON_Value& response) {
  return upstream_call(*this, req, &body, response);
}

bool Upstream_JSON_RESTful_Client::put(HTTP_Request& req, const JSON_Value& body,
                                       JSON_Value& response) {
  return upstream_call(*this, req, &body, response);
}

bool Upstream_JSON_RESTful_Client::del(HTTP_Request& req, JSON_Value& response) {
  return upstream_call(*this, req, nullptr, response);
}
