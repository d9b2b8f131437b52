#include "sim/cas/digest.h"

#include "host/core/crypto.h"
#include "host/core/text.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>

namespace {

using cas_sim::Digest_Verdict;
using cas_sim::Digest_Verifier;

const char kRealm[] = "VMC RESTful Web Services";

std::string md5(const std::string& s) {
  MD_Generator md(s.data(), s.size(), MD_MD5);
  return Hex_String_T(md.get(), md.length()).str();
}

std::string nonce_of(const std::string& challenge) {
  std::size_t at = challenge.find("nonce=\"");
  if (at == std::string::npos)
    return "";
  at += 7;
  return challenge.substr(at, challenge.find('"', at) - at);
}

// A client as the CAS module signs requests: qop auth, MD5, nc as "%08d" in the hash and the
// header alike. Written out here rather than through digest_response() so that both sides are
// checked against each other.
struct Client {
  std::string user = "admin";
  std::string password = "secret";
  std::string realm = kRealm;
  std::string nonce;
  std::string cnonce = "6b8e4d21c0a34f6e";
  int nc = 0;

  std::string header(const std::string& method, const std::string& uri) {
    ++nc;
    char nc_text[16];
    snprintf(nc_text, sizeof nc_text, "%08d", nc);
    return header_with_nc(method, uri, nc_text);
  }
  std::string header_with_nc(const std::string& method, const std::string& uri,
                             const std::string& nc_text) const {
    std::string ha1 = md5(user + ":" + realm + ":" + password);
    std::string ha2 = md5(method + ":" + uri);
    std::string response = md5(ha1 + ":" + nonce + ":" + nc_text + ":" + cnonce + ":auth:" + ha2);
    return "Digest username=\"" + user + "\", realm=\"" + realm + "\", nonce=\"" + nonce +
           "\", uri=\"" + uri + "\", response=\"" + response + "\", qop=\"auth\", nc=" + nc_text +
           ", cnonce=\"" + cnonce + "\"";
  }
};

class Digest_Test : public ::testing::Test {
 protected:
  Digest_Test() : verifier_(kRealm, 300, [this] { return now_; }) {
    client_.nonce = nonce_of(verifier_.challenge(false));
  }

  Digest_Verdict verify(const std::string& method, const std::string& target,
                        const std::string& header) {
    return verifier_.verify(method, target, &header, lookup_, user_);
  }

  std::int64_t now_ = 1000;
  std::map<std::string, std::string> passwords_ = {{"admin", "secret"}, {"auditor", "other"}};
  Digest_Verifier::Password_Lookup lookup_ = [this](const std::string& u, std::string& p) {
    auto it = passwords_.find(u);
    if (it == passwords_.end())
      return false;
    p = it->second;
    return true;
  };
  Digest_Verifier verifier_;
  Client client_;
  std::string user_;
};

TEST(Digest, Rfc2617Example) {
  EXPECT_EQ(cas_sim::digest_response("Mufasa", "testrealm@host.com", "Circle Of Life", "GET",
                                     "/dir/index.html", "dcd98b7102dd2f0e8b11d0f600bfb0c093",
                                     "00000001", "0a4f113b"),
            "6629fae49393a05397450978507c4ef1");
}

TEST(Digest, ParsesAuthorizationHeaders) {
  struct Case {
    const char* header;
    bool ok;
    std::map<std::string, std::string> params;
  };
  const Case cases[] = {
      {"Digest username=\"admin\", qop=auth, nc=00000001",
       true,
       {{"username", "admin"}, {"qop", "auth"}, {"nc", "00000001"}}},
      {"  digest  Realm=\"a, b\",cnonce=\"x\\\"y\"", true, {{"realm", "a, b"}, {"cnonce", "x\"y"}}},
      {"Digest uri=\"/cas/casrs/vm?a=1&b=2\"", true, {{"uri", "/cas/casrs/vm?a=1&b=2"}}},
      {"Basic YWRtaW46c2VjcmV0", false, {}},
      {"Digestusername=\"a\"", false, {}},
      {"Digest ", false, {}},
      {"Digest username=\"admin", false, {}},                // no closing quote
      {"Digest username=\"a\", username=\"b\"", false, {}},  // repeated
      {"Digest username", false, {}},
      {"Digest =x", false, {}},
  };
  for (const Case& c : cases) {
    std::map<std::string, std::string> params;
    EXPECT_EQ(cas_sim::parse_digest_authorization(c.header, params), c.ok) << c.header;
    if (c.ok) {
      EXPECT_EQ(params, c.params) << c.header;
    }
  }
}

TEST_F(Digest_Test, ChallengeCarriesRealmQopAndAFreshNonce) {
  std::string first = verifier_.challenge(false);
  std::string second = verifier_.challenge(true);
  EXPECT_EQ(first.rfind("Digest realm=\"VMC RESTful Web Services\", qop=\"auth\", nonce=\"", 0), 0u)
      << first;
  EXPECT_EQ(first.find("stale"), std::string::npos);
  EXPECT_NE(second.find(", stale=true"), std::string::npos);
  EXPECT_NE(nonce_of(first), nonce_of(second));
  EXPECT_GE(nonce_of(first).size(), 16u);
}

TEST_F(Digest_Test, AcceptsTheModulesDecimalRequestCounter) {
  for (int i = 1; i <= 12; ++i) {
    std::string h = client_.header("GET", "/cas/casrs/operator/operatorInfoList");
    if (i == 10) {
      EXPECT_NE(h.find("nc=00000010"), std::string::npos) << h;
    }
    ASSERT_EQ(verify("GET", "/cas/casrs/operator/operatorInfoList", h), Digest_Verdict::OK)
        << "request " << i;
    EXPECT_EQ(user_, "admin");
  }
  // The hexadecimal form of eleven is not a decimal counter, even when correctly hashed.
  std::string hex = client_.header_with_nc("GET", "/cas/casrs/x", "0000000b");
  EXPECT_EQ(verify("GET", "/cas/casrs/x", hex), Digest_Verdict::BAD_NC);
}

TEST_F(Digest_Test, RefusesReplayedCounters) {
  std::string first = client_.header("GET", "/cas/casrs/a");
  std::string second = client_.header("GET", "/cas/casrs/a");
  ASSERT_EQ(verify("GET", "/cas/casrs/a", second), Digest_Verdict::OK);
  EXPECT_EQ(verify("GET", "/cas/casrs/a", second), Digest_Verdict::REPLAYED_NC);
  EXPECT_EQ(verify("GET", "/cas/casrs/a", first), Digest_Verdict::REPLAYED_NC);
  EXPECT_EQ(user_, "");
  EXPECT_EQ(verify("GET", "/cas/casrs/a", client_.header("GET", "/cas/casrs/a")),
            Digest_Verdict::OK);
}

TEST_F(Digest_Test, ARefusedRequestDoesNotAdvanceTheCounter) {
  Client intruder = client_;
  intruder.password = "guess";
  intruder.nc = 4;
  EXPECT_EQ(verify("GET", "/cas/casrs/a", intruder.header("GET", "/cas/casrs/a")),
            Digest_Verdict::WRONG_RESPONSE);
  EXPECT_EQ(verify("GET", "/cas/casrs/a", client_.header("GET", "/cas/casrs/a")),
            Digest_Verdict::OK);
}

TEST_F(Digest_Test, NonceExpiresAfterItsLifetime) {
  now_ += 299;
  EXPECT_EQ(verify("GET", "/cas/casrs/a", client_.header("GET", "/cas/casrs/a")),
            Digest_Verdict::OK);
  now_ += 1;
  EXPECT_EQ(verify("GET", "/cas/casrs/a", client_.header("GET", "/cas/casrs/a")),
            Digest_Verdict::STALE_NONCE);
  // A fresh challenge starts a new lifetime.
  client_.nonce = nonce_of(verifier_.challenge(true));
  client_.nc = 0;
  EXPECT_EQ(verify("GET", "/cas/casrs/a", client_.header("GET", "/cas/casrs/a")),
            Digest_Verdict::OK);
}

TEST_F(Digest_Test, ShorterLifetimeAppliesToIssuedNonces) {
  now_ += 10;
  verifier_.set_lifetime(10);
  EXPECT_EQ(verify("GET", "/cas/casrs/a", client_.header("GET", "/cas/casrs/a")),
            Digest_Verdict::STALE_NONCE);
}

TEST_F(Digest_Test, LongExpiredNoncesAreForgotten) {
  now_ += 600;
  verifier_.challenge(false);  // issuing is when old nonces are dropped
  EXPECT_EQ(verify("GET", "/cas/casrs/a", client_.header("GET", "/cas/casrs/a")),
            Digest_Verdict::UNKNOWN_NONCE);
}

TEST_F(Digest_Test, RefusesWhatDoesNotMatchTheRequestOrTheServer) {
  const std::string target = "/cas/casrs/vm/vmList?hostId=1";
  struct Case {
    const char* what;
    std::function<std::string(Client&)> header;
    Digest_Verdict verdict;
  };
  const Case cases[] = {
      {"uri of another path", [](Client& c) { return c.header("GET", "/cas/casrs/vm/vmList"); },
       Digest_Verdict::WRONG_URI},
      {"method differs from the hashed one", [&](Client& c) { return c.header("POST", target); },
       Digest_Verdict::WRONG_RESPONSE},
      {"wrong password",
       [&](Client& c) {
         c.password = "Secret";
         return c.header("GET", target);
       },
       Digest_Verdict::WRONG_RESPONSE},
      {"another user's password",
       [&](Client& c) {
         c.user = "auditor";
         return c.header("GET", target);
       },
       Digest_Verdict::WRONG_RESPONSE},
      {"unknown user",
       [&](Client& c) {
         c.user = "root";
         return c.header("GET", target);
       },
       Digest_Verdict::UNKNOWN_USER},
      {"other realm",
       [&](Client& c) {
         c.realm = "other";
         return c.header("GET", target);
       },
       Digest_Verdict::WRONG_REALM},
      {"nonce never issued",
       [&](Client& c) {
         c.nonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
         return c.header("GET", target);
       },
       Digest_Verdict::UNKNOWN_NONCE},
      {"qop auth-int",
       [&](Client& c) {
         std::string h = c.header("GET", target);
         return h.replace(h.find("qop=\"auth\""), 10, "qop=\"auth-int\"");
       },
       Digest_Verdict::WRONG_QOP},
      {"no cnonce",
       [&](Client& c) {
         std::string h = c.header("GET", target);
         return h.substr(0, h.find(", cnonce="));
       },
       Digest_Verdict::MALFORMED},
      {"algorithm SHA-256",
       [&](Client& c) { return c.header("GET", target) + ", algorithm=SHA-256"; },
       Digest_Verdict::MALFORMED},
      {"algorithm MD5 is fine",
       [&](Client& c) { return c.header("GET", target) + ", algorithm=MD5"; }, Digest_Verdict::OK},
      {"basic scheme", [](Client&) { return std::string("Basic YWRtaW46c2VjcmV0"); },
       Digest_Verdict::MALFORMED},
      {"nc zero", [&](Client& c) { return c.header_with_nc("GET", target, "00000000"); },
       Digest_Verdict::BAD_NC},
      {"nc of nine digits", [&](Client& c) { return c.header_with_nc("GET", target, "000000001"); },
       Digest_Verdict::BAD_NC},
      {"nc with a sign", [&](Client& c) { return c.header_with_nc("GET", target, "+0000001"); },
       Digest_Verdict::BAD_NC},
  };
  for (const Case& c : cases) {
    Client client = client_;
    client.nonce = nonce_of(verifier_.challenge(false));
    EXPECT_EQ(verify("GET", target, c.header(client)), c.verdict) << c.what;
  }
  EXPECT_EQ(verifier_.verify("GET", target, nullptr, lookup_, user_), Digest_Verdict::MISSING);
}

}  // namespace
