// The HTTP server on Beast: two I/O threads run accepts, reads and writes asynchronously;
// handlers run on a pool of their own so that a slow one never stalls the I/O.
#include "host/http/server.h"

#include "host/core/log.h"
#include "host/core/paths.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;

constexpr int io_threads = 2;
constexpr std::uint32_t max_header_bytes = 64u << 10;
// How long a closing connection keeps reading what the client still sends, so that the last
// answer is not lost to a reset.
constexpr int linger_seconds = 5;

struct Route {
  HTTP_Method method;
  std::string path;
  HTTP_Handler handler;
};

// A connection as the server sees it to close it from another thread.
class Connection_Base {
 public:
  virtual ~Connection_Base() = default;
  // Only while no I/O thread runs.
  virtual void close() = 0;
};

struct Server_Core {
  HTTP_Server::Options options;
  std::vector<Route> exact;
  std::vector<Route> prefix;
  std::optional<asio::ssl::context> tls;
  std::atomic<bool> stopping{false};

  // Exact routes first; among prefixes the longest; a route for the method before one for any.
  const HTTP_Handler* find(HTTP_Method method, const std::string& path) const {
    const Route* best = nullptr;
    for (const auto& r : exact) {
      if (r.path == path && (r.method == method || (r.method == HTTP_Method::UNKNOWN && !best))) {
        best = &r;
      }
    }
    if (best)
      return &best->handler;
    for (const auto& r : prefix) {
      if (path.compare(0, r.path.size(), r.path) != 0)
        continue;
      if (r.method != method && r.method != HTTP_Method::UNKNOWN)
        continue;
      if (!best || r.path.size() > best->path.size() ||
          (r.path.size() == best->path.size() && r.method == method)) {
        best = &r;
      }
    }
    return best ? &best->handler : nullptr;
  }

  void handle(const HTTP_Server_Request& req, HTTP_Server_Response& res) const {
    const HTTP_Handler* handler = find(req.method, req.path);
    if (!handler) {
      res.error(404, "not found");
      return;
    }
    try {
      (*handler)(req, res);
    } catch (const std::exception& e) {
      LOG_MSG((LM_ERROR, "The handler of '%s %s' failed: %s.\n", req.method_text.c_str(),
               req.path.c_str(), e.what()));
      res = HTTP_Server_Response();
      res.error(500, "internal error");
    } catch (...) {
      LOG_MSG((LM_ERROR, "The handler of '%s %s' failed with an unknown exception.\n",
               req.method_text.c_str(), req.path.c_str()));
      res = HTTP_Server_Response();
      res.error(500, "internal error");
    }
  }
};

// A path is decoded like a query value except that '+' stays itself.
bool decode_path(const std::string& raw, std::string& out) {
  std::string escaped;
  escaped.reserve(raw.size());
  for (char c : raw) {
    if (c == '+') {
      escaped += "%2B";
    } else {
      escaped += c;
    }
  }
  return url_decode(escaped, out);
}

std::string endpoint_text(const tcp::endpoint& ep) {
  const auto address = ep.address();
  std::string text = address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
  return text + ":" + std::to_string(ep.port());
}

template <class Stream>
class Connection : public Connection_Base, public std::enable_shared_from_this<Connection<Stream>> {
 public:
  static constexpr bool tls = !std::is_same_v<Stream, beast::tcp_stream>;

  Connection(Server_Core& core, asio::thread_pool& workers, Stream stream, std::string remote)
      : core_(core), workers_(workers), stream_(std::move(stream)), remote_(std::move(remote)) {}

  void run() {
    if constexpr (tls) {
      arm_i();
      stream_.async_handshake(asio::ssl::stream_base::server,
                              [self = this->shared_from_this()](error_code ec) {
                                // A failed handshake drops only this connection.
                                if (!ec)
                                  self->read_request_i();
                              });
    } else {
      read_request_i();
    }
  }

  void close() override { close_i(); }

 private:
  beast::tcp_stream& tcp() { return beast::get_lowest_layer(stream_); }
  void arm_i(int seconds) { tcp().expires_after(std::chrono::seconds(seconds)); }
  void arm_i() { arm_i(core_.options.io_timeout > 0 ? core_.options.io_timeout : 60); }

  void read_request_i() {
    if (closed_)
      return;
    parser_.emplace();
    parser_->body_limit(core_.options.max_body_bytes);
    parser_->header_limit(max_header_bytes);
    arm_i();
    http::async_read_header(
        stream_, buffer_, *parser_,
        [self = this->shared_from_this()](error_code ec, std::size_t) { self->on_header_i(ec); });
  }

  void on_header_i(error_code ec) {
    if (ec)
      return fail_i(ec);
    // A client that asks first gets its go-ahead before the body is read.
    if (beast::iequals(parser_->get()[http::field::expect], "100-continue")) {
      auto go_ahead = std::make_shared<http::response<http::empty_body>>(http::status::continue_,
                                                                         parser_->get().version());
      arm_i();
      http::async_write(stream_, *go_ahead,
                        [self = this->shared_from_this(), go_ahead](error_code ec, std::size_t) {
                          if (ec)
                            return self->close_i();
                          self->read_body_i();
                        });
      return;
    }
    read_body_i();
  }

  void read_body_i() {
    if (closed_)
      return;
    arm_i();
    http::async_read(
        stream_, buffer_, *parser_,
        [self = this->shared_from_this()](error_code ec, std::size_t) { self->on_read_i(ec); });
  }

  void fail_i(error_code ec) {
    if (ec == http::error::body_limit)
      return answer_error_i(413, "request too large");
    if (ec == http::error::header_limit)
      return answer_error_i(431, "request header too large");
    // Any other complaint of the parser is a malformed request; the rest are ends of the
    // connection (closed by the client, reset, time-out) with no one left to answer.
    if (ec.category() == http::make_error_code(http::error::bad_method).category() &&
        ec != http::error::end_of_stream && ec != http::error::partial_message) {
      return answer_error_i(400, "bad request");
    }
    close_i();
  }

  void on_read_i(error_code ec) {
    if (ec)
      return fail_i(ec);
    auto& msg = parser_->get();
    HTTP_Server_Request req;
    req.method_text = std::string(msg.method_string());
    req.method = http_method_from_string(req.method_text);
    req.target = std::string(msg.target());
    const std::size_t mark = req.target.find('?');
    if (req.target.empty() || req.target[0] != '/' ||
        !decode_path(req.target.substr(0, mark), req.path) ||
        (mark != std::string::npos &&
         !parse_query_string(req.target.substr(mark + 1), req.query))) {
      return answer_error_i(400, "bad request");
    }
    for (const auto& field : msg) {
      req.headers.add(std::string(field.name_string()), std::string(field.value()));
    }
    req.body = std::move(msg.body());
    req.remote = remote_;
    req.tls = tls;
    const unsigned version = msg.version();
    const bool keep_alive = msg.keep_alive();
    const bool head = req.method == HTTP_Method::HEAD;

    asio::post(workers_, [self = this->shared_from_this(), req = std::move(req), version,
                          keep_alive, head]() {
      if (self->core_.stopping)
        return;
      HTTP_Server_Response res;
      self->core_.handle(req, res);
      asio::post(self->stream_.get_executor(),
                 [self, res = std::move(res), version, keep_alive, head]() mutable {
                   self->answer_i(std::move(res), version, keep_alive, head);
                 });
    });
  }

  void answer_error_i(int status, const char* message) {
    HTTP_Server_Response res;
    res.error(status, message);
    answer_i(std::move(res), 11, false, false);
  }

  void answer_i(HTTP_Server_Response res, unsigned version, bool keep_alive, bool head) {
    if (closed_)
      return;
    if (res.status < 100 || res.status > 599) {
      LOG_MSG((LM_ERROR, "A handler answered %s with the invalid status %d.\n", remote_.c_str(),
               res.status));
      res = HTTP_Server_Response();
      res.error(500, "internal error");
    }
    response_ = {};
    response_.version(version);
    response_.result(static_cast<unsigned>(res.status));
    for (const auto& [name, value] : res.headers.fields())
      response_.insert(name, value);
    response_.set(http::field::server, "brimlet");
    const unsigned status = static_cast<unsigned>(res.status);
    // These answers never carry a body (RFC 7230 3.3.3).
    if (status / 100 == 1 || status == 204 || status == 304)
      res.body.clear();
    response_.body() = std::move(res.body);
    response_.prepare_payload();
    if (head)
      response_.body().clear();  // Content-Length still tells the size
    response_.keep_alive(keep_alive && response_.keep_alive());
    arm_i();
    http::async_write(stream_, response_,
                      [self = this->shared_from_this()](error_code ec, std::size_t) {
                        if (ec)
                          return self->close_i();
                        if (self->response_.keep_alive())
                          return self->read_request_i();
                        self->finish_i();
                      });
  }

  // Ends the connection after its last answer.
  void finish_i() {
    if constexpr (tls) {
      arm_i(linger_seconds);
      stream_.async_shutdown([self = this->shared_from_this()](error_code) { self->linger_i(); });
    } else {
      linger_i();
    }
  }

  // Half-closes and reads until the client closes too, so that a request body left unread (an
  // answer given early, as a 413) does not turn the close into a reset that loses the answer.
  void linger_i() {
    if (closed_)
      return;
    error_code ignored;
    tcp().socket().shutdown(tcp::socket::shutdown_send, ignored);
    arm_i(linger_seconds);
    drain_i();
  }

  void drain_i() {
    tcp().async_read_some(asio::buffer(scratch_),
                          [self = this->shared_from_this()](error_code ec, std::size_t) {
                            if (ec)
                              return self->close_i();
                            self->drain_i();
                          });
  }

  void close_i() {
    if (closed_)
      return;
    closed_ = true;
    error_code ignored;
    tcp().socket().shutdown(tcp::socket::shutdown_both, ignored);
    tcp().close();
  }

  Server_Core& core_;
  asio::thread_pool& workers_;
  Stream stream_;
  std::string remote_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  http::response<http::string_body> response_;
  char scratch_[4096];
  bool closed_ = false;
};

}  // namespace

struct HTTP_Server::Impl : Server_Core {
  // Declared so that the io_context goes after the acceptor and the connections it serves.
  asio::io_context ioc;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
  tcp::acceptor acceptor{asio::make_strand(ioc)};
  std::unique_ptr<asio::thread_pool> workers;
  std::vector<std::thread> threads;
  std::uint16_t port = 0;
  bool started = false;
  std::mutex mutex;
  std::vector<std::weak_ptr<Connection_Base>> connections;

  bool listen(const Options& opts);
  void accept();
  void on_accept(error_code ec, tcp::socket socket);
  void keep(const std::shared_ptr<Connection_Base>& connection);
};

bool HTTP_Server::Impl::listen(const Options& opts) {
  error_code ec;
  tcp::resolver resolver(ioc);
  auto endpoints = resolver.resolve(opts.host, std::to_string(opts.port),
                                    tcp::resolver::passive | tcp::resolver::numeric_service, ec);
  if (!ec && endpoints.empty())
    ec = asio::error::host_not_found;
  if (!ec) {
    const tcp::endpoint ep = endpoints.begin()->endpoint();
    acceptor.open(ep.protocol(), ec);
    if (!ec)
      acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec)
      acceptor.bind(ep, ec);
    if (!ec)
      acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (!ec)
      port = acceptor.local_endpoint(ec).port();
  }
  if (ec) {
    LOG_MSG((LM_ERROR, "Failed to listen on '%s:%u': %s.\n", opts.host.c_str(),
             static_cast<unsigned>(opts.port), ec.message().c_str()));
    error_code ignored;
    acceptor.close(ignored);
    return false;
  }
  return true;
}

void HTTP_Server::Impl::accept() {
  acceptor.async_accept(asio::make_strand(ioc), [this](error_code ec, tcp::socket socket) {
    on_accept(ec, std::move(socket));
  });
}

void HTTP_Server::Impl::on_accept(error_code ec, tcp::socket socket) {
  if (stopping || !acceptor.is_open())
    return;
  if (ec) {
    // Out of descriptors and the like: pause rather than spin, then go on accepting.
    LOG_MSG((LM_ERROR, "Failed to accept a connection on port %u: %s.\n",
             static_cast<unsigned>(port), ec.message().c_str()));
    auto timer = std::make_shared<asio::steady_timer>(acceptor.get_executor());
    timer->expires_after(std::chrono::seconds(1));
    timer->async_wait([this, timer](error_code) {
      if (!stopping)
        accept();
    });
    return;
  }
  error_code remote_ec;
  const std::string remote = endpoint_text(socket.remote_endpoint(remote_ec));
  socket.set_option(tcp::no_delay(true), remote_ec);
  if (tls) {
    auto c = std::make_shared<Connection<beast::ssl_stream<beast::tcp_stream>>>(
        *this, *workers, beast::ssl_stream<beast::tcp_stream>(std::move(socket), *tls), remote);
    keep(c);
    c->run();
  } else {
    auto c = std::make_shared<Connection<beast::tcp_stream>>(
        *this, *workers, beast::tcp_stream(std::move(socket)), remote);
    keep(c);
    c->run();
  }
  accept();
}

void HTTP_Server::Impl::keep(const std::shared_ptr<Connection_Base>& connection) {
  std::lock_guard<std::mutex> lock(mutex);
  connections.erase(std::remove_if(connections.begin(), connections.end(),
                                   [](const auto& c) { return c.expired(); }),
                    connections.end());
  connections.push_back(connection);
}

HTTP_Server::HTTP_Server() : impl_(std::make_unique<Impl>()) {}

HTTP_Server::~HTTP_Server() {
  stop();
}

void HTTP_Server::route(HTTP_Method method, const std::string& path, HTTP_Handler handler) {
  impl_->exact.push_back({method, path, std::move(handler)});
}

void HTTP_Server::route_prefix(HTTP_Method method, const std::string& prefix,
                               HTTP_Handler handler) {
  impl_->prefix.push_back({method, prefix, std::move(handler)});
}

bool HTTP_Server::start(const Options& options) {
  Impl& s = *impl_;
  if (s.started || s.stopping) {
    LOG_MSG((LM_ERROR, "The HTTP server on port %u was already started.\n",
             static_cast<unsigned>(s.port)));
    return false;
  }
  s.options = options;
  if (options.tls_cert.empty() != options.tls_key.empty()) {
    LOG_MSG((LM_ERROR, "HTTPS needs both a certificate and a key file.\n"));
    return false;
  }
  if (!options.tls_cert.empty()) {
    try {
      s.tls.emplace(asio::ssl::context::tls_server);
      s.tls->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                         asio::ssl::context::no_sslv3 | asio::ssl::context::single_dh_use);
      s.tls->use_certificate_chain_file(options.tls_cert);
      s.tls->use_private_key_file(options.tls_key, asio::ssl::context::pem);
    } catch (const boost::system::system_error& e) {
      LOG_MSG((LM_ERROR, "Failed to load the TLS certificate '%s' and key '%s': %s.\n",
               options.tls_cert.c_str(), options.tls_key.c_str(), e.what()));
      s.tls.reset();
      return false;
    }
  }
  if (!s.listen(options))
    return false;

  s.started = true;
  s.workers = std::make_unique<asio::thread_pool>(options.threads > 0 ? options.threads : 1);
  s.work.emplace(s.ioc.get_executor());
  s.accept();
  for (int i = 0; i < io_threads; ++i)
    s.threads.emplace_back([&s] { s.ioc.run(); });
  return true;
}

std::uint16_t HTTP_Server::port() const {
  return impl_->port;
}

void HTTP_Server::stop() {
  Impl& s = *impl_;
  if (!s.started || s.stopping.exchange(true))
    return;
  // I/O first, so that no new request reaches a handler; then the handlers already running.
  s.ioc.stop();
  for (auto& t : s.threads)
    t.join();
  s.threads.clear();
  s.workers->join();

  // No thread runs the io_context now: sockets may be closed from here.
  error_code ignored;
  s.acceptor.close(ignored);
  std::vector<std::weak_ptr<Connection_Base>> connections;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    connections.swap(s.connections);
  }
  for (auto& weak : connections) {
    if (auto c = weak.lock())
      c->close();
  }
  // Lets the cancelled operations complete, which releases their connections.
  s.work.reset();
  s.ioc.restart();
  s.ioc.poll();
}

void HTTP_Server_Response::json(const JSON_Value& value, int code) {
  status = code;
  // Invalid UTF-8 in a string must not make the answer throw.
  body = value.dump(-1, ' ', false, JSON_Value::error_handler_t::replace);
  headers.put("Content-Type", "application/json");
}

void HTTP_Server_Response::error(int code, const std::string& message) {
  json(JSON_Value{{"error", message}}, code);
}

bool write_ready_file(const std::string& path, const JSON_Value& ports) {
  if (!ports.is_object()) {
    LOG_MSG((LM_ERROR, "The ready file '%s' must hold a JSON object, not %s.\n", path.c_str(),
             json_type_name(ports)));
    return false;
  }
  return write_file_atomic(path, ports.dump() + "\n", 0644);
}
