// HTTP messages as the clients and the server see them. No networking here.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

enum class HTTP_Method { GET, POST, PUT, DELETE, HEAD, PATCH, UNKNOWN };

const char* http_method_string(HTTP_Method method);
HTTP_Method http_method_from_string(const std::string& text);

// Header fields with case-insensitive names; put() replaces, add() appends another field.
class HTTP_Headers {
 public:
  // Null when absent.
  const std::string* get(const std::string& name) const;
  bool put(const std::string& name, const std::string& value);
  void add(const std::string& name, const std::string& value);
  void remove(const std::string& name);
  void reset() { fields_.clear(); }
  const std::vector<std::pair<std::string, std::string>>& fields() const { return fields_; }

 private:
  std::vector<std::pair<std::string, std::string>> fields_;
};

// Percent-encoding of a query key or value (RFC 3986 unreserved characters stay).
std::string url_encode(const std::string& text);
// Decodes %XX and '+'; false on a malformed escape.
bool url_decode(const std::string& text, std::string& out);
// "a=1&b=2" into a map (later duplicates win); false on a malformed escape.
bool parse_query_string(const std::string& query, std::map<std::string, std::string>& out);

// Appends URL-encoded key=value pairs, joined by '&', to a query buffer.
template <class Buffer>
class HTTP_Query_String_Builder_T {
 public:
  explicit HTTP_Query_String_Builder_T(Buffer& buffer) : buffer_(buffer) {}
  HTTP_Query_String_Builder_T& append(const std::string& key, const std::string& value) {
    if (!buffer_.empty())
      buffer_ += '&';
    buffer_ += url_encode(key);
    buffer_ += '=';
    buffer_ += url_encode(value);
    return *this;
  }
  // Without it a string literal would convert to bool and pick the overload below.
  HTTP_Query_String_Builder_T& append(const std::string& key, const char* value) {
    return append(key, std::string(value));
  }
  HTTP_Query_String_Builder_T& append(const std::string& key, bool value) {
    return append(key, std::string(value ? "true" : "false"));
  }

 private:
  Buffer& buffer_;
};
using HTTP_Query_String_Builder = HTTP_Query_String_Builder_T<std::string>;

class HTTP_Request {
 public:
  HTTP_Request(HTTP_Method method, std::string path) : method_(method), path_(std::move(path)) {}
  HTTP_Method method() const { return method_; }
  const std::string& path() const { return path_; }
  // The query string without '?', URL-encoded; fill it with HTTP_Query_String_Builder.
  std::string& query() { return query_; }
  const std::string& query() const { return query_; }
  // Path and query as sent on the request line.
  std::string uri() const { return query_.empty() ? path_ : path_ + "?" + query_; }
  HTTP_Headers& headers() { return headers_; }
  const HTTP_Headers& headers() const { return headers_; }

 private:
  HTTP_Method method_;
  std::string path_;
  std::string query_;
  HTTP_Headers headers_;
};

class HTTP_Response {
 public:
  // 0 until an answer has been read.
  int status() const { return status_; }
  void set_status(int status) { status_ = status; }
  HTTP_Headers& headers() { return headers_; }
  const HTTP_Headers& headers() const { return headers_; }
  std::string& body() { return body_; }
  const std::string& body() const { return body_; }
  void clear() {
    status_ = 0;
    headers_.reset();
    body_.clear();
  }

 private:
  int status_ = 0;
  HTTP_Headers headers_;
  std::string body_;
};
