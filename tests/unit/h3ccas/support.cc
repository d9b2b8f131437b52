#include "tests/unit/h3ccas/support.h"

#include "host/core/crypto.h"
#include "host/core/log.h"
#include "host/core/text.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

Log_Capture::Log_Capture() {
  id_ = add_log_sink([this](ACE_Log_Priority, const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    text_ += line;
  });
}

Log_Capture::~Log_Capture() {
  remove_log_sink(id_);
}

std::string Log_Capture::text() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return text_;
}

std::map<std::string, std::string> parse_auth_params(const std::string& text) {
  std::map<std::string, std::string> out;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == ','))
      ++i;
    std::size_t eq = text.find('=', i);
    if (eq == std::string::npos)
      break;
    std::string key = text.substr(i, eq - i);
    std::string value;
    i = eq + 1;
    if (i < text.size() && text[i] == '"') {
      std::size_t close = text.find('"', i + 1);
      if (close == std::string::npos)
        break;
      value = text.substr(i + 1, close - i - 1);
      i = close + 1;
    } else {
      std::size_t comma = text.find(',', i);
      if (comma == std::string::npos)
        comma = text.size();
      value = text.substr(i, comma - i);
      i = comma;
    }
    out[key] = value;
  }
  return out;
}

std::string md5_hex(const std::string& text) {
  MD_Generator md(text.data(), text.size(), MD_MD5);
  return Hex_String_T(md.get(), md.length()).str();
}

std::uint16_t free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0)
    return 0;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof addr;
  std::uint16_t port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) == 0)
    port = ntohs(addr.sin_port);
  close(fd);
  return port;
}

namespace h3ccas {

CVM_Info make_cvm(std::uint16_t port, const std::string& user, const std::string& password) {
  CVM_Info cvm;
  bool loaded = cvm.load({{"host", "127.0.0.1"},
                          {"port", port},
                          {"ssl", false},
                          {"username", user},
                          {"password", password}},
                         false);
  if (!loaded)
    std::abort();
  return cvm;
}

}  // namespace h3ccas

const char* const Digest_Peer::realm = "VMC RESTful Web Services";

Digest_Peer::Digest_Peer(std::string user, std::string password)
    : user_(std::move(user)), password_(std::move(password)) {}

bool Digest_Peer::start() {
  server_.route_prefix(
      HTTP_Method::UNKNOWN, "/",
      [this](const HTTP_Server_Request& req, HTTP_Server_Response& resp) { handle(req, resp); });
  HTTP_Server::Options options;
  options.threads = 2;
  return server_.start(options);
}

void Digest_Peer::set(const std::string& path, Answer answer) {
  std::lock_guard<std::mutex> lock(mutex_);
  answers_[path] = std::move(answer);
}

void Digest_Peer::set_json(const std::string& path, const JSON_Value& body, int status) {
  Answer answer;
  answer.status = status;
  answer.body = body.dump();
  answer.headers.emplace_back("Content-Type", "application/json");
  set(path, std::move(answer));
}

void Digest_Peer::expire_nonce() {
  std::lock_guard<std::mutex> lock(mutex_);
  nonce_.clear();
}

void Digest_Peer::set_challenge(const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  challenge_override_ = value;
  override_challenge_ = true;
}

void Digest_Peer::set_unsigned_status(int status) {
  std::lock_guard<std::mutex> lock(mutex_);
  unsigned_status_ = status;
}

int Digest_Peer::challenges() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return challenges_;
}

int Digest_Peer::refusals() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return refusals_;
}

std::vector<Digest_Peer::Signed_Request> Digest_Peer::accepted() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return accepted_;
}

// Called with the lock held. A new challenge makes a new nonce; older ones are refused.
void Digest_Peer::challenge(HTTP_Server_Response& resp, bool stale) {
  resp.status = 401;
  resp.body = "<html><body>401 Unauthorized</body></html>";
  if (override_challenge_) {
    if (!challenge_override_.empty())
      resp.headers.put("WWW-Authenticate", challenge_override_);
    return;
  }
  nonce_ = new_uuid();
  last_nc_ = 0;
  resp.headers.put("WWW-Authenticate", std::string("Digest realm=\"") + realm +
                                           "\", qop=\"auth\", nonce=\"" + nonce_ +
                                           "\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"" +
                                           (stale ? ", stale=true" : ""));
}

// Called with the lock held.
bool Digest_Peer::verify(const HTTP_Server_Request& req,
                         const std::map<std::string, std::string>& auth) {
  auto param = [&auth](const char* key) {
    auto it = auth.find(key);
    return it == auth.end() ? std::string() : it->second;
  };
  if (nonce_.empty() || param("nonce") != nonce_ || param("username") != user_ ||
      param("realm") != realm || param("uri") != req.target || param("qop") != "auth")
    return false;
  // CVM reads the count as decimal, and it must grow by one per request.
  const std::string nc = param("nc");
  if (nc.size() != 8 || std::strtol(nc.c_str(), nullptr, 10) != last_nc_ + 1)
    return false;
  std::string ha1 = md5_hex(user_ + ":" + realm + ":" + password_);
  std::string ha2 = md5_hex(req.method_text + ":" + req.target);
  std::string expected =
      md5_hex(ha1 + ":" + nonce_ + ":" + nc + ":" + param("cnonce") + ":auth:" + ha2);
  if (param("response") != expected)
    return false;
  ++last_nc_;
  return true;
}

void Digest_Peer::handle(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string* authorization = req.headers.get("Authorization");
  if (!authorization) {
    ++challenges_;
    if (unsigned_status_ == 401) {
      challenge(resp, false);
    } else {
      resp.status = unsigned_status_;
      resp.body = "{}";
    }
    return;
  }
  auto auth = parse_auth_params(authorization->substr(authorization->find(' ') + 1));
  if (authorization->compare(0, 7, "Digest ") != 0 || !verify(req, auth)) {
    ++refusals_;
    challenge(resp, true);
    // A refusal's own error headers must not be taken for a CAS error.
    resp.headers.put("Error-Code", "401");
    return;
  }
  accepted_.push_back({req.method_text, req.target, req.body, auth});
  auto it = answers_.find(req.path);
  if (it == answers_.end()) {
    resp.status = 404;
    return;
  }
  resp.status = it->second.status;
  resp.body = it->second.body;
  for (const auto& [name, value] : it->second.headers)
    resp.headers.put(name, value);
}
