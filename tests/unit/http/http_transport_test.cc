// Client and server against each other, against raw sockets and against curl.
#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/http/client.h"
#include "host/http/server.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

// Error lines logged while it lives.
class Log_Capture {
 public:
  Log_Capture() {
    id_ = add_log_sink([this](ACE_Log_Priority priority, const std::string& line) {
      if (priority != LM_ERROR)
        return;
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~Log_Capture() { remove_log_sink(id_); }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  std::string all() {
    std::string text;
    for (const auto& line : lines())
      text += line;
    return text;
  }

 private:
  int id_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A plain TCP peer that writes whatever a test gives it.
class Raw_Socket {
 public:
  explicit Raw_Socket(std::uint16_t port) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval tv{20, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~Raw_Socket() { close(fd_); }
  bool connected() const { return connected_; }
  bool send(const std::string& data) {
    return ::send(fd_, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
  }
  // Reads until `marker` has arrived (empty: until the peer closes or 20 s pass).
  std::string read(const std::string& marker = "") {
    char buf[4096];
    while (marker.empty() || received_.find(marker) == std::string::npos) {
      ssize_t n = recv(fd_, buf, sizeof buf, 0);
      if (n <= 0)
        break;
      received_.append(buf, static_cast<std::size_t>(n));
    }
    return received_;
  }

 private:
  int fd_;
  bool connected_ = false;
  std::string received_;
};

// Answers what it was asked, as JSON.
void echo(const HTTP_Server_Request& req, HTTP_Server_Response& res) {
  JSON_Value query = JSON_Value::object();
  for (const auto& [k, v] : req.query)
    query[k] = v;
  const std::string* key = req.headers.get("x-access-key");
  const std::string* type = req.headers.get("content-type");
  res.json({{"method", req.method_text},
            {"path", req.path},
            {"target", req.target},
            {"query", query},
            {"body", req.body},
            {"remote", req.remote},
            {"tls", req.tls},
            {"key", key ? JSON_Value(*key) : JSON_Value()},
            {"content_type", type ? *type : ""}});
}

void add_routes(HTTP_Server& server) {
  server.route_prefix(HTTP_Method::UNKNOWN, "/echo", echo);
  server.route(HTTP_Method::GET, "/close",
               [](const HTTP_Server_Request& req, HTTP_Server_Response& res) {
                 echo(req, res);
                 res.headers.put("Connection", "close");
               });
  server.route(HTTP_Method::GET, "/throw", [](const HTTP_Server_Request&, HTTP_Server_Response&) {
    throw std::runtime_error("disk on fire");
  });
  server.route(HTTP_Method::GET, "/text",
               [](const HTTP_Server_Request&, HTTP_Server_Response& res) {
                 res.body = "plain words";
                 res.headers.put("Content-Type", "text/plain");
               });
  server.route(HTTP_Method::DELETE, "/empty",
               [](const HTTP_Server_Request&, HTTP_Server_Response& res) { res.status = 204; });
  server.route(HTTP_Method::GET, "/big", [](const HTTP_Server_Request&, HTTP_Server_Response& res) {
    res.body.assign(10000, 'x');
  });
  server.route(HTTP_Method::UNKNOWN, "/keyed",
               [](const HTTP_Server_Request& req, HTTP_Server_Response& res) {
                 const std::string* key = req.headers.get("X-Access-Key");
                 if (!key || *key != "k-123")
                   return res.error(401, "unknown access key");
                 echo(req, res);
               });
}

// One self-signed certificate for the whole binary.
class Tls_Files {
 public:
  static const Tls_Files& get() {
    static Tls_Files files;
    return files;
  }
  std::string cert, key;
  bool ok = false;

 private:
  Tls_Files() {
    cert = dir_.file("cert.pem");
    key = dir_.file("key.pem");
    Run_Result r =
        run_program({"/usr/bin/env", "openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes",
                     "-subj", "/CN=localhost", "-days", "2", "-keyout", key, "-out", cert});
    ok = r.exit_code == 0;
    if (!ok)
      fprintf(stderr, "openssl failed: %s\n", r.err.c_str());
  }
  Temp_Dir dir_;
};

class Http_Transport : public ::testing::Test {
 protected:
  void start(HTTP_Server::Options options = {}) {
    add_routes(server_);
    ASSERT_TRUE(server_.start(options));
    ASSERT_NE(server_.port(), 0);
  }
  void start_tls() {
    const Tls_Files& files = Tls_Files::get();
    ASSERT_TRUE(files.ok);
    HTTP_Server::Options options;
    options.tls_cert = files.cert;
    options.tls_key = files.key;
    start(options);
  }
  std::shared_ptr<HTTP_Session> session(bool ssl = false, bool verify_peer = false,
                                        std::size_t max_response_bytes = 0) {
    return HTTP_Session_Factory::create("127.0.0.1", server_.port(), ssl, nullptr, 1, nullptr,
                                        verify_peer, 10, 10, max_response_bytes);
  }
  // Sends a GET on `s` and returns the echoed JSON (null when no answer).
  JSON_Value get(HTTP_Session& s, const std::string& path, HTTP_Response* out = nullptr) {
    HTTP_Response resp;
    if (!s.send(HTTP_Request(HTTP_Method::GET, path), nullptr, resp))
      return nullptr;
    if (out)
      *out = resp;
    return JSON_Value::parse(resp.body(), nullptr, false);
  }

  HTTP_Server server_;
};

TEST_F(Http_Transport, RoundTripsEveryMethodWithQueryAndJsonBody) {
  start();
  JSON_HTTP_Session json(session(), 1, 30);
  const JSON_Value payload = {{"n", 1}, {"s", "caf\xc3\xa9"}};
  for (HTTP_Method method :
       {HTTP_Method::GET, HTTP_Method::POST, HTTP_Method::PUT, HTTP_Method::DELETE}) {
    SCOPED_TRACE(http_method_string(method));
    const bool with_body = method == HTTP_Method::POST || method == HTTP_Method::PUT;
    HTTP_Request req(method, "/echo/caf%C3%A9+x%2Fy");
    HTTP_Query_String_Builder(req.query()).append("name", "a b&c=d").append("flag", true);
    HTTP_Response resp;
    JSON_Value out;
    ASSERT_TRUE(json.send(req, with_body ? &payload : nullptr, resp, &out));
    EXPECT_EQ(resp.status(), 200);
    ASSERT_TRUE(resp.headers().get("server"));
    EXPECT_EQ(*resp.headers().get("server"), "brimlet");
    ASSERT_TRUE(resp.headers().get("content-length"));
    EXPECT_EQ(*resp.headers().get("content-length"), std::to_string(resp.body().size()));
    ASSERT_TRUE(out.is_object());
    EXPECT_EQ(out["method"], http_method_string(method));
    EXPECT_EQ(out["path"], "/echo/caf\xc3\xa9+x/y");
    EXPECT_EQ(out["target"], req.uri());
    EXPECT_EQ(out["query"], JSON_Value({{"name", "a b&c=d"}, {"flag", "true"}}));
    EXPECT_EQ(out["tls"], false);
    if (with_body) {
      EXPECT_EQ(JSON_Value::parse(out["body"].get<std::string>()), payload);
      EXPECT_EQ(out["content_type"], "application/json");
    } else {
      EXPECT_EQ(out["body"], "");
      EXPECT_EQ(out["content_type"], "");
    }
  }
}

TEST_F(Http_Transport, KeepAliveReusesOneConnection) {
  start();
  auto s = session();
  JSON_Value first = get(*s, "/echo/1");
  JSON_Value second = get(*s, "/echo/2");
  ASSERT_TRUE(first.is_object() && second.is_object());
  EXPECT_EQ(first["remote"], second["remote"]);
  EXPECT_EQ(second["path"], "/echo/2");
}

TEST_F(Http_Transport, HeadAnswersLengthWithoutBodyAndKeepsTheConnectionInStep) {
  start();
  auto s = session();
  JSON_Value before = get(*s, "/echo/head");
  HTTP_Response resp;
  ASSERT_TRUE(s->send(HTTP_Request(HTTP_Method::HEAD, "/echo/head"), nullptr, resp));
  EXPECT_EQ(resp.status(), 200);
  EXPECT_TRUE(resp.body().empty());
  ASSERT_TRUE(resp.headers().get("Content-Length"));
  EXPECT_NE(*resp.headers().get("Content-Length"), "0");
  JSON_Value after = get(*s, "/echo/after");
  ASSERT_TRUE(after.is_object());
  EXPECT_EQ(after["path"], "/echo/after");
  EXPECT_EQ(after["remote"], before["remote"]);
}

TEST_F(Http_Transport, ClientReconnectsAfterTheServerAskedToClose) {
  start();
  Log_Capture log;
  auto s = session();
  HTTP_Response resp;
  JSON_Value closing = get(*s, "/close", &resp);
  ASSERT_TRUE(closing.is_object());
  ASSERT_TRUE(resp.headers().get("Connection"));
  EXPECT_EQ(*resp.headers().get("Connection"), "close");
  JSON_Value next = get(*s, "/echo/next");
  ASSERT_TRUE(next.is_object());
  EXPECT_NE(next["remote"], closing["remote"]);
  EXPECT_EQ(log.all(), "");
}

TEST_F(Http_Transport, ClientResendsWhenTheServerDroppedAnIdleConnection) {
  start();
  auto s = session();
  JSON_Value first = get(*s, "/echo/1");
  ASSERT_TRUE(first.is_object());
  // The server goes away with the kept connection and comes back on the same port.
  const std::uint16_t port = server_.port();
  server_.stop();
  HTTP_Server again;
  add_routes(again);
  HTTP_Server::Options options;
  options.port = port;
  ASSERT_TRUE(again.start(options));

  Log_Capture log;
  JSON_Value second = get(*s, "/echo/2");
  ASSERT_TRUE(second.is_object());
  EXPECT_EQ(second["path"], "/echo/2");
  EXPECT_NE(second["remote"], first["remote"]);
  EXPECT_EQ(log.all(), "");
}

TEST_F(Http_Transport, OversizeBodyGets413AndTheServerGoesOn) {
  HTTP_Server::Options options;
  options.max_body_bytes = 1024;
  start(options);
  auto s = session();
  HTTP_Request req(HTTP_Method::POST, "/echo/upload");
  for (std::size_t size : {std::size_t(4096), std::size_t(1) << 20}) {
    SCOPED_TRACE(size);
    const std::string body(size, 'b');
    HTTP_Response resp;
    ASSERT_TRUE(s->send(req, &body, resp));
    EXPECT_EQ(resp.status(), 413);
    EXPECT_EQ(JSON_Value::parse(resp.body(), nullptr, false).value("error", ""),
              "request too large");
  }
  const std::string fits(1024, 'f');
  HTTP_Response resp;
  ASSERT_TRUE(s->send(req, &fits, resp));
  EXPECT_EQ(resp.status(), 200);
}

TEST_F(Http_Transport, MalformedRequestsGet400AndTheServerGoesOn) {
  start();
  const char* requests[] = {
      "GARBAGE\r\n\r\n",
      "GET /echo HTTP/9.9\r\nHost: x\r\n\r\n",
      "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: abc\r\n\r\n",
      "GET /echo/a%zz HTTP/1.1\r\nHost: x\r\n\r\n",
      "GET /echo?q=%4 HTTP/1.1\r\nHost: x\r\n\r\n",
      "GET echo HTTP/1.1\r\nHost: x\r\n\r\n",
  };
  for (const char* request : requests) {
    SCOPED_TRACE(request);
    Raw_Socket raw(server_.port());
    ASSERT_TRUE(raw.connected());
    ASSERT_TRUE(raw.send(request));
    // The server answers and closes: read() returns at the end of the stream.
    const std::string answer = raw.read();
    EXPECT_EQ(answer.rfind("HTTP/1.1 400 ", 0), 0u) << answer;
    EXPECT_NE(answer.find("bad request"), std::string::npos);
  }
  auto s = session();
  JSON_Value after = get(*s, "/echo/still");
  ASSERT_TRUE(after.is_object());
  EXPECT_EQ(after["path"], "/echo/still");
}

TEST_F(Http_Transport, ExpectContinueGetsTheGoAheadBeforeTheBody) {
  start();
  Raw_Socket raw(server_.port());
  ASSERT_TRUE(
      raw.send("POST /echo/x HTTP/1.1\r\nHost: x\r\nContent-Length: 7\r\nExpect: 100-continue\r\n"
               "Connection: close\r\n\r\n"));
  const std::string interim = raw.read("\r\n\r\n");
  ASSERT_EQ(interim.rfind("HTTP/1.1 100 Continue\r\n", 0), 0u) << interim;
  ASSERT_TRUE(raw.send("{\"a\":1}"));
  const std::string all = raw.read();
  const std::size_t final_answer = all.find("HTTP/1.1 200 OK\r\n");
  ASSERT_NE(final_answer, std::string::npos) << all;
  EXPECT_NE(all.find("{\\\"a\\\":1}", final_answer), std::string::npos) << all;
}

TEST_F(Http_Transport, RoutesPreferExactThenLongestPrefixThenMethod) {
  auto named = [](const char* name) {
    return [name](const HTTP_Server_Request&, HTTP_Server_Response& res) {
      res.json({{"route", name}});
    };
  };
  server_.route_prefix(HTTP_Method::UNKNOWN, "/files", named("files*"));
  server_.route_prefix(HTTP_Method::GET, "/files/deep", named("deep* GET"));
  server_.route_prefix(HTTP_Method::UNKNOWN, "/files/deep", named("deep*"));
  server_.route(HTTP_Method::UNKNOWN, "/files/deep/exact", named("exact"));
  server_.route(HTTP_Method::POST, "/only-post", named("only-post"));
  start();
  struct Case {
    HTTP_Method method;
    const char* path;
    const char* route;  // null: 404
  } cases[] = {
      {HTTP_Method::GET, "/files/deep/exact", "exact"},
      {HTTP_Method::DELETE, "/files/deep/exact", "exact"},
      {HTTP_Method::GET, "/files/deep/exact/more", "deep* GET"},
      {HTTP_Method::PUT, "/files/deep/x", "deep*"},
      {HTTP_Method::GET, "/files/other", "files*"},
      {HTTP_Method::POST, "/only-post", "only-post"},
      {HTTP_Method::GET, "/only-post", nullptr},
      {HTTP_Method::GET, "/nowhere", nullptr},
      {HTTP_Method::GET, "/", nullptr},
  };
  auto s = session();
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(http_method_string(c.method)) + " " + c.path);
    HTTP_Response resp;
    ASSERT_TRUE(s->send(HTTP_Request(c.method, c.path), nullptr, resp));
    JSON_Value out = JSON_Value::parse(resp.body(), nullptr, false);
    if (c.route) {
      EXPECT_EQ(resp.status(), 200);
      EXPECT_EQ(out.value("route", ""), c.route);
    } else {
      EXPECT_EQ(resp.status(), 404);
      EXPECT_EQ(out, JSON_Value({{"error", "not found"}}));
      ASSERT_TRUE(resp.headers().get("Content-Type"));
      EXPECT_EQ(*resp.headers().get("Content-Type"), "application/json");
    }
  }
}

TEST_F(Http_Transport, ThrowingHandlerGives500AndOneLogLine) {
  start();
  Log_Capture log;
  auto s = session();
  HTTP_Response resp;
  ASSERT_TRUE(s->send(HTTP_Request(HTTP_Method::GET, "/throw"), nullptr, resp));
  EXPECT_EQ(resp.status(), 500);
  EXPECT_EQ(JSON_Value::parse(resp.body(), nullptr, false).value("error", ""), "internal error");
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("/throw"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("disk on fire"), std::string::npos) << lines[0];
  // The connection survives the failed handler.
  EXPECT_TRUE(get(*s, "/echo/ok").is_object());
}

TEST_F(Http_Transport, TlsRoundTrip) {
  start_tls();
  JSON_HTTP_Session json(session(true), 1, 30);
  HTTP_Request req(HTTP_Method::POST, "/echo/secure");
  HTTP_Query_String_Builder(req.query()).append("q", "1");
  const JSON_Value body = {{"x", 1}};
  for (int i = 0; i < 2; ++i) {
    HTTP_Response resp;
    JSON_Value out;
    ASSERT_TRUE(json.post(req, &body, resp, &out));
    EXPECT_EQ(resp.status(), 200);
    EXPECT_EQ(out["tls"], true);
    EXPECT_EQ(out["query"]["q"], "1");
    EXPECT_EQ(JSON_Value::parse(out["body"].get<std::string>()), body);
  }
}

TEST_F(Http_Transport, TlsPeerVerificationRefusesASelfSignedCertificate) {
  start_tls();
  Log_Capture log;
  auto s = session(true, true);
  ASSERT_TRUE(s);
  HTTP_Response resp;
  EXPECT_FALSE(s->send(HTTP_Request(HTTP_Method::GET, "/echo"), nullptr, resp));
  EXPECT_EQ(resp.status(), 0);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.all().find("TLS handshake"), std::string::npos) << log.all();
}

TEST_F(Http_Transport, FailedHandshakeDropsOnlyThatConnection) {
  start_tls();
  Raw_Socket raw(server_.port());
  ASSERT_TRUE(raw.send("GET /echo HTTP/1.1\r\nHost: x\r\n\r\n"));
  EXPECT_EQ(raw.read().find("HTTP/1.1"), std::string::npos);
  auto s = session(true);
  EXPECT_TRUE(get(*s, "/echo/after").is_object());
}

TEST_F(Http_Transport, CurlIsServedOverHttpAndHttps) {
  start();
  const std::string base = "http://127.0.0.1:" + std::to_string(server_.port());
  // Two URLs in one run: curl keeps the connection, which the remote port shows.
  Run_Result r = run_program({"/usr/bin/env", "curl", "-sS", "--max-time", "30", "-w", "\n", "-X",
                              "PUT", "-H", "Content-Type: application/json", "--data-binary",
                              "{\"x\":1}", base + "/echo/one?q=a%20b", base + "/echo/two"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::vector<JSON_Value> answers;
  std::size_t begin = 0;
  for (std::size_t end; (end = r.out.find('\n', begin)) != std::string::npos; begin = end + 1) {
    answers.push_back(JSON_Value::parse(r.out.substr(begin, end - begin), nullptr, false));
  }
  ASSERT_EQ(answers.size(), 2u) << r.out;
  EXPECT_EQ(answers[0]["method"], "PUT");
  EXPECT_EQ(answers[0]["query"]["q"], "a b");
  EXPECT_EQ(answers[0]["body"], "{\"x\":1}");
  EXPECT_EQ(answers[1]["path"], "/echo/two");
  EXPECT_EQ(answers[0]["remote"], answers[1]["remote"]);

  HTTP_Server secure;
  add_routes(secure);
  const Tls_Files& files = Tls_Files::get();
  ASSERT_TRUE(files.ok);
  HTTP_Server::Options options;
  options.tls_cert = files.cert;
  options.tls_key = files.key;
  ASSERT_TRUE(secure.start(options));
  r = run_program({"/usr/bin/env", "curl", "-sS", "-i", "-k", "--max-time", "30",
                   "https://localhost:" + std::to_string(secure.port()) + "/echo/tls"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("\r\nServer: brimlet\r\n"), std::string::npos) << r.out;
  const std::size_t body = r.out.find("\r\n\r\n");
  ASSERT_NE(body, std::string::npos);
  JSON_Value out = JSON_Value::parse(r.out.substr(body + 4), nullptr, false);
  EXPECT_EQ(out["tls"], true);
  EXPECT_NE(r.out.find("\r\nContent-Length: " + std::to_string(r.out.size() - body - 4) + "\r\n"),
            std::string::npos)
      << r.out;
}

TEST_F(Http_Transport, UnreachableServerFailsWithStatusZeroAndLogsNoSecret) {
  start();
  const std::uint16_t port = server_.port();
  server_.stop();
  server_.stop();  // idempotent
  Log_Capture log;
  auto s = HTTP_Session_Factory::create("127.0.0.1", port, false, nullptr, 2, nullptr, false, 5, 5);
  s->headers().put("Authorization", "Basic c2VjcmV0");
  const std::string body = "{\"password\":\"hunter2\"}";
  HTTP_Response resp;
  EXPECT_FALSE(s->send(HTTP_Request(HTTP_Method::POST, "/echo"), &body, resp));
  EXPECT_EQ(resp.status(), 0);

  JSON_RESTful_Client rest;
  rest.reset(std::make_shared<JSON_HTTP_Session>(s, 2, 10));
  EXPECT_FALSE(rest.get(HTTP_Request(HTTP_Method::GET, "/echo"), resp, nullptr));
  EXPECT_EQ(resp.status(), 0);

  const std::string text = log.all();
  EXPECT_NE(text.find(std::to_string(port)), std::string::npos) << text;
  EXPECT_EQ(text.find("c2VjcmV0"), std::string::npos) << text;
  EXPECT_EQ(text.find("hunter2"), std::string::npos) << text;
}

TEST_F(Http_Transport, ResponseLargerThanTheLimitFails) {
  start();
  auto s = session(false, false, 1000);
  HTTP_Response resp;
  EXPECT_FALSE(s->send(HTTP_Request(HTTP_Method::GET, "/big"), nullptr, resp));
  EXPECT_EQ(resp.status(), 0);
  EXPECT_TRUE(get(*s, "/echo/small").is_object());
}

TEST_F(Http_Transport, SilentServerTimesOutBothBounds) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  server_.route(HTTP_Method::GET, "/wait",
                [released](const HTTP_Server_Request&, HTTP_Server_Response& res) {
                  released.wait_for(std::chrono::seconds(30));
                });
  start();
  Log_Capture log;
  // The session's own I/O time-out.
  auto quick = HTTP_Session_Factory::create("127.0.0.1", server_.port(), false, nullptr, 1, nullptr,
                                            false, 10, 1);
  HTTP_Response resp;
  EXPECT_FALSE(quick->send(HTTP_Request(HTTP_Method::GET, "/wait"), nullptr, resp));
  EXPECT_EQ(resp.status(), 0);
  // The JSON layer's limit for the whole request, over a session that would wait longer; a timed
  // out GET is not sent again once that limit has passed (each failed send logs one line).
  JSON_HTTP_Session json(HTTP_Session_Factory::create("127.0.0.1", server_.port(), false, nullptr,
                                                      1, nullptr, false, 10, 60),
                         3, 1);
  EXPECT_FALSE(json.get(HTTP_Request(HTTP_Method::GET, "/wait"), resp, nullptr));
  release.set_value();
  EXPECT_EQ(log.lines().size(), 2u) << log.all();
  EXPECT_NE(log.all().find("timeout"), std::string::npos) << log.all();
}

TEST_F(Http_Transport, ClientRefusesTargetsThatWouldSplitTheRequestLine) {
  start();
  auto s = session();
  for (const char* path : {"/echo x", "/echo\r\nX-Injected: 1", "echo", ""}) {
    HTTP_Response resp;
    EXPECT_FALSE(s->send(HTTP_Request(HTTP_Method::GET, path), nullptr, resp)) << path;
  }
}

// Fails its first `failures` sends as a dropped connection would, then forwards.
class Flaky_Session : public HTTP_Session {
 public:
  Flaky_Session(std::shared_ptr<HTTP_Session> real, int failures)
      : real_(std::move(real)), failures_(failures) {}
  bool send(const HTTP_Request& req, const std::string* body, HTTP_Response& resp) override {
    ++sends;
    if (sends <= failures_) {
      resp.clear();
      return false;
    }
    return real_->send(req, body, resp);
  }
  const std::string& host() const override { return real_->host(); }
  std::uint16_t port() const override { return real_->port(); }
  int sends = 0;

 private:
  std::shared_ptr<HTTP_Session> real_;
  int failures_;
};

TEST_F(Http_Transport, JsonSessionRepeatsOnlyIdempotentRequests) {
  start();
  struct Case {
    HTTP_Method method;
    int failures;
    bool answered;
    int sends;
  } cases[] = {
      {HTTP_Method::GET, 2, true, 3},    {HTTP_Method::PUT, 2, true, 3},
      {HTTP_Method::DELETE, 2, true, 3}, {HTTP_Method::GET, 3, false, 3},
      {HTTP_Method::POST, 1, false, 1},  {HTTP_Method::POST, 0, true, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(http_method_string(c.method)) + " failures " +
                 std::to_string(c.failures));
    auto flaky = std::make_shared<Flaky_Session>(session(), c.failures);
    JSON_HTTP_Session json(flaky, 3, 30);
    HTTP_Response resp;
    JSON_Value out;
    EXPECT_EQ(json.send(HTTP_Request(c.method, "/echo/retry"), nullptr, resp, &out), c.answered);
    EXPECT_EQ(flaky->sends, c.sends);
    EXPECT_EQ(out.is_object(), c.answered);
  }
}

TEST_F(Http_Transport, JsonSessionGivesNullForEmptyOrNonJsonBodies) {
  start();
  JSON_HTTP_Session json(session(), 1, 30);
  HTTP_Response resp;
  JSON_Value out = "stale";
  ASSERT_TRUE(json.get(HTTP_Request(HTTP_Method::GET, "/text"), resp, &out));
  EXPECT_EQ(resp.body(), "plain words");
  EXPECT_TRUE(out.is_null());
  out = "stale";
  ASSERT_TRUE(json.del(HTTP_Request(HTTP_Method::DELETE, "/empty"), resp, &out));
  EXPECT_EQ(resp.status(), 204);
  EXPECT_TRUE(out.is_null());
}

TEST_F(Http_Transport, RestfulClientSucceedsOnlyOn2xxJson) {
  start();
  JSON_RESTful_Client rest;
  EXPECT_FALSE(rest.has_session());
  rest.reset(std::make_shared<JSON_HTTP_Session>(session(), 1, 30));
  Log_Capture log;
  HTTP_Response resp;
  JSON_Value out;

  const JSON_Value body = {{"k", "v"}};
  EXPECT_TRUE(rest.put(HTTP_Request(HTTP_Method::PUT, "/echo/ok"), &body, resp, &out));
  EXPECT_EQ(out["method"], "PUT");
  EXPECT_TRUE(rest.del(HTTP_Request(HTTP_Method::DELETE, "/empty"), resp, nullptr));
  EXPECT_EQ(log.all(), "");

  // Not 2xx: false, status and headers kept, nothing logged (the caller reports it).
  EXPECT_FALSE(rest.post(HTTP_Request(HTTP_Method::POST, "/missing"), &body, resp, &out));
  EXPECT_EQ(resp.status(), 404);
  EXPECT_TRUE(resp.headers().get("Content-Type"));
  EXPECT_EQ(log.all(), "");

  // 2xx but not JSON: false after one line.
  EXPECT_FALSE(rest.get(HTTP_Request(HTTP_Method::GET, "/text"), resp, nullptr));
  EXPECT_EQ(resp.status(), 200);
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.all().find("/text"), std::string::npos);
}

TEST_F(Http_Transport, UpstreamClientSendsTheAccessKeyAndLogsFailuresWithoutIt) {
  start();
  Upstream_JSON_RESTful_Client& up = *Upstream_JSON_RESTful_Client::instance();
  up.configure("127.0.0.1", server_.port(), false, "k-123");
  HTTP_Request req(HTTP_Method::GET, "/keyed");
  HTTP_Query_String_Builder(req.query()).append("uuid", "u-1");
  JSON_Value out;
  ASSERT_TRUE(up.get(req, out));
  EXPECT_EQ(out["key"], "k-123");
  EXPECT_EQ(out["query"]["uuid"], "u-1");

  HTTP_Request post(HTTP_Method::POST, "/keyed");
  ASSERT_TRUE(up.post(post, JSON_Value{{"a", 1}}, out));
  EXPECT_EQ(out["content_type"], "application/json");

  up.configure("127.0.0.1", server_.port(), false, "wrong-key-456");
  Log_Capture log;
  HTTP_Request del(HTTP_Method::DELETE, "/keyed");
  HTTP_Query_String_Builder(del.query()).append("uuid", "u-1");
  EXPECT_FALSE(up.del(del, out));
  EXPECT_TRUE(out.is_null());
  ASSERT_EQ(log.lines().size(), 1u);
  const std::string line = log.all();
  EXPECT_NE(line.find("DELETE /keyed?uuid=u-1"), std::string::npos) << line;
  EXPECT_NE(line.find("401"), std::string::npos) << line;
  EXPECT_EQ(line.find("wrong-key-456"), std::string::npos) << line;

  // send() counts every answer.
  HTTP_Response resp;
  EXPECT_TRUE(up.send(req, nullptr, resp, out));
  EXPECT_EQ(resp.status(), 401);
  EXPECT_EQ(out["error"], "unknown access key");
}

TEST_F(Http_Transport, ConcurrentClientsAllGetTheirOwnAnswers) {
  HTTP_Server::Options options;
  options.threads = 4;
  start(options);
  Upstream_JSON_RESTful_Client::instance()->configure("127.0.0.1", server_.port(), false, "k-123");
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      JSON_HTTP_Session json(session(), 1, 30);
      for (int i = 0; i < 20; ++i) {
        const std::string id = std::to_string(t) + "-" + std::to_string(i);
        const JSON_Value body = {{"id", id}};
        HTTP_Response resp;
        JSON_Value out;
        if (json.post(HTTP_Request(HTTP_Method::POST, "/echo/" + id), &body, resp, &out) &&
            out["path"] == "/echo/" + id &&
            JSON_Value::parse(out["body"].get<std::string>()) == body) {
          ++good;
        }
        HTTP_Request keyed(HTTP_Method::GET, "/keyed");
        HTTP_Query_String_Builder(keyed.query()).append("id", id);
        if (Upstream_JSON_RESTful_Client::instance()->get(keyed, out) && out["query"]["id"] == id) {
          ++good;
        }
      }
    });
  }
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(good, 4 * 20 * 2);
}

TEST_F(Http_Transport, StartFailsOnABusyPortOrWithHalfTheTlsFiles) {
  start();
  Log_Capture log;
  HTTP_Server other;
  HTTP_Server::Options options;
  options.port = server_.port();
  EXPECT_FALSE(other.start(options));
  EXPECT_EQ(log.lines().size(), 1u);

  HTTP_Server half;
  HTTP_Server::Options tls;
  tls.tls_cert = "/nonexistent/cert.pem";
  EXPECT_FALSE(half.start(tls));
  tls.tls_key = "/nonexistent/key.pem";
  EXPECT_FALSE(half.start(tls));
  EXPECT_EQ(log.lines().size(), 3u);
  // The running server is unharmed.
  auto s = session();
  EXPECT_TRUE(get(*s, "/echo").is_object());
}

TEST(Http_Ready_File, WritesAnObjectAtomically) {
  Temp_Dir dir;
  const std::string path = dir.file("ready.json");
  const JSON_Value ready = {{"host", "127.0.0.1"}, {"port", 8443}, {"jsonrpc_port", 9000}};
  ASSERT_TRUE(write_ready_file(path, ready));
  std::string text;
  ASSERT_TRUE(read_file(path, text));
  EXPECT_EQ(JSON_Value::parse(text), ready);
  EXPECT_FALSE(write_ready_file(dir.file("list.json"), JSON_Value::array({1, 2})));
  EXPECT_FALSE(read_file(dir.file("list.json"), text));
}

}  // namespace
