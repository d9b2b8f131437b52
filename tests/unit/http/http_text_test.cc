#include "host/http/http.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

namespace {

TEST(Http_Text, UrlEncodeEscapesAllButUnreserved) {
  struct Case {
    std::string in, out;
  } cases[] = {
      {"", ""},
      {"AZaz09-_.~", "AZaz09-_.~"},
      {"a b", "a%20b"},
      {"a+b", "a%2Bb"},
      {"k=v&x", "k%3Dv%26x"},
      {"/path?q#f", "%2Fpath%3Fq%23f"},
      {"caf\xc3\xa9", "caf%C3%A9"},
      {std::string("nul\0x", 5), "nul%00x"},
      {"%", "%25"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(url_encode(c.in), c.out) << c.in;
}

TEST(Http_Text, UrlDecodeAcceptsEscapesAndPlusAndRejectsBrokenEscapes) {
  struct Case {
    std::string in;
    bool ok;
    std::string out;
  } cases[] = {
      {"", true, ""},
      {"plain", true, "plain"},
      {"a%20b+c", true, "a b c"},
      {"%2b%2B", true, "++"},
      {"caf%c3%A9", true, "caf\xc3\xa9"},
      {"%00", true, std::string("\0", 1)},
      {"%", false, ""},
      {"abc%4", false, ""},
      {"%zz", false, ""},
      {"%4g", false, ""},
      {"%%41", false, ""},
  };
  for (const auto& c : cases) {
    std::string out = "untouched";
    EXPECT_EQ(url_decode(c.in, out), c.ok) << c.in;
    EXPECT_EQ(out, c.ok ? c.out : "untouched") << c.in;
  }
}

TEST(Http_Text, UrlDecodeInvertsEncodeForEveryByte) {
  std::string all;
  for (int c = 0; c < 256; ++c)
    all += static_cast<char>(c);
  std::string back;
  ASSERT_TRUE(url_decode(url_encode(all), back));
  EXPECT_EQ(back, all);
}

TEST(Http_Text, ParseQueryString) {
  using Map = std::map<std::string, std::string>;
  struct Case {
    std::string in;
    bool ok;
    Map out;
  } cases[] = {
      {"", true, {}},
      {"a=1&b=2", true, {{"a", "1"}, {"b", "2"}}},
      {"a=1&a=2", true, {{"a", "2"}}},
      {"flag&x=", true, {{"flag", ""}, {"x", ""}}},
      {"&&a=1&", true, {{"a", "1"}}},
      {"k%20y=v+w%26z", true, {{"k y", "v w&z"}}},
      {"eq=a=b", true, {{"eq", "a=b"}}},
      {"a=1&b=%zz", false, {}},
      {"%=1", false, {}},
  };
  const Map stale = {{"stale", "entry"}};
  for (const auto& c : cases) {
    Map out = stale;
    EXPECT_EQ(parse_query_string(c.in, out), c.ok) << c.in;
    // A failed parse leaves the map alone.
    EXPECT_EQ(out, c.ok ? c.out : stale) << c.in;
  }
}

TEST(Http_Text, QueryBuilderOutputParsesBack) {
  std::string query;
  HTTP_Query_String_Builder(query)
      .append("name", "a b&c=d/\xc3\xa9")
      .append("empty", "")
      .append("with+plus", true)
      .append("off", false);
  // Separators inside keys and values are escaped: exactly the three joints remain.
  EXPECT_EQ(std::count(query.begin(), query.end(), '&'), 3);
  EXPECT_EQ(query.find(' '), std::string::npos);
  std::map<std::string, std::string> parsed;
  ASSERT_TRUE(parse_query_string(query, parsed));
  EXPECT_EQ(
      parsed,
      (std::map<std::string, std::string>{
          {"name", "a b&c=d/\xc3\xa9"}, {"empty", ""}, {"with+plus", "true"}, {"off", "false"}}));
}

TEST(Http_Text, MethodNamesRoundTripAndAreCaseSensitive) {
  for (HTTP_Method m : {HTTP_Method::GET, HTTP_Method::POST, HTTP_Method::PUT, HTTP_Method::DELETE,
                        HTTP_Method::HEAD, HTTP_Method::PATCH}) {
    EXPECT_EQ(http_method_from_string(http_method_string(m)), m) << http_method_string(m);
  }
  EXPECT_EQ(http_method_from_string("get"), HTTP_Method::UNKNOWN);
  EXPECT_EQ(http_method_from_string("PROPFIND"), HTTP_Method::UNKNOWN);
  EXPECT_EQ(http_method_from_string(""), HTTP_Method::UNKNOWN);
}

TEST(Http_Text, HeadersAreCaseInsensitive) {
  HTTP_Headers h;
  EXPECT_EQ(h.get("Accept"), nullptr);
  h.add("Set-Cookie", "a=1");
  h.add("set-cookie", "b=2");
  h.add("Accept", "text/plain");
  ASSERT_NE(h.get("SET-COOKIE"), nullptr);
  EXPECT_EQ(*h.get("SET-COOKIE"), "a=1");
  EXPECT_EQ(h.fields().size(), 3u);

  // put replaces every field of that name, in any spelling.
  EXPECT_TRUE(h.put("SET-cookie", "c=3"));
  EXPECT_EQ(h.fields().size(), 2u);
  EXPECT_EQ(*h.get("Set-Cookie"), "c=3");

  h.remove("ACCEPT");
  EXPECT_EQ(h.get("accept"), nullptr);
  EXPECT_EQ(h.fields().size(), 1u);
  h.reset();
  EXPECT_TRUE(h.fields().empty());
}

TEST(Http_Text, HeadersRefuseFieldsThatWouldSplitTheMessage) {
  HTTP_Headers h;
  ASSERT_TRUE(h.put("X-Key", "good"));
  const std::pair<std::string, std::string> bad[] = {
      {"X-Key", "v\r\nX-Injected: 1"},
      {"X-Key", "v\nX"},
      {"X-Key", std::string("v\0", 2)},
      {"Bad Name", "v"},
      {"Bad:Name", "v"},
      {"", "v"},
      {std::string("X\0Key", 5), "v"},
  };
  for (const auto& [name, value] : bad) {
    EXPECT_FALSE(h.put(name, value)) << name;
    h.add(name, value);
  }
  ASSERT_EQ(h.fields().size(), 1u);
  EXPECT_EQ(*h.get("x-key"), "good");
}

TEST(Http_Text, RequestUriJoinsPathAndQuery) {
  HTTP_Request req(HTTP_Method::GET, "/a/b");
  EXPECT_EQ(req.uri(), "/a/b");
  HTTP_Query_String_Builder(req.query()).append("x", "1 2");
  EXPECT_EQ(req.uri(), "/a/b?x=1%202");
}

}  // namespace
