#include "host/http/http.h"

#include <gtest/gtest.h>

namespace {
using S = std::string;
using Map = std::map<S, S>;

TEST(Http_Text, UrlEncodingQueryStringsMethodsAndHeaders) {
  EXPECT_EQ(url_encode("AZaz09-_.~"), "AZaz09-_.~");
  EXPECT_EQ(url_encode(S("a b+k=v&/?#%\xc3\xa9\0", 15)), "a%20b%2Bk%3Dv%26%2F%3F%23%25%C3%A9%00");
  S all, back;
  for (int c = 0; c < 256; ++c)
    all += static_cast<char>(c);
  EXPECT_TRUE(url_decode(url_encode(all), back) && back == all);
  EXPECT_TRUE(url_decode("a%20b+c%2b%c3%A9", back) && back == "a b c+\xc3\xa9") << back;
  for (const char* bad : {"%", "abc%4", "%g4", "%4g"}) {
    S out = "untouched";
    EXPECT_FALSE(url_decode(bad, out) || out != "untouched") << bad;
  }
  // Query strings replace the map only when they parse.
  const std::pair<S, Map> rows[] = {{"", {}},
                                    {"a=1&a=2&b=", {{"a", "2"}, {"b", ""}}},
                                    {"&&flag&", {{"flag", ""}}},
                                    {"k%20y=v+w%26z&eq=a=b", {{"k y", "v w&z"}, {"eq", "a=b"}}},
                                    {"a=1&b=%zz", {{"stale", "entry"}}},
                                    {"%=1", {{"stale", "entry"}}}};
  for (const auto& [in, expected] : rows) {
    Map out = {{"stale", "entry"}};
    EXPECT_EQ(parse_query_string(in, out), !expected.count("stale")) << in;
    EXPECT_EQ(out, expected) << in;
  }
  // The builder's output parses back.
  HTTP_Request req(HTTP_Method::GET, "/a/b");
  EXPECT_EQ(req.uri(), "/a/b");
  HTTP_Query_String_Builder query(req.query());
  query.append("name", "a b&c=d/\xc3\xa9").append("with+plus", true).append("off", false);
  ASSERT_EQ(req.uri().rfind("/a/b?name=a%20b%26", 0), 0u) << req.uri();
  Map parsed, expected = {{"name", "a b&c=d/\xc3\xa9"}, {"with+plus", "true"}, {"off", "false"}};
  EXPECT_TRUE(parse_query_string(req.query(), parsed) && parsed == expected) << req.uri();
  // Method names are case-sensitive, header names are not.
  for (HTTP_Method m : {HTTP_Method::PUT, HTTP_Method::HEAD, HTTP_Method::PATCH})
    EXPECT_EQ(http_method_from_string(http_method_string(m)), m) << http_method_string(m);
  for (const char* unknown : {"get", "PROPFIND", ""})
    EXPECT_EQ(http_method_from_string(unknown), HTTP_Method::UNKNOWN) << unknown;
  HTTP_Headers h;
  h.add("Set-Cookie", "a=1"), h.add("set-cookie", "b=2"), h.add("Accept", "text/plain");
  ASSERT_EQ(h.fields().size(), 3u);
  EXPECT_EQ(*h.get("SET-COOKIE"), "a=1");
  // put replaces every field of that name, in any spelling.
  EXPECT_TRUE(h.put("SET-cookie", "c=3"));
  h.remove("ACCEPT");
  EXPECT_EQ(h.get("accept"), nullptr);
  // Fields that would split the message are refused.
  const std::pair<S, S> bad[] = {{"X", "v\r\nX-Injected: 1"}, {"X", "v\nX"}, {"X", S("v\0", 2)},
                                 {"Bad:Name", "v"},           {"", "v"},     {S("X\0Key", 5), "v"}};
  for (const auto& [name, value] : bad) {
    EXPECT_FALSE(h.put(name, value)) << name;
    h.add(name, value);
  }
  EXPECT_TRUE(h.fields().size() == 1 && *h.get("set-cookie") == "c=3");
}
}  // namespace
