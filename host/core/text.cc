#include "host/core/text.h"

#include <iconv.h>
#include <langinfo.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cstring>

std::string string_sprintf(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  va_list ap2;
  va_copy(ap2, ap);
  int n = vsnprintf(nullptr, 0, format, ap);
  va_end(ap);
  std::string out;
  if (n > 0) {
    out.resize(static_cast<std::size_t>(n) + 1);
    vsnprintf(&out[0], out.size(), format, ap2);
    out.resize(static_cast<std::size_t>(n));
  }
  va_end(ap2);
  return out;
}

void filenamify(const std::string& in, std::string& out, unsigned int replacement) {
  out.clear();
  out.reserve(in.size());
  for (unsigned char c : in) {
    bool bad = c < 0x20 || c == 0x7f || std::strchr("/\\:*?\"<>|", c) != nullptr;
    out += bad ? static_cast<char>(replacement) : static_cast<char>(c);
  }
}

std::string& Pretty_Formatter::size_formatter(unsigned long bytes, std::string& out) const {
  static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (mode_ != 1 || bytes < 1024) {
    out = std::to_string(bytes) + " B";
    return out;
  }
  double v = static_cast<double>(bytes);
  int unit = 0;
  while (v >= 1024.0 && unit < 6) {
    v /= 1024.0;
    ++unit;
  }
  char buf[32];
  snprintf(buf, sizeof buf, "%.1f %s", v, units[unit]);
  out = buf;
  return out;
}

Hex_String_T::Hex_String_T(const void* data, std::size_t length) {
  static const char digits[] = "0123456789abcdef";
  const auto* p = static_cast<const unsigned char*>(data);
  text_.resize(length * 2);
  for (std::size_t i = 0; i < length; ++i) {
    text_[2 * i] = digits[p[i] >> 4];
    text_[2 * i + 1] = digits[p[i] & 15];
  }
}

Compound_Charset_Converter::Compound_Charset_Converter(const char* from, const char* to) {
  const char* target = to ? to : nl_langinfo(CODESET);
  iconv_t cd = iconv_open(target, from);
  cd_ = cd == reinterpret_cast<iconv_t>(-1) ? nullptr : cd;
}

Compound_Charset_Converter::~Compound_Charset_Converter() {
  if (cd_)
    iconv_close(static_cast<iconv_t>(cd_));
}

bool Compound_Charset_Converter::convert(const std::string& in, std::string& out) {
  if (!cd_)
    return false;
  auto cd = static_cast<iconv_t>(cd_);
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  std::string result(in.size() * 4 + 16, '\0');
  char* src = const_cast<char*>(in.data());
  size_t src_left = in.size();
  char* dst = &result[0];
  size_t dst_left = result.size();
  if (iconv(cd, &src, &src_left, &dst, &dst_left) == static_cast<size_t>(-1))
    return false;
  if (iconv(cd, nullptr, nullptr, &dst, &dst_left) == static_cast<size_t>(-1))
    return false;
  result.resize(result.size() - dst_left);
  out = std::move(result);
  return true;
}

std::string& uuid_string(std::string& out, bool compact) {
  uuid_t id;
  uuid_generate_random(id);
  char text[37];
  uuid_unparse_lower(id, text);
  out = text;
  if (compact)
    out.erase(std::remove(out.begin(), out.end(), '-'), out.end());
  return out;
}

std::string new_uuid() {
  std::string s;
  return uuid_string(s, false);
}
