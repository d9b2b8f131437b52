// Client and server against each other, against raw TCP (bash), curl and openssl.
#include "host/core/paths.h"
#include "host/http/client.h"
#include "host/http/server.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <set>
#include <stdexcept>
#include <thread>
#include <tuple>

namespace {
using S = std::string;
using Req = const HTTP_Server_Request&;
using Res = HTTP_Server_Response&;
using M = HTTP_Method;

// Writes `request` on a plain TCP connection; returns what arrives until the server closes.
S raw_exchange(std::uint16_t port, const S& request) {
  const S tcp = "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port);
  return run_program({"/bin/bash", "-c", tcp + " && cat >&3 && cat <&3"}, request, {}, 30).out;
}

// Answers what it was asked, as JSON.
void echo(Req req, Res res) {
  const S* type = req.headers.get("content-type");
  JSON_Value out = {{"method", req.method_text}, {"path", req.path}, {"query", req.query}};
  out.update({{"body", req.body}, {"remote", req.remote}, {"tls", req.tls}});
  out["content_type"] = type ? *type : "";
  res.json(out);
}

void add_routes(HTTP_Server& server) {
  server.route_prefix(M::UNKNOWN, "/echo", echo);
  server.route(M::GET, "/close",
               [](Req req, Res res) { echo(req, res), res.headers.put("Connection", "close"); });
  server.route(M::GET, "/text", [](Req, Res res) {
    res.body = "plain words", res.headers.put("Content-Type", "text/plain");
  });
  server.route(M::DELETE, "/empty", [](Req, Res res) { res.status = 204; });
  server.route(M::UNKNOWN, "/keyed", [](Req req, Res res) {
    const S* key = req.headers.get("X-Access-Key");
    if (!key || *key != "k-123")
      return res.error(401, "unknown access key");
    echo(req, res);
  });
}

Run_Result curl(std::vector<S> args) {
  args.insert(args.begin(), {"/usr/bin/env", "curl", "-sS", "--max-time", "60"});
  return run_program(args);
}
S field(const HTTP_Response& resp, const char* name) {
  const S* value = resp.headers().get(name);
  return value ? *value : "";
}

// Fails the sends whose numbers (from 1) are listed, as a broken network would.
struct Failing_Session : HTTP_Session_Wrapper {
  using HTTP_Session_Wrapper::HTTP_Session_Wrapper;
  bool send(const HTTP_Request& req, const S* body, HTTP_Response& resp) override {
    if (!failing.count(++sends))
      return HTTP_Session_Wrapper::send(req, body, resp);
    resp.clear();
    LOG_MSG((LM_ERROR, "Failed to send '%s': connection reset.\n", req.uri().c_str()));
    return false;
  }
  std::set<int> failing;
  int sends = 0;
};

class Http_Transport : public ::testing::Test {
 protected:
  void start(HTTP_Server::Options options = {}) {
    add_routes(server_);
    ASSERT_TRUE(server_.start(options) && server_.port() != 0);
  }
  std::shared_ptr<HTTP_Session> session(bool ssl = false, bool verify_peer = false,
                                        std::size_t max_response_bytes = 0, int io_timeout = 10) {
    return HTTP_Session_Factory::create("127.0.0.1", server_.port(), ssl, nullptr, 1, nullptr,
                                        verify_peer, 10, io_timeout, max_response_bytes);
  }
  // The echoed JSON of a GET (null when no answer).
  JSON_Value get(HTTP_Session& s, const S& path) {
    return send(s, M::GET, path) > 0 ? JSON_Value::parse(resp_.body(), nullptr, false) : nullptr;
  }
  // The status of the answer, left in resp_; -1 when the send fails.
  int send(HTTP_Session& s, M method, const S& path, const S* body = nullptr) {
    return s.send(HTTP_Request(method, path), body, resp_) ? resp_.status() : -1;
  }
  HTTP_Response resp_;
  HTTP_Server server_;
};

TEST_F(Http_Transport, RoundTripsOnKeptConnectionsAndReconnects) {
  start();
  JSON_HTTP_Session json(session(), 1, 30);
  const JSON_Value payload = {{"n", 1}, {"s", "caf\xc3\xa9"}};
  std::set<JSON_Value> remotes;
  for (HTTP_Method method : {M::GET, M::POST, M::PUT, M::DELETE}) {
    const bool with_body = method == M::POST || method == M::PUT;
    HTTP_Request req(method, "/echo/caf%C3%A9+x%2Fy");
    HTTP_Query_String_Builder(req.query()).append("name", "a b&c=d").append("flag", true);
    JSON_Value out;
    ASSERT_TRUE(json.send(req, with_body ? &payload : nullptr, resp_, &out));
    EXPECT_EQ(std::tuple(resp_.status(), field(resp_, "server"), field(resp_, "content-length")),
              std::tuple(200, "brimlet", std::to_string(resp_.body().size())));
    remotes.insert(out["remote"]), out.erase("remote");
    JSON_Value expected = {{"method", http_method_string(method)}, {"tls", false}};
    expected.update({{"path", "/echo/caf\xc3\xa9+x/y"}, {"body", with_body ? payload.dump() : ""}});
    expected["query"] = {{"name", "a b&c=d"}, {"flag", "true"}};
    expected["content_type"] = with_body ? "application/json" : "";
    EXPECT_EQ(out, expected);
  }
  // HEAD tells the length without a body, and the connection stays in step.
  EXPECT_EQ(send(json.session(), M::HEAD, "/echo"), 200);
  EXPECT_TRUE(resp_.body().empty() && std::atoi(field(resp_, "Content-Length").c_str()) > 0);
  remotes.insert(get(json.session(), "/echo/after")["remote"]);
  EXPECT_EQ(remotes.size(), 1u);
  const S base = "http://127.0.0.1:" + std::to_string(server_.port());
  // curl sends no body before the 100 Continue, and keeps its connection.
  Run_Result r = curl({"-v", "--expect100-timeout", "30", "-w", "\n", "-X", "PUT", "-H",
                       "Expect: 100-continue", "-H", "Content-Type: application/json",
                       "--data-binary", "{\"x\":1}", base + "/echo/one", base + "/echo/two"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.err.find("< HTTP/1.1 100 Continue"), S::npos) << r.err;
  const std::size_t end = r.out.find('\n');
  JSON_Value one = JSON_Value::parse(r.out.substr(0, end), nullptr, false);
  JSON_Value two = JSON_Value::parse(r.out.substr(end + 1), nullptr, false);
  ASSERT_TRUE(one.is_object() && two.is_object()) << r.out;
  EXPECT_EQ(std::tuple(one["body"], two["path"], one["remote"]),
            std::tuple("{\"x\":1}", "/echo/two", two["remote"]));
  // A session reconnects silently when the server ended the connection.
  HTTP_Server::Options options;
  options.port = server_.port();
  EXPECT_FALSE(HTTP_Server().start(options));  // busy
  Log_Capture log;
  auto s = session();
  JSON_Value closing = get(*s, "/close");
  JSON_Value next = get(*s, "/echo/next");
  // The server goes away with the kept connection and comes back on the same port.
  server_.stop();
  HTTP_Server again;
  add_routes(again);
  ASSERT_TRUE(again.start(options));
  JSON_Value last = get(*s, "/echo/last");
  EXPECT_EQ(std::tuple(last["path"], log.text()), std::tuple("/echo/last", ""));
  EXPECT_TRUE(next["remote"] != closing["remote"] && last["remote"] != next["remote"]);
}

TEST_F(Http_Transport, RoutesBadRequestsAndSilentHandlers) {
  auto named = [](const char* name) {
    return [name](Req, Res res) { res.json({{"route", name}}); };
  };
  server_.route_prefix(M::UNKNOWN, "/files", named("files*"));
  server_.route_prefix(M::GET, "/files/deep", named("deep* GET"));
  server_.route_prefix(M::UNKNOWN, "/files/deep", named("deep*"));
  server_.route(M::UNKNOWN, "/files/deep/exact", named("exact"));
  server_.route(M::POST, "/only-post", named("only-post"));
  server_.route(M::GET, "/throw",
                [](Req, Res) -> void { throw std::runtime_error("disk on fire"); });
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  server_.route(M::GET, "/wait",
                [released](Req, Res) { released.wait_for(std::chrono::seconds(30)); });
  HTTP_Server::Options options;
  options.max_body_bytes = 1024;
  start(options);
  Log_Capture log;
  // Exact, then the longest prefix, then the method.
  const std::tuple<M, const char*, int, const char*> cases[] = {
      {M::GET, "/throw", 500, "internal error"},
      {M::GET, "/files/deep/exact", 200, "exact"},
      {M::GET, "/files/deep/exact/more", 200, "deep* GET"},
      {M::PUT, "/files/deep/x", 200, "deep*"},
      {M::GET, "/files/other", 200, "files*"},
      {M::POST, "/only-post", 200, "only-post"},
      {M::GET, "/only-post", 404, "not found"},
      {M::GET, "/nowhere", 404, "not found"}};
  auto s = session();
  for (const auto& [method, path, status, text] : cases) {
    EXPECT_EQ(send(*s, method, path), status) << path;
    EXPECT_EQ(resp_.body(), JSON_Value({{status == 200 ? "route" : "error", text}}).dump());
    EXPECT_EQ(field(resp_, "Content-Type"), "application/json");
  }
  EXPECT_TRUE(log.count() == 1 && log.contains("'GET /throw' failed: disk on fire")) << log.text();
  // The server answers and closes; only the POST is too large.
  for (const char* request :
       {"GARBAGE\r\n\r\n", "GET /echo/a%zz HTTP/1.1\r\n\r\n", "GET /echo?q=%4 HTTP/1.1\r\n\r\n",
        "GET echo HTTP/1.1\r\n\r\n", "POST /echo HTTP/1.1\r\nContent-Length: 1025\r\n\r\n"}) {
    const S answer = raw_exchange(server_.port(), request);
    const S status = request[0] == 'P' ? "413 Payload Too Large" : "400 Bad Request";
    const S error = request[0] == 'P' ? "request too large" : "bad request";
    EXPECT_EQ(answer.rfind("HTTP/1.1 " + status + "\r\n", 0), 0u) << answer;
    EXPECT_NE(answer.find(R"({"error":")" + error + "\"}"), S::npos) << answer;
  }
  // A body far larger than what the server reads before it answers: the answer must not be lost
  // to a reset. Then one that just fits.
  const S huge(1 << 20, 'b'), fits(1024, 'f');
  EXPECT_EQ(send(*s, M::POST, "/echo/upload", &huge), 413);
  EXPECT_EQ(send(*s, M::POST, "/echo/upload", &fits), 200);
  // The session's own I/O time-out, then the JSON layer's limit for the whole request, through a
  // wrapper over a session that would wait longer: a timed out GET is not sent again.
  EXPECT_EQ((std::tuple{send(*session(false, false, 0, 1), M::GET, "/wait"), resp_.status()}),
            std::tuple(-1, 0));
  JSON_HTTP_Session json(std::make_shared<HTTP_Session_Wrapper>(session(false, false, 0, 60)), 3,
                         1);
  EXPECT_FALSE(json.get(HTTP_Request(M::GET, "/wait"), resp_, nullptr));
  release.set_value();
  EXPECT_TRUE(log.count() == 3 && log.text().find("timeout") != log.text().rfind("timeout"))
      << log.text();
}

TEST_F(Http_Transport, TlsServesCurlAndTheClientButNoPlainTextOrUnverifiedPeer) {
  Temp_Dir dir;
  HTTP_Server::Options options;
  options.tls_cert = dir.file("cert.pem"), options.tls_key = dir.file("key.pem");
  const Run_Result made = run_program({"/usr/bin/env", "openssl", "req", "-x509", "-newkey",
                                       "rsa:2048", "-nodes", "-subj", "/CN=localhost", "-days", "2",
                                       "-keyout", options.tls_key, "-out", options.tls_cert});
  ASSERT_EQ(made.exit_code, 0) << made.err;
  start(options);
  Run_Result r = curl({"-k", "https://localhost:" + std::to_string(server_.port()) + "/echo"});
  EXPECT_TRUE(r.exit_code == 0 && r.out.find("\"tls\":true") != S::npos) << r.err << r.out;
  // Plain text fails the handshake and drops only that connection.
  EXPECT_EQ(raw_exchange(server_.port(), "GET /echo HTTP/1.1\r\n\r\n").find("HTTP/1.1"), S::npos);
  JSON_HTTP_Session json(session(true), 1, 30);
  const JSON_Value payload = {{"x", 1}};
  JSON_Value out;
  ASSERT_TRUE(json.post(HTTP_Request(M::POST, "/echo/tls"), &payload, resp_, &out));
  EXPECT_EQ(std::tuple(out["tls"], out["body"]), std::tuple(true, payload.dump()));
  Log_Capture log;
  auto strict = session(true, true);
  ASSERT_TRUE(strict);
  EXPECT_EQ((std::tuple{send(*strict, M::GET, "/echo"), resp_.status()}), std::tuple(-1, 0));
  // Half the files, or files that are not there, refuse to start.
  options.tls_cert = "/nonexistent/cert.pem";
  for (const char* key_file : {"", "/nonexistent/key.pem"})
    EXPECT_FALSE(HTTP_Server().start((options.tls_key = key_file, options)));
  EXPECT_TRUE(log.count() == 3 && log.contains("HTTPS needs both a certificate and a key file.") &&
              log.contains("TLS handshake with '127.0.0.1:"))
      << log.text();
  // A ready file holds an object only (the programs' own are read back by their tests).
  EXPECT_FALSE(write_ready_file(dir.file("list.json"), JSON_Value::array({1, 2})));
}

TEST_F(Http_Transport, ClientsRetryOnlyWhatMayBeRepeatedGiveStatusZeroAndLogNoSecret) {
  start();
  auto broken = std::make_shared<Failing_Session>(session());
  broken->failing = {1, 3};
  broken->headers().put("X-Access-Key", "k-123");  // "/keyed" answers 401 without it
  auto json = std::make_shared<JSON_HTTP_Session>(broken, 3, 30);
  JSON_RESTful_Client rest;
  rest.reset(json);
  Log_Capture log;
  HTTP_Response& resp = resp_;
  JSON_Value out;
  const JSON_Value body = {{"k", "v"}};
  // Send 1 breaks; the PUT goes again on send 2.
  ASSERT_TRUE(rest.put(HTTP_Request(M::PUT, "/keyed"), &body, resp, &out));
  EXPECT_EQ(std::tuple(out["body"], broken->sends), std::tuple(body.dump(), 2));
  // Send 3 breaks; a POST is not sent again.
  EXPECT_EQ((std::tuple{rest.post(HTTP_Request(M::POST, "/keyed"), &body, resp, &out),
                        resp.status(), out, broken->sends, log.count()}),
            std::tuple(false, 0, JSON_Value(), 3, 2u));
  // The request's own field wins over the session's.
  HTTP_Request own(M::GET, "/keyed");
  own.headers().put("X-Access-Key", "other");
  EXPECT_EQ((std::tuple{rest.get(own, resp, &out), resp.status()}), std::tuple(false, 401));
  // Not 2xx: false, status and headers kept, nothing logged (the caller reports it).
  EXPECT_FALSE(rest.post(HTTP_Request(M::POST, "/missing"), &body, resp, &out));
  EXPECT_EQ(std::tuple(resp.status(), field(resp, "Content-Type")),
            std::tuple(404, "application/json"));
  EXPECT_TRUE(rest.del(HTTP_Request(M::DELETE, "/empty"), resp, nullptr) && log.count() == 2)
      << log.text();
  // 2xx but not JSON: the JSON session gives null, the REST client false after one line.
  out = "stale";
  ASSERT_TRUE(json->get(HTTP_Request(M::GET, "/text"), resp, &out));
  EXPECT_FALSE(!out.is_null() || rest.get(HTTP_Request(M::GET, "/text"), resp, nullptr)) << out;
  EXPECT_EQ(std::tuple(resp.status(), log.count()), std::tuple(200, 3u)) << log.text();
  EXPECT_TRUE(log.contains("The answer to 'GET /text' from '127.0.0.1:")) << log.text();
  auto s = session(false, false, 100);
  for (const char* path : {"/echo x", "/echo\r\nX-Injected: 1", "echo", ""})
    EXPECT_EQ(send(*s, M::GET, path), -1) << path;
  // An answer above the limit, then a fresh connection.
  EXPECT_EQ((std::tuple{send(*s, M::GET, "/echo/too-large"), resp_.status()}), std::tuple(-1, 0));
  EXPECT_EQ(send(*s, M::DELETE, "/empty"), 204);
  // No server any more: only requests that may be repeated are sent again (one line per send).
  const S port = std::to_string(server_.port());
  server_.stop();
  server_.stop();  // idempotent
  s->headers().put("Authorization", "Basic c2VjcmV0");
  const JSON_Value secret = {{"password", "hunter2"}};
  for (HTTP_Method method : {M::GET, M::PUT, M::DELETE, M::POST}) {
    SCOPED_TRACE(http_method_string(method));
    Log_Capture log;
    JSON_HTTP_Session json(s, 3, 30);
    EXPECT_FALSE(json.send(HTTP_Request(method, "/echo"), &secret, resp_, nullptr));
    EXPECT_EQ(std::tuple(resp_.status(), log.count()), std::tuple(0, method == M::POST ? 1u : 3u));
    EXPECT_TRUE(log.contains("Failed to connect to '127.0.0.1:" + port + "'"));
    EXPECT_FALSE(log.contains("c2VjcmV0") || log.contains("hunter2")) << log.text();
  }
}

TEST_F(Http_Transport, UpstreamClientServesConcurrentCallersAndLogsFailuresWithoutTheKey) {
  HTTP_Server::Options options;
  options.threads = 4;
  start(options);
  Upstream_JSON_RESTful_Client& up = *Upstream_JSON_RESTful_Client::instance();
  up.configure("127.0.0.1", server_.port(), false, "k-123");
  // Only the right key gets past "/keyed"; every caller must get its own answer.
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        const S id = std::to_string(t) + "-" + std::to_string(i);
        HTTP_Request req(M::POST, "/keyed");
        HTTP_Query_String_Builder(req.query()).append("id", id);
        const JSON_Value body = {{"id", id}};
        JSON_Value out;
        if (up.post(req, body, out) && out["query"]["id"] == id && out["body"] == body.dump())
          ++good;
      }
    });
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(good, 80);
  up.configure("127.0.0.1", server_.port(), false, "wrong-key-456");
  Log_Capture log;
  HTTP_Request req(M::DELETE, "/keyed");
  HTTP_Query_String_Builder(req.query()).append("uuid", "u-1");
  JSON_Value out;
  EXPECT_EQ((std::tuple{up.del(req, out), out, log.count()}), std::tuple(false, JSON_Value(), 1u));
  EXPECT_TRUE(log.contains("'DELETE /keyed?uuid=u-1' to the backup server failed (status 401)") &&
              !log.contains("wrong-key-456"))
      << log.text();
  EXPECT_TRUE(up.send(req, nullptr, resp_, out));
  EXPECT_EQ(std::tuple(resp_.status(), out["error"]), std::tuple(401, "unknown access key"));
}
}  // namespace
