#include "tests/unit/h3ccas/support.h"

#include "host/core/crypto.h"
#include "host/core/log.h"
#include "host/core/text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>

std::map<S, S> parse_auth_params(const S& text) {
  static const std::regex param(R"re(([\w-]+)=(?:"([^"]*)"|([^,\s]*)))re");
  std::map<S, S> out;
  for (std::sregex_iterator it(text.begin(), text.end(), param), end; it != end; ++it)
    out[(*it)[1]] = (*it)[2].matched ? (*it)[2].str() : (*it)[3].str();
  return out;
}

S md5_hex(const S& text) {
  MD_Generator md(text.data(), text.size(), MD_MD5);
  return Hex_String_T(md.get(), md.length()).str();
}
S encrypt_for_agent(const S& plain) {
  const char key[] = "P!L@O#V$A%R^N&3157";
  S cipher;
  EXPECT_TRUE(encrypt_string(plain.data(), plain.size(), cipher, key, std::strlen(key)));
  return cipher;
}
JSON_Value json(const S& text) {
  return JSON_Value::parse(text);
}

S messages(const Log_Capture& log) {
  static const std::regex prefix(R"(^\d{4}-\d\d-\d\d \S+ \[\d+:\d+\] [A-Z]+ \S+ )");
  S out, line;
  std::istringstream in(log.text());
  while (std::getline(in, line))
    out += std::regex_replace(line, prefix, "", std::regex_constants::format_first_only) + "\n";
  return out;
}

std::uint16_t free_port() {
  HTTP_Server server;
  std::uint16_t port = server.start(HTTP_Server::Options()) ? server.port() : 0;
  server.stop();
  return port;
}

namespace h3ccas {
CVM_Info make_cvm(std::uint16_t port, const S& user, const S& password) {
  CVM_Info cvm;
  JSON_Value entry = {{"host", "127.0.0.1"}, {"port", port}, {"ssl", false}};
  entry["username"] = user, entry["password"] = password;
  if (!cvm.load(entry, false))
    std::abort();
  return cvm;
}
}  // namespace h3ccas

const char* const Digest_Peer::realm = "VMC RESTful Web Services";
Digest_Peer::Answer Digest_Peer::json(S body, int status) {
  return {status, std::move(body), {{"Content-Type", "application/json"}}};
}
Digest_Peer::Digest_Peer() {
  JSON_Value admin = {{"operator", {{{"loginName", cvm_user}, {"groupId", "1"}}}}};
  set("/cas/casrs/operator/operatorInfoList", json(admin.dump()));
  set("/cas/casrs/datacenter/casVersion", json(R"({"data":"H3C CAS E0750"})"));
}

bool Digest_Peer::start() {
  server_.route_prefix(HTTP_Method::UNKNOWN, "/", [this](Req req, Res resp) { handle(req, resp); });
  HTTP_Server::Options options;
  options.threads = 2;
  return server_.start(options);
}

void Digest_Peer::set(const S& path, Answer answer) {
  std::lock_guard<std::mutex> lock(mutex_);
  answers_[path] = std::move(answer);
}
void Digest_Peer::answer_unsigned(Answer answer) {
  std::lock_guard<std::mutex> lock(mutex_);
  unsigned_answer_ = std::move(answer);
}
Digest_Peer::Record Digest_Peer::seen() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return seen_;
}

std::vector<S> Digest_Peer::targets(std::size_t from) const {
  std::vector<S> out;
  for (const auto& request : seen().accepted)
    out.push_back(request.target);
  out.erase(out.begin(), out.begin() + static_cast<long>(std::min(from, out.size())));
  return out;
}

// Called with the lock held.
bool Digest_Peer::verify(const HTTP_Server_Request& req, const std::map<S, S>& auth) {
  auto param = [&auth](const char* key) {
    auto it = auth.find(key);
    return it == auth.end() ? S() : it->second;
  };
  if (nonce_.empty() || param("nonce") != nonce_ || param("username") != cvm_user ||
      param("realm") != realm || param("uri") != req.target || param("qop") != "auth")
    return false;
  const S nc = param("nc");
  if (nc.size() != 8 || std::strtol(nc.c_str(), nullptr, 10) != last_nc_ + 1)
    return false;
  S ha1 = md5_hex(S(cvm_user) + ":" + realm + ":" + cvm_password);
  S ha2 = md5_hex(req.method_text + ":" + req.target);
  if (param("response") !=
      md5_hex(ha1 + ":" + nonce_ + ":" + nc + ":" + param("cnonce") + ":auth:" + ha2))
    return false;
  ++last_nc_;
  return true;
}

void Digest_Peer::handle(Req req, Res resp) {
  auto reply = [&resp](const Answer& answer) {
    resp.status = answer.status, resp.body = answer.body;
    for (const auto& [name, value] : answer.headers)
      resp.headers.put(name, value);
  };
  std::lock_guard<std::mutex> lock(mutex_);
  const S* authorization = req.headers.get("Authorization");
  if (!authorization && unsigned_answer_) {
    ++seen_.challenges;
    return reply(*unsigned_answer_);
  }
  std::map<S, S> auth;
  if (authorization)
    auth = parse_auth_params(authorization->substr(authorization->find(' ') + 1));
  if (!authorization || authorization->compare(0, 7, "Digest ") != 0 || !verify(req, auth)) {
    // A new challenge makes a new nonce; older ones are refused from then on.
    ++(authorization ? seen_.refusals : seen_.challenges);
    nonce_ = new_uuid(), last_nc_ = 0, resp.status = 401;
    resp.headers.put("WWW-Authenticate", S("Digest realm=\"") + realm +
                                             "\", qop=\"auth\", nonce=\"" + nonce_ +
                                             "\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"");
    // A refusal's own error header must not be taken for a CAS error.
    if (authorization)
      resp.headers.put("Error-Code", "401");
    return;
  }
  seen_.accepted.push_back({req.method_text, req.target, req.body, std::move(auth)});
  auto it = answers_.end();
  for (const S& key :
       {req.method_text + " " + req.target, req.method_text + " " + req.path, req.target, req.path})
    if (it == answers_.end())
      it = answers_.find(key);
  reply(it == answers_.end() ? Answer{404, "", {}} : it->second);
}
