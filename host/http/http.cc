#include "host/http/http.h"

#include "host/core/log.h"

#include <strings.h>

#include <cctype>
#include <cstring>

namespace {

struct Method_Name {
  HTTP_Method method;
  const char* name;
};

const Method_Name method_names[] = {
    {HTTP_Method::GET, "GET"},       {HTTP_Method::POST, "POST"}, {HTTP_Method::PUT, "PUT"},
    {HTTP_Method::DELETE, "DELETE"}, {HTTP_Method::HEAD, "HEAD"}, {HTTP_Method::PATCH, "PATCH"},
};

bool same_name(const std::string& a, const std::string& b) {
  return a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

// RFC 7230 token characters: anything else in a field name could split or smuggle a message.
bool valid_field_name(const std::string& name) {
  if (name.empty())
    return false;
  for (unsigned char c : name) {
    if (!isalnum(c) && (c == 0 || !strchr("!#$%&'*+-.^_`|~", c)))
      return false;
  }
  return true;
}

bool valid_field_value(const std::string& value) {
  return value.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

bool valid_field(const std::string& name, const std::string& value) {
  if (valid_field_name(name) && valid_field_value(value))
    return true;
  // The value may be a secret: name only.
  LOG_MSG((LM_ERROR, "Refused HTTP header field '%s': invalid name or value.\n",
           valid_field_name(name) ? name.c_str() : "?"));
  return false;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

}  // namespace

const char* http_method_string(HTTP_Method method) {
  for (const auto& m : method_names) {
    if (m.method == method)
      return m.name;
  }
  return "UNKNOWN";
}

HTTP_Method http_method_from_string(const std::string& text) {
  // Method names are case-sensitive (RFC 7231 4.1).
  for (const auto& m : method_names) {
    if (text == m.name)
      return m.method;
  }
  return HTTP_Method::UNKNOWN;
}

const std::string* HTTP_Headers::get(const std::string& name) const {
  for (const auto& field : fields_) {
    if (same_name(field.first, name))
      return &field.second;
  }
  return nullptr;
}

bool HTTP_Headers::put(const std::string& name, const std::string& value) {
  if (!valid_field(name, value))
    return false;
  remove(name);
  fields_.emplace_back(name, value);
  return true;
}

void HTTP_Headers::add(const std::string& name, const std::string& value) {
  if (valid_field(name, value))
    fields_.emplace_back(name, value);
}

void HTTP_Headers::remove(const std::string& name) {
  for (auto it = fields_.begin(); it != fields_.end();) {
    it = same_name(it->first, name) ? fields_.erase(it) : it + 1;
  }
}

std::string url_encode(const std::string& text) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

bool url_decode(const std::string& text, std::string& out) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+') {
      decoded += ' ';
    } else if (c != '%') {
      decoded += c;
    } else {
      if (i + 2 >= text.size())
        return false;
      int high = hex_digit(text[i + 1]);
      int low = hex_digit(text[i + 2]);
      if (high < 0 || low < 0)
        return false;
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    }
  }
  out = std::move(decoded);
  return true;
}

bool parse_query_string(const std::string& query, std::map<std::string, std::string>& out) {
  std::map<std::string, std::string> parsed;
  std::size_t begin = 0;
  while (begin <= query.size()) {
    std::size_t end = query.find('&', begin);
    if (end == std::string::npos)
      end = query.size();
    if (end > begin) {
      std::string pair = query.substr(begin, end - begin);
      std::size_t eq = pair.find('=');
      std::string key, value;
      if (!url_decode(pair.substr(0, eq), key))
        return false;
      if (eq != std::string::npos && !url_decode(pair.substr(eq + 1), value))
        return false;
      parsed[key] = std::move(value);
    }
    begin = end + 1;
  }
  out = std::move(parsed);
  return true;
}
