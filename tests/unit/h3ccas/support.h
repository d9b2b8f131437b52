// Test support for the module: a client with an adjustable clock, and a small in-process CVM
// (HTTP digest authentication in front of canned answers).
#pragma once

#include "h3ccas/restful_client.h"
#include "host/core/json.h"
#include "host/http/server.h"
#include "host/jsonrpc/jsonrpc.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using S = std::string;
using Req = const HTTP_Server_Request&;
using Res = HTTP_Server_Response&;
const char cvm_user[] = "admin";
const char cvm_password[] = "Adm1n:p@ss";

// k=v and k="v" parameters of an Authorization value (after the scheme).
std::map<std::string, std::string> parse_auth_params(const std::string& text);
std::string md5_hex(const std::string& text);
// A password as the backup server stores it for this agent.
std::string encrypt_for_agent(const std::string& plain);
// A loopback port that nothing listens on (bound, read back and released).
std::uint16_t free_port();
JSON_Value json(const std::string& text);
// The captured lines without their time, process, priority and source.
std::string messages(const Log_Capture& log);

namespace h3ccas {
// A CVM entry on 127.0.0.1 with a clear password.
CVM_Info make_cvm(std::uint16_t port, const std::string& user, const std::string& password);

// The client with its digest state open, a clock the test sets and task polls that do not sleep.
class Test_Client : public RESTful_Client {
 public:
  explicit Test_Client(CVM_Info cvm) : RESTful_Client(std::move(cvm)) {}
  using RESTful_Client::auth_;
  using RESTful_Client::build_auth_header;
  std::time_t clock = 1700000000;
  int sleeps = 0;
  std::function<void(int)> on_sleep = [](int) {};  // at each pause, with the count so far

 protected:
  std::time_t now() const override { return clock; }
  void sleep_between_polls() override { on_sleep(++sleeps); }
};
}  // namespace h3ccas

// RFC 2617 digest for cvm_user (qop "auth", nonce counts read as decimal and required to grow by
// one, as CVM does). Only the nonce of the latest challenge is valid. Until told otherwise it
// lists the user as an administrator (group "1") and reports version "H3C CAS E0750".
class Digest_Peer {
 public:
  struct Answer {
    int status = 200;
    std::string body;  // sent as is
    std::vector<std::pair<std::string, std::string>> headers;
  };
  struct Signed_Request {
    std::string method, target, body;
    std::map<std::string, std::string> auth;
  };
  struct Record {
    int challenges = 0, refusals = 0;  // requests without credentials; signed ones answered 401
    std::vector<Signed_Request> accepted;
  };
  static const char* const realm;
  static Answer json(std::string body, int status = 200);
  Digest_Peer();
  ~Digest_Peer() { server_.stop(); }
  bool start();
  std::uint16_t port() const { return server_.port(); }
  // The answer to signed requests on `path`, which "METHOD " may prefix; the method wins over
  // none, then a path with its query over the bare path. Unknown paths get 404.
  void set(const std::string& path, Answer answer);
  // What requests without credentials get instead of a challenge.
  void answer_unsigned(Answer answer);
  Record seen() const;
  // Targets of the accepted requests from the `from`th on.
  std::vector<std::string> targets(std::size_t from = 0) const;

 private:
  void handle(const HTTP_Server_Request& req, HTTP_Server_Response& resp);
  bool verify(const HTTP_Server_Request& req, const std::map<std::string, std::string>& auth);
  HTTP_Server server_;
  mutable std::mutex mutex_;
  std::map<std::string, Answer> answers_;
  std::optional<Answer> unsigned_answer_;
  std::string nonce_;
  long last_nc_ = 0;
  Record seen_;
};

// A JSON-RPC handler whose object handling a test calls directly.
template <class Handler>
struct Exposed : Handler {
  using Handler::handle_object_i;
  using Handler::Handler;
};

// The messages a JSON-RPC handler sends, as JSON.
class Capture_Channel : public JSON_RPC_Channel {
 public:
  int send(const JSON_RPC_Object& obj) override {
    sent.push_back(obj.to_json());
    return 0;
  }
  std::vector<JSON_Value> sent;
};

class Cas_Peer : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(peer_.start()); }
  h3ccas::CVM_Info cvm(const std::string& password = cvm_password) const {
    return h3ccas::make_cvm(peer_.port(), cvm_user, password);
  }
  Digest_Peer peer_;
};
