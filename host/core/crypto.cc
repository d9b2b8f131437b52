#include "host/core/crypto.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstring>

void secure_zero(void* p, std::size_t n) {
  if (p && n)
    OPENSSL_cleanse(p, n);
}

MD_Generator::MD_Generator(const void* data, std::size_t length, int algorithm) {
  const EVP_MD* md = nullptr;
  switch (algorithm) {
    case MD_SHA1:
      md = EVP_sha1();
      break;
    case MD_SHA256:
      md = EVP_sha256();
      break;
    case MD_SHA512:
      md = EVP_sha512();
      break;
    case MD_MD5:
      md = EVP_md5();
      break;
    default:
      return;
  }
  unsigned int n = 0;
  if (EVP_Digest(data, length, digest_, &n, md, nullptr) == 1)
    length_ = n;
}

bool secrets_equal(const std::string& a, const std::string& b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

bool random_bytes(void* out, std::size_t length) {
  return RAND_bytes(static_cast<unsigned char*>(out), static_cast<int>(length)) == 1;
}

std::string base64_encode(const void* data, std::size_t length) {
  std::string out(4 * ((length + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                          static_cast<const unsigned char*>(data), static_cast<int>(length));
  out.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
  return out;
}

bool base64_decode(const std::string& text, std::string& out) {
  if (text.size() % 4 != 0)
    return false;
  std::string buf(text.size() / 4 * 3 + 1, '\0');
  int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&buf[0]),
                          reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
  if (n < 0)
    return false;
  // EVP_DecodeBlock counts the padding as data bytes.
  std::size_t pad = 0;
  if (!text.empty() && text.back() == '=')
    pad = text.size() > 1 && text[text.size() - 2] == '=' ? 2 : 1;
  buf.resize(static_cast<std::size_t>(n) - pad);
  out = std::move(buf);
  return true;
}

namespace {

constexpr std::size_t nonce_size = 12;
constexpr std::size_t tag_size = 16;

struct Cipher_Ctx {
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  ~Cipher_Ctx() { EVP_CIPHER_CTX_free(ctx); }
};

void derive_key(const char* key, unsigned long key_length, unsigned char out[32]) {
  MD_Generator md(key, key_length, MD_SHA256);
  std::memcpy(out, md.get(), 32);
}

}  // namespace

bool encrypt_string(const char* plain, std::size_t length, std::string& cipher, const char* key,
                    unsigned long key_length) {
  unsigned char k[32];
  derive_key(key, key_length, k);
  std::string raw(nonce_size + length + tag_size, '\0');
  auto* out = reinterpret_cast<unsigned char*>(&raw[0]);
  Cipher_Ctx c;
  int n = 0;
  bool ok =
      c.ctx && random_bytes(out, nonce_size) &&
      EVP_EncryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, k, out) == 1 &&
      EVP_EncryptUpdate(c.ctx, out + nonce_size, &n, reinterpret_cast<const unsigned char*>(plain),
                        static_cast<int>(length)) == 1 &&
      EVP_EncryptFinal_ex(c.ctx, out + nonce_size + n, &n) == 1 &&
      EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_GET_TAG, tag_size, out + nonce_size + length) == 1;
  secure_zero(k, sizeof k);
  if (!ok)
    return false;
  cipher = base64_encode(raw.data(), raw.size());
  return true;
}

bool decrypt_string(const std::string& cipher, Secure_String& plain, const char* key,
                    unsigned long key_length) {
  std::string raw;
  if (!base64_decode(cipher, raw) || raw.size() < nonce_size + tag_size)
    return false;
  std::size_t length = raw.size() - nonce_size - tag_size;
  auto* in = reinterpret_cast<unsigned char*>(&raw[0]);
  unsigned char k[32];
  derive_key(key, key_length, k);
  Secure_String out(length, '\0');
  Cipher_Ctx c;
  int n = 0;
  bool ok =
      c.ctx && EVP_DecryptInit_ex(c.ctx, EVP_aes_256_gcm(), nullptr, k, in) == 1 &&
      EVP_DecryptUpdate(c.ctx, reinterpret_cast<unsigned char*>(&out[0]), &n, in + nonce_size,
                        static_cast<int>(length)) == 1 &&
      EVP_CIPHER_CTX_ctrl(c.ctx, EVP_CTRL_GCM_SET_TAG, tag_size, in + nonce_size + length) == 1 &&
      EVP_DecryptFinal_ex(c.ctx, reinterpret_cast<unsigned char*>(&out[0]) + n, &n) == 1;
  secure_zero(k, sizeof k);
  secure_zero(&raw[0], raw.size());
  if (!ok)
    return false;
  plain = std::move(out);
  return true;
}
