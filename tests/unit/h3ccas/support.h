// Test support for the module: log capture, a client with an adjustable clock, and a small
// in-process CVM (HTTP digest authentication in front of canned answers).
#pragma once

#include "h3ccas/restful_client.h"
#include "host/core/json.h"
#include "host/http/server.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

const char cvm_user[] = "admin";
const char cvm_password[] = "Adm1n:p@ss";

// Log lines written while an object lives.
class Log_Capture {
 public:
  Log_Capture();
  ~Log_Capture();
  Log_Capture(const Log_Capture&) = delete;
  Log_Capture& operator=(const Log_Capture&) = delete;
  std::string text() const;
  bool contains(const std::string& piece) const { return text().find(piece) != std::string::npos; }

 private:
  mutable std::mutex mutex_;
  std::string text_;
  int id_;
};

// k=v and k="v" parameters of an Authorization value (after the scheme).
std::map<std::string, std::string> parse_auth_params(const std::string& text);
std::string md5_hex(const std::string& text);
// A password as the backup server stores it for this agent.
std::string encrypt_for_agent(const std::string& plain);
// A loopback port that nothing listens on (bound, read back and released).
std::uint16_t free_port();

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
  // Runs at each pause between polls, with the number of pauses so far.
  std::function<void(int)> on_sleep;

 protected:
  std::time_t now() const override { return clock; }
  void sleep_between_polls() override {
    ++sleeps;
    if (on_sleep)
      on_sleep(sleeps);
  }
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
    std::string method;
    std::string target;
    std::string body;
    std::map<std::string, std::string> auth;
  };
  static const char* const realm;
  static Answer json(std::string body, int status = 200);

  Digest_Peer();
  ~Digest_Peer() { server_.stop(); }
  bool start();
  std::uint16_t port() const { return server_.port(); }

  // The answer to signed requests on `path`; one set for a path with its query wins over the
  // bare path. Unknown paths get 404.
  void set(const std::string& path, Answer answer);
  // What requests without credentials get instead of a challenge.
  void answer_unsigned(Answer answer);
  // The next signed request is refused as if its nonce had expired.
  void expire_nonce();

  struct Record {
    int challenges = 0;  // requests without credentials
    int refusals = 0;    // signed requests answered 401
    std::vector<Signed_Request> accepted;
  };
  Record seen() const;

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

// A running Digest_Peer per test.
class Cas_Peer : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(peer_.start()); }
  h3ccas::CVM_Info cvm(const std::string& password = cvm_password) const {
    return h3ccas::make_cvm(peer_.port(), cvm_user, password);
  }
  Digest_Peer peer_;
};
