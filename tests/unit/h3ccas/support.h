// Test support for the module: log capture, a client with an adjustable clock, and a small
// in-process CVM stand-in (HTTP digest authentication in front of canned answers).
#pragma once

#include "h3ccas/restful_client.h"
#include "host/core/json.h"
#include "host/http/server.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

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

// "k=v, k2="v2"" parameters of an Authorization or WWW-Authenticate value (after the scheme).
std::map<std::string, std::string> parse_auth_params(const std::string& text);

std::string md5_hex(const std::string& text);

// A loopback port that nothing listens on (bound, read back and closed).
std::uint16_t free_port();

namespace h3ccas {

// A CVM entry with a clear password.
CVM_Info make_cvm(std::uint16_t port, const std::string& user, const std::string& password);

// The client with its digest state open and a clock the test sets.
class Test_Client : public RESTful_Client {
 public:
  explicit Test_Client(CVM_Info cvm) : RESTful_Client(std::move(cvm)) {}
  using RESTful_Client::auth_;
  using RESTful_Client::build_auth_header;
  std::time_t clock = 1700000000;

 protected:
  std::time_t now() const override { return clock; }
};

}  // namespace h3ccas

// RFC 2617 digest (qop "auth", nonce counts read as decimal, as CVM does). Only the nonce of the
// latest challenge is valid.
class Digest_Peer {
 public:
  struct Answer {
    int status = 200;
    std::string body;  // sent as is
    std::vector<std::pair<std::string, std::string>> headers;
  };
  // What one signed request carried.
  struct Signed_Request {
    std::string method;
    std::string target;
    std::string body;
    std::map<std::string, std::string> auth;
  };

  static const char* const realm;

  Digest_Peer(std::string user, std::string password);
  ~Digest_Peer() { server_.stop(); }

  bool start();
  std::uint16_t port() const { return server_.port(); }

  // The answer to authenticated requests on `path` (without query); unknown paths get 404.
  void set(const std::string& path, Answer answer);
  void set_json(const std::string& path, const JSON_Value& body, int status = 200);
  // The next signed request is refused as if its nonce had expired.
  void expire_nonce();
  // The WWW-Authenticate value of challenges; empty: none is sent.
  void set_challenge(const std::string& value);
  // Status for requests without credentials (401 unless changed).
  void set_unsigned_status(int status);

  int challenges() const;  // requests without credentials
  int refusals() const;    // signed requests answered 401
  std::vector<Signed_Request> accepted() const;

 private:
  void handle(const HTTP_Server_Request& req, HTTP_Server_Response& resp);
  void challenge(HTTP_Server_Response& resp, bool stale);
  bool verify(const HTTP_Server_Request& req, const std::map<std::string, std::string>& auth);

  const std::string user_;
  const std::string password_;
  HTTP_Server server_;
  mutable std::mutex mutex_;
  std::map<std::string, Answer> answers_;
  std::string nonce_;
  long last_nc_ = 0;
  std::string challenge_override_;
  bool override_challenge_ = false;
  int unsigned_status_ = 401;
  int challenges_ = 0;
  int refusals_ = 0;
  std::vector<Signed_Request> accepted_;
};
