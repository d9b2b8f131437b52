// The server side of HTTP digest authentication (RFC 2617, qop "auth", MD5) as a CVM runs it:
// fresh nonces with a lifetime, and per-nonce request counters that refuse replays.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>

namespace cas_sim {

enum class Digest_Verdict {
  OK,
  MISSING,    // no Authorization header
  MALFORMED,  // not "Digest ...", a parameter missing or unreadable, algorithm not MD5
  WRONG_REALM,
  WRONG_QOP,  // qop other than "auth"
  WRONG_URI,  // uri differs from the request target
  BAD_NC,     // nc not 1 to 8 decimal digits, or zero
  UNKNOWN_USER,
  UNKNOWN_NONCE,   // never issued, or forgotten
  STALE_NONCE,     // issued but older than the lifetime
  WRONG_RESPONSE,  // wrong password, or any hashed field altered
  REPLAYED_NC,     // nc not above the highest one accepted for this nonce
};

const char* digest_verdict_name(Digest_Verdict verdict);

// The parameters of an Authorization header value "Digest k=v, k=\"v\", ...". False on another
// scheme, a syntax error or a repeated parameter.
bool parse_digest_authorization(const std::string& value,
                                std::map<std::string, std::string>& params);

// RFC 2617 request-digest for qop "auth", lower-case hexadecimal. `nc` is hashed as given.
std::string digest_response(const std::string& user, const std::string& realm,
                            const std::string& password, const std::string& method,
                            const std::string& uri, const std::string& nonce, const std::string& nc,
                            const std::string& cnonce);

// Thread-safe.
class Digest_Verifier {
 public:
  // Seconds on a monotonic clock; replaceable so that tests can age nonces.
  using Clock = std::function<std::int64_t()>;
  // The password of a user; false for an unknown user.
  using Password_Lookup = std::function<bool(const std::string& user, std::string& password)>;

  Digest_Verifier(std::string realm, int lifetime_seconds, Clock clock = Clock());

  void set_lifetime(int seconds);
  // Issues a nonce and returns the WWW-Authenticate value that carries it:
  // Digest realm="...", qop="auth", nonce="..."[, stale=true]
  std::string challenge(bool stale);
  // Ages every nonce issued so far to the end of its lifetime: each is refused as stale from now
  // on, and forgotten a lifetime later, as if that time had passed. Returns how many.
  std::size_t expire_issued();
  // Checks the Authorization header (null when absent) of a request. On OK `user` names the
  // authenticated user and the request's nc becomes the nonce's highest.
  Digest_Verdict verify(const std::string& method, const std::string& target,
                        const std::string* authorization, const Password_Lookup& lookup,
                        std::string& user);

 private:
  struct Nonce_State {
    std::int64_t issued = 0;
    std::uint64_t highest_nc = 0;
  };
  void forget_old_i(std::int64_t now);

  const std::string realm_;
  Clock clock_;
  std::mutex mutex_;
  int lifetime_;
  std::unordered_map<std::string, Nonce_State> nonces_;
  std::deque<std::string> issue_order_;  // oldest first, to forget expired nonces
};

}  // namespace cas_sim
