// Digests, the at-rest/in-transit string cipher and storage for secrets.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

// Frees memory only after overwriting it, so a secret does not linger on the heap.
template <class T>
struct Zeroing_Allocator {
  using value_type = T;
  Zeroing_Allocator() = default;
  template <class U>
  Zeroing_Allocator(const Zeroing_Allocator<U>&) {}
  T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }
  void deallocate(T* p, std::size_t n);
  template <class U>
  bool operator==(const Zeroing_Allocator<U>&) const {
    return true;
  }
  template <class U>
  bool operator!=(const Zeroing_Allocator<U>&) const {
    return false;
  }
};

void secure_zero(void* p, std::size_t n);

template <class T>
void Zeroing_Allocator<T>::deallocate(T* p, std::size_t n) {
  secure_zero(p, n * sizeof(T));
  std::allocator<T>().deallocate(p, n);
}

// A string for passwords: heap storage is zeroed when freed, and the inline (short-string)
// buffer is zeroed on destruction too.
class Secure_String
    : public std::basic_string<char, std::char_traits<char>, Zeroing_Allocator<char>> {
 public:
  using Base = std::basic_string<char, std::char_traits<char>, Zeroing_Allocator<char>>;
  using Base::Base;
  Secure_String() = default;
  Secure_String(const Secure_String&) = default;
  Secure_String(Secure_String&&) = default;
  Secure_String& operator=(const Secure_String&) = default;
  Secure_String& operator=(Secure_String&&) = default;
  ~Secure_String() { secure_zero(&(*this)[0], capacity()); }
};

// Message digests. Algorithm numbers are stable: they travel in configuration and code.
enum MD_Algorithm { MD_SHA1 = 1, MD_SHA256 = 2, MD_SHA512 = 3, MD_MD5 = 4 };

class MD_Generator {
 public:
  MD_Generator(const void* data, std::size_t length, int algorithm);
  // Null when the algorithm is unknown.
  const unsigned char* get() const { return length_ ? digest_ : nullptr; }
  std::size_t length() const { return length_; }

 private:
  unsigned char digest_[64];
  std::size_t length_ = 0;
};

// AES-256-GCM with key = SHA-256(key bytes); the text is base64 of nonce(12) | ciphertext |
// tag(16). decrypt_string fails (false, `plain` untouched) on bad base64, a short text or a wrong
// tag.
bool encrypt_string(const char* plain, std::size_t length, std::string& cipher, const char* key,
                    unsigned long key_length);
bool decrypt_string(const std::string& cipher, Secure_String& plain, const char* key,
                    unsigned long key_length);

// Compares secrets in time that does not depend on where they differ.
bool secrets_equal(const std::string& a, const std::string& b);

// Cryptographically random bytes; false when the generator fails.
bool random_bytes(void* out, std::size_t length);
std::string base64_encode(const void* data, std::size_t length);
bool base64_decode(const std::string& text, std::string& out);
