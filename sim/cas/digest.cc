#include "sim/cas/digest.h"

#include "host/core/crypto.h"
#include "host/core/text.h"

#include <algorithm>
#include <cctype>
#include <chrono>

namespace cas_sim {

namespace {

// Stale nonces are kept for another lifetime so that a late client hears "stale" rather than
// "unknown"; beyond this many the oldest are forgotten whatever their age.
constexpr std::size_t max_nonces = 100000;

std::string md5_hex(const std::string& text) {
  MD_Generator md(text.data(), text.size(), MD_MD5);
  return Hex_String_T(md.get(), md.length()).str();
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool is_space(char c) {
  return c == ' ' || c == '\t';
}

std::int64_t steady_seconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

const char* digest_verdict_name(Digest_Verdict verdict) {
  switch (verdict) {
    case Digest_Verdict::OK:
      return "ok";
    case Digest_Verdict::MISSING:
      return "no credentials";
    case Digest_Verdict::MALFORMED:
      return "malformed credentials";
    case Digest_Verdict::WRONG_REALM:
      return "wrong realm";
    case Digest_Verdict::WRONG_QOP:
      return "wrong qop";
    case Digest_Verdict::WRONG_URI:
      return "uri differs from the request";
    case Digest_Verdict::BAD_NC:
      return "bad nc";
    case Digest_Verdict::UNKNOWN_USER:
      return "unknown user";
    case Digest_Verdict::UNKNOWN_NONCE:
      return "unknown nonce";
    case Digest_Verdict::STALE_NONCE:
      return "stale nonce";
    case Digest_Verdict::WRONG_RESPONSE:
      return "wrong response";
    case Digest_Verdict::REPLAYED_NC:
      return "replayed nc";
  }
  return "?";
}

bool parse_digest_authorization(const std::string& value,
                                std::map<std::string, std::string>& params) {
  params.clear();
  std::size_t i = 0, n = value.size();
  while (i < n && is_space(value[i]))
    ++i;
  if (n - i < 7 || lower(value.substr(i, 6)) != "digest" || !is_space(value[i + 6]))
    return false;
  i += 7;
  for (;;) {
    while (i < n && (is_space(value[i]) || value[i] == ','))
      ++i;
    if (i == n)
      return !params.empty();
    std::size_t key_start = i;
    while (i < n && value[i] != '=' && !is_space(value[i]) && value[i] != ',')
      ++i;
    std::string key = lower(value.substr(key_start, i - key_start));
    while (i < n && is_space(value[i]))
      ++i;
    if (key.empty() || i == n || value[i] != '=')
      return false;
    ++i;
    while (i < n && is_space(value[i]))
      ++i;
    std::string text;
    if (i < n && value[i] == '"') {
      for (++i; i < n && value[i] != '"'; ++i) {
        if (value[i] == '\\' && i + 1 < n)
          ++i;
        text += value[i];
      }
      if (i == n)
        return false;  // no closing quote
      ++i;
    } else {
      std::size_t start = i;
      while (i < n && value[i] != ',' && !is_space(value[i]))
        ++i;
      text = value.substr(start, i - start);
    }
    if (!params.emplace(std::move(key), std::move(text)).second)
      return false;
  }
}

std::string digest_response(const std::string& user, const std::string& realm,
                            const std::string& password, const std::string& method,
                            const std::string& uri, const std::string& nonce, const std::string& nc,
                            const std::string& cnonce) {
  std::string ha1 = md5_hex(user + ":" + realm + ":" + password);
  std::string ha2 = md5_hex(method + ":" + uri);
  return md5_hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":auth:" + ha2);
}

Digest_Verifier::Digest_Verifier(std::string realm, int lifetime_seconds, Clock clock)
    : realm_(std::move(realm)),
      clock_(clock ? std::move(clock) : Clock(steady_seconds)),
      lifetime_(lifetime_seconds) {}

void Digest_Verifier::set_lifetime(int seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  lifetime_ = seconds;
}

void Digest_Verifier::forget_old_i(std::int64_t now) {
  while (!issue_order_.empty()) {
    auto it = nonces_.find(issue_order_.front());
    if (it != nonces_.end() && nonces_.size() <= max_nonces &&
        now - it->second.issued < 2 * static_cast<std::int64_t>(lifetime_))
      break;
    if (it != nonces_.end())
      nonces_.erase(it);
    issue_order_.pop_front();
  }
}

std::size_t Digest_Verifier::expire_issued() {
  std::int64_t now = clock_();
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& entry : nonces_)
    entry.second.issued = std::min(entry.second.issued, now - lifetime_);
  return nonces_.size();
}

std::string Digest_Verifier::challenge(bool stale) {
  std::string nonce;
  uuid_string(nonce, true);
  std::int64_t now = clock_();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    forget_old_i(now);
    nonces_[nonce].issued = now;
    issue_order_.push_back(nonce);
  }
  std::string value = "Digest realm=\"" + realm_ + "\", qop=\"auth\", nonce=\"" + nonce + "\"";
  if (stale)
    value += ", stale=true";
  return value;
}

Digest_Verdict Digest_Verifier::verify(const std::string& method, const std::string& target,
                                       const std::string* authorization,
                                       const Password_Lookup& lookup, std::string& user) {
  user.clear();
  if (!authorization)
    return Digest_Verdict::MISSING;
  std::map<std::string, std::string> p;
  if (!parse_digest_authorization(*authorization, p))
    return Digest_Verdict::MALFORMED;
  for (const char* key : {"username", "realm", "nonce", "uri", "response", "qop", "nc", "cnonce"})
    if (!p.count(key))
      return Digest_Verdict::MALFORMED;
  if (p.count("algorithm") && lower(p["algorithm"]) != "md5")
    return Digest_Verdict::MALFORMED;
  if (p["realm"] != realm_)
    return Digest_Verdict::WRONG_REALM;
  if (p["qop"] != "auth")
    return Digest_Verdict::WRONG_QOP;
  if (p["uri"] != target)
    return Digest_Verdict::WRONG_URI;

  // The request counter is decimal text ("%08d"), hashed exactly as received.
  const std::string& nc_text = p["nc"];
  if (nc_text.empty() || nc_text.size() > 8 ||
      !std::all_of(nc_text.begin(), nc_text.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return Digest_Verdict::BAD_NC;
  std::uint64_t nc = natoi<std::uint64_t>(nc_text.data(), nc_text.data() + nc_text.size(), nullptr);
  if (nc == 0)
    return Digest_Verdict::BAD_NC;

  std::string password;
  if (!lookup || !lookup(p["username"], password))
    return Digest_Verdict::UNKNOWN_USER;
  std::string expected = digest_response(p["username"], realm_, password, method, target,
                                         p["nonce"], nc_text, p["cnonce"]);

  std::lock_guard<std::mutex> lock(mutex_);
  auto it = nonces_.find(p["nonce"]);
  if (it == nonces_.end())
    return Digest_Verdict::UNKNOWN_NONCE;
  if (clock_() - it->second.issued >= lifetime_)
    return Digest_Verdict::STALE_NONCE;
  if (lower(p["response"]) != expected)
    return Digest_Verdict::WRONG_RESPONSE;
  if (nc <= it->second.highest_nc)
    return Digest_Verdict::REPLAYED_NC;
  it->second.highest_nc = nc;
  user = p["username"];
  return Digest_Verdict::OK;
}

}  // namespace cas_sim
