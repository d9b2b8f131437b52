#include "sim/cas/digest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <tuple>

namespace {
using cas_sim::Digest_Verdict;

const char kRealm[] = "VMC RESTful Web Services";
const char kTarget[] = "/cas/casrs/vm/vmList?hostId=1";
std::string nonce_of(const std::string& challenge) {
  std::size_t at = challenge.find("nonce=\"") + 7;
  return challenge.substr(at, challenge.find('"', at) - at);
}

// Signs a GET of kTarget as the CAS module does: qop auth, MD5, nc as "%08d" hashed as sent.
struct Client {
  std::string password = "secret";
  std::string nonce;
  int nc = 0;
  std::string header(std::string nc_text = "") {
    const std::string counted = std::to_string(++nc);
    nc_text = nc_text.empty() ? std::string(8 - counted.size(), '0') + counted : nc_text;
    const std::string response = cas_sim::digest_response("admin", kRealm, password, "GET", kTarget,
                                                          nonce, nc_text, "6b8e4d21");
    return "Digest username=\"admin\", realm=\"" + std::string(kRealm) + "\", nonce=\"" + nonce +
           "\", uri=\"" + kTarget + "\", response=\"" + response +
           "\", qop=\"auth\", nc=" + nc_text + ", cnonce=\"6b8e4d21\"";
  }
};

class Digest_Test : public ::testing::Test {
 protected:
  Digest_Test() { client_.nonce = nonce_of(verifier_.challenge(false)); }
  Digest_Verdict verify(const std::string& header, const std::string& method = "GET") {
    return verifier_.verify(method, kTarget, &header, lookup_, user_);
  }
  Digest_Verdict next() { return verify(client_.header()); }
  std::int64_t now_ = 1000;
  cas_sim::Digest_Verifier::Password_Lookup lookup_ = [](const std::string& u, std::string& p) {
    return (p = u == "admin" ? "secret" : "other", u == "admin" || u == "auditor");
  };
  cas_sim::Digest_Verifier verifier_{kRealm, 300, [this] { return now_; }};
  Client client_;
  std::string user_;
};

TEST_F(Digest_Test, CountsRefusesParsesHashesAndAges) {
  for (int i = 1; i <= 12; ++i)  // 00000010 follows 00000009
    ASSERT_TRUE(next() == Digest_Verdict::OK && user_ == "admin") << "request " << i;
  // Eleven in hexadecimal is not a decimal counter, even when correctly hashed.
  EXPECT_EQ(verify(client_.header("0000000b")), Digest_Verdict::BAD_NC);
  for (const char* old : {"00000012", "00000003"})
    EXPECT_TRUE(verify(client_.header(old)) == Digest_Verdict::REPLAYED_NC && user_.empty()) << old;
  // A refused request, here with a wrong password, does not advance the counter.
  Client intruder{"guess", client_.nonce, 40};
  EXPECT_EQ(verify(intruder.header()), Digest_Verdict::WRONG_RESPONSE);
  EXPECT_EQ(next(), Digest_Verdict::OK);
  EXPECT_EQ(verify(client_.header(), "POST"), Digest_Verdict::WRONG_RESPONSE);
  EXPECT_EQ(verifier_.verify("GET", kTarget, nullptr, lookup_, user_), Digest_Verdict::MISSING);
  // Edits of a correctly signed header: from, to, verdict.
  const std::tuple<const char*, const char*, Digest_Verdict> cases[] = {
      {"?hostId=1\", response", "\", response", Digest_Verdict::WRONG_URI},  // the path alone
      {"username=\"admin\"", "username=\"auditor\"", Digest_Verdict::WRONG_RESPONSE},
      {"username=\"admin\"", "username=\"root\"", Digest_Verdict::UNKNOWN_USER},
      {"realm=\"", "realm=\"Other ", Digest_Verdict::WRONG_REALM},
      {"nonce=\"", "nonce=\"0", Digest_Verdict::UNKNOWN_NONCE},
      {"qop=\"auth\"", "qop=\"auth-int\"", Digest_Verdict::WRONG_QOP},
      {", cnonce=", ", xnonce=", Digest_Verdict::MALFORMED},
      {", qop=", ", algorithm=SHA-256, qop=", Digest_Verdict::MALFORMED},
      {", qop=", ", algorithm=MD5, qop=", Digest_Verdict::OK},
      {"nc=00000001", "nc=00000000", Digest_Verdict::BAD_NC},
      {"nc=00000001", "nc=000000001", Digest_Verdict::BAD_NC},
      {"nc=00000001", "nc=+0000001", Digest_Verdict::BAD_NC}};
  for (const auto& [from, to, verdict] : cases) {
    Client client{"secret", nonce_of(verifier_.challenge(false))};
    std::string header = client.header();
    EXPECT_EQ(verify(header.replace(header.find(from), strlen(from), to)), verdict) << to;
  }
  // Nonces go stale after their lifetime and are forgotten later.
  // The RFC 2617 example and the parsing of Authorization fields.
  EXPECT_EQ(cas_sim::digest_response("Mufasa", "testrealm@host.com", "Circle Of Life", "GET",
                                     "/dir/index.html", "dcd98b7102dd2f0e8b11d0f600bfb0c093",
                                     "00000001", "0a4f113b"),
            "6629fae49393a05397450978507c4ef1");
  std::map<std::string, std::string> params;  // names folded to lower case, quotes undone
  ASSERT_TRUE(cas_sim::parse_digest_authorization(
      "  digest  Realm=\"a, b\",cnonce=\"x\\\"y\", nc=00000001", params));
  EXPECT_EQ(params, (std::map<std::string, std::string>{
                        {"realm", "a, b"}, {"cnonce", "x\"y"}, {"nc", "00000001"}}));
  for (const char* bad :
       {"Basic YWRtaW46c2VjcmV0", "Digestusername=\"a\"", "Digest ", "Digest username=\"admin",
        "Digest username=\"a\", username=\"b\"", "Digest username"})
    EXPECT_FALSE(cas_sim::parse_digest_authorization(bad, params)) << bad;
  now_ += 299;
  EXPECT_EQ(next(), Digest_Verdict::OK);
  now_ += 1;
  EXPECT_EQ(next(), Digest_Verdict::STALE_NONCE);
  EXPECT_EQ(verifier_.challenge(false).find("stale"), std::string::npos);
  const std::string fresh = verifier_.challenge(true);  // a fresh nonce starts a new lifetime
  EXPECT_NE(fresh.find(", stale=true"), std::string::npos) << fresh;
  client_.nonce = nonce_of(fresh);
  EXPECT_EQ(next(), Digest_Verdict::OK);
  now_ += 10;
  verifier_.set_lifetime(10);  // applies to nonces already issued
  EXPECT_EQ(next(), Digest_Verdict::STALE_NONCE);
  now_ += 20;
  std::string latest = verifier_.challenge(false);  // issuing is when old nonces are dropped
  EXPECT_EQ(next(), Digest_Verdict::UNKNOWN_NONCE);
  // Aged on request, without the clock moving.
  client_.nonce = nonce_of(latest);
  EXPECT_EQ(verifier_.expire_issued(), 1u);
  EXPECT_EQ(next(), Digest_Verdict::STALE_NONCE);
}
}  // namespace
