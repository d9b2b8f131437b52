// Text helpers: bounded formatting, strict integer parsing, file-name cleaning, sizes, hex,
// character-set conversion and UUIDs.
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <limits>
#include <string>
#include <type_traits>

// A printf into a fixed buffer of N bytes; longer output is cut (truncated() tells).
template <std::size_t N>
class snprintf_t {
 public:
  snprintf_t(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list ap;
    va_start(ap, format);
    int n = vsnprintf(buf_, N, format, ap);
    va_end(ap);
    length_ = n < 0 ? 0 : (static_cast<std::size_t>(n) >= N ? N - 1 : static_cast<std::size_t>(n));
    truncated_ = n < 0 || static_cast<std::size_t>(n) >= N;
  }
  const char* c_str() const { return buf_; }
  operator const char*() const { return buf_; }
  std::size_t length() const { return length_; }
  bool truncated() const { return truncated_; }

 private:
  char buf_[N];
  std::size_t length_ = 0;
  bool truncated_ = false;
};

std::string string_sprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Strict decimal parser: one optional sign ('-' only for signed T), digits up to `end` or the
// first non-digit; `*stop` is left at the first character not consumed. errno: 0 on success,
// EINVAL for no digits (or a sign T cannot take), ERANGE on overflow (value = the type's limit).
template <class T>
T natoi(const char* begin, const char* end, const char** stop) {
  static_assert(std::is_integral_v<T>, "natoi parses integers");
  using U = std::make_unsigned_t<T>;
  if (stop)
    *stop = begin;
  if (!begin || begin == end || *begin == '\0') {
    errno = EINVAL;
    return 0;
  }
  const char* p = begin;
  bool negative = false;
  if (*p == '+' || *p == '-') {
    if (*p == '-') {
      if constexpr (std::is_unsigned_v<T>) {
        errno = EINVAL;
        return 0;
      }
      negative = true;
    }
    ++p;
  }
  U limit = negative ? static_cast<U>(static_cast<U>(std::numeric_limits<T>::max()) + 1)
                     : static_cast<U>(std::numeric_limits<T>::max());
  U value = 0;
  const char* digits = p;
  for (; p != end && *p >= '0' && *p <= '9'; ++p) {
    U digit = static_cast<U>(*p - '0');
    if (value > limit / 10 || (value == limit / 10 && digit > limit % 10)) {
      if (stop)
        *stop = p;
      errno = ERANGE;
      // The framework's parser gives the maximum for an overflow of either sign.
      return std::numeric_limits<T>::max();
    }
    value = static_cast<U>(value * 10 + digit);
  }
  if (p == digits) {
    errno = EINVAL;
    return 0;
  }
  if (stop)
    *stop = p;
  errno = 0;
  if (negative)
    return static_cast<T>(0 - value);
  return static_cast<T>(value);
}

// Replaces every character that may not stand in a file name ('/', '\\', NUL, control
// characters, and : * ? " < > |) by `replacement`.
void filenamify(const std::string& in, std::string& out, unsigned int replacement);

// Human-readable sizes. Mode 1: units of 1024 with one decimal place ("1.5 GiB", "512 B").
class Pretty_Formatter {
 public:
  explicit Pretty_Formatter(int mode) : mode_(mode) {}
  std::string& size_formatter(unsigned long bytes, std::string& out) const;

 private:
  int mode_;
};

// Bytes as lower-case hexadecimal text.
class Hex_String_T {
 public:
  Hex_String_T(const void* data, std::size_t length);
  const char* c_str() const { return text_.c_str(); }
  const std::string& str() const { return text_; }

 private:
  std::string text_;
};

// iconv between two character sets; a null `to` is the locale's own set.
class Compound_Charset_Converter {
 public:
  Compound_Charset_Converter(const char* from, const char* to);
  ~Compound_Charset_Converter();
  Compound_Charset_Converter(const Compound_Charset_Converter&) = delete;
  Compound_Charset_Converter& operator=(const Compound_Charset_Converter&) = delete;
  // False (nothing logged) when the input is not valid in `from` or cannot be represented.
  bool convert(const std::string& in, std::string& out);

 private:
  void* cd_;
};

// A random (version 4) UUID: "xxxxxxxx-xxxx-...", lower case; `compact` drops the hyphens.
std::string& uuid_string(std::string& out, bool compact);
std::string new_uuid();
