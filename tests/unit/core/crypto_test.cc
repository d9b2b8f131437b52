#include "host/core/crypto.h"
#include "host/core/text.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

const char key[] = "P!L@O#V$A%R^N&3157";

TEST(Crypto, DigestsMatchKnownVectors) {
  MD_Generator md5("abc", 3, MD_MD5);
  EXPECT_EQ(Hex_String_T(md5.get(), md5.length()).str(), "900150983cd24fb0d6963f7d28e17f72");
  MD_Generator sha("abc", 3, MD_SHA256);
  EXPECT_EQ(Hex_String_T(sha.get(), sha.length()).str(),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  MD_Generator unknown("abc", 3, 99);
  EXPECT_EQ(unknown.get(), nullptr);
}

TEST(Crypto, EncryptDecryptRoundTripAndTamperDetection) {
  for (std::string plain : {std::string(), std::string("p"), std::string("Circle Of Life"),
                            std::string(1000, 'x'), std::string("\0\xff", 2)}) {
    std::string cipher;
    ASSERT_TRUE(encrypt_string(plain.data(), plain.size(), cipher, key, strlen(key)));
    if (plain.size() >= 8) {
      EXPECT_EQ(cipher.find(plain), std::string::npos);
    }
    Secure_String out;
    ASSERT_TRUE(decrypt_string(cipher, out, key, strlen(key)));
    EXPECT_EQ(std::string(out.data(), out.size()), plain);
  }
  std::string cipher, again;
  ASSERT_TRUE(encrypt_string("secret", 6, cipher, key, strlen(key)));
  ASSERT_TRUE(encrypt_string("secret", 6, again, key, strlen(key)));
  EXPECT_NE(cipher, again) << "a fresh nonce each time";

  Secure_String out = "untouched";
  EXPECT_FALSE(decrypt_string(cipher, out, "other key", 9));
  std::string raw;
  ASSERT_TRUE(base64_decode(cipher, raw));
  for (std::size_t i : {std::size_t(0), std::size_t(13), raw.size() - 1}) {
    std::string bad = raw;
    bad[i] ^= 1;
    EXPECT_FALSE(decrypt_string(base64_encode(bad.data(), bad.size()), out, key, strlen(key)))
        << "flipped byte " << i;
  }
  EXPECT_FALSE(decrypt_string(cipher.substr(0, 8), out, key, strlen(key)));
  EXPECT_FALSE(decrypt_string("not base64!", out, key, strlen(key)));
  EXPECT_FALSE(decrypt_string("", out, key, strlen(key)));
  EXPECT_EQ(std::string(out.data(), out.size()), "untouched");
}

TEST(Crypto, Base64RoundTripsEveryPaddingLength) {
  for (std::string s : {"", "a", "ab", "abc", "abcd"}) {
    std::string out;
    ASSERT_TRUE(base64_decode(base64_encode(s.data(), s.size()), out));
    EXPECT_EQ(out, s);
  }
  std::string out;
  EXPECT_FALSE(base64_decode("abc", out));
}

}  // namespace
