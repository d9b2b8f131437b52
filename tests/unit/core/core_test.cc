#include "host/core/crypto.h"
#include "host/core/json.h"
#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/text.h"
#include "host/core/worker_pool.h"
#include "host/job/subtype.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <tuple>

namespace {
// errno, value and characters consumed of natoi<T> over the whole text.
template <class T>
std::string parse(const char* text) {
  const char* stop = nullptr;
  const long long v = natoi<T>(text, text + strlen(text), &stop);
  const char* e = errno == ERANGE ? "ERANGE" : errno == EINVAL ? "EINVAL" : errno ? "?" : "ok";
  return string_sprintf("%s %lld %ld", e, v, long(stop - text));
}

TEST(Text, NatoiBoundedFormattingHelpersAndCharsets) {
  // natoi: rows "text|errno value consumed" as unsigned int, then as int.
  const std::vector<std::string> rows[] = {
      {"4294967295|ok 4294967295 10", "4294967296|ERANGE 4294967295 9", "+7|ok 7 2",
       "-0|EINVAL 0 0", "|EINVAL 0 0", "12 |ok 12 2", "x1|EINVAL 0 0", "+|EINVAL 0 0",
       "007|ok 7 3"},
      {"-2147483648|ok -2147483648 11", "-2147483649|ERANGE 2147483647 10",
       "2147483647|ok 2147483647 10", "2147483648|ERANGE 2147483647 9", "-12abc|ok -12 3"}};
  for (int is_int : {0, 1})
    for (const std::string& row : rows[is_int]) {
      const std::string text = row.substr(0, row.find('|'));
      EXPECT_EQ(is_int ? parse<int>(text.c_str()) : parse<unsigned>(text.c_str()),
                row.substr(text.size() + 1));
    }
  const char* stop = nullptr;
  EXPECT_EQ(natoi<unsigned long>("18446744073709551615", nullptr, &stop), ULONG_MAX);
  // Bounded formatting and helpers.
  snprintf_t<8> small("%s-%d", "abcde", 42);  // one byte short for the NUL
  EXPECT_TRUE(small.c_str() == std::string("abcde-4") && small.truncated() && small.length() == 7);
  snprintf_t<64> fits("%08d", 10);
  EXPECT_TRUE(fits.c_str() == std::string("00000010") && !fits.truncated());
  EXPECT_EQ(string_sprintf("%s=%u", "k", 5u), "k=5");
  EXPECT_EQ(string_sprintf("%s", std::string(5000, 'x').c_str()).size(), 5000u);
  std::string out;
  filenamify(std::string("a/b\\c:d*e?f\"g<h>i|j\x01k") + std::string(1, '\0') + "l", out, '_');
  EXPECT_EQ(out, "a_b_c_d_e_f_g_h_i_j_k_l");
  Pretty_Formatter pf(1);
  for (auto [size, text] :
       {std::pair(512ul, "512 B"), {1536ul, "1.5 KiB"}, {10ul << 30, "10.0 GiB"}})
    EXPECT_EQ(pf.size_formatter(size, out), text);
  const unsigned char bytes[] = {0x00, 0x7f, 0xab, 0xff};
  EXPECT_EQ(Hex_String_T(bytes, sizeof bytes).str(), "007fabff");
  std::string a, b;
  uuid_string(a, false), uuid_string(b, true);
  EXPECT_TRUE(a.size() == 36 && b.size() == 32 && b.find('-') == std::string::npos) << a << b;
  EXPECT_NE(new_uuid(), new_uuid());
  // Charset conversion refuses invalid input.
  Compound_Charset_Converter to_latin1("utf8", "ISO-8859-1"), to_utf8("utf8", "UTF-8");
  EXPECT_TRUE(to_latin1.convert("caf\xc3\xa9", out) && out == "caf\xe9");
  EXPECT_FALSE(to_latin1.convert("\xe4\xb8\xad", out) || to_utf8.convert("bad \xff\xfe", out));
  EXPECT_TRUE(to_utf8.convert("\xe4\xb8\xad\xe6\x96\x87", out) &&
              out == "\xe4\xb8\xad\xe6\x96\x87");
  EXPECT_FALSE(Compound_Charset_Converter("no-such-charset", nullptr).convert("x", out));
}

TEST(Json, ExtractorNamesKeyAndType) {
  JSON_Value obj = JSON_Value::parse(
      R"({"s":"x","n":70000,"neg":-1,"b":true,"o":{},"a":[],"d":1.5,"big":18446744073709551615})");
  std::string s;
  int n = 0;
  double d = 0;
  EXPECT_TRUE(json_extract(obj, "s", s) && json_extract(obj, "n", n) && json_extract(obj, "d", d));
  EXPECT_EQ(std::tuple(s, n, d), std::tuple("x", 70000, 1.5));
  std::string missing = "keep";
  EXPECT_FALSE(json_extract(obj, "absent", missing, false) || missing != "keep");
  std::uint16_t port = 0;
  std::uint64_t u = 0;  // a negative must not wrap round
  bool flag = false;
  JSON_Value o;
  const std::pair<std::function<void()>, const char*> cases[] = {
      {[&] { json_extract(obj, "n", port); }, "'n' is expected as integer in range"},
      {[&] { json_extract(obj, "neg", u); }, "'neg' is expected as integer in range"},
      {[&] { json_extract(obj, "big", n); }, "'big' is expected as integer in range"},
      {[&] { json_extract(obj, "s", n); }, "'s' is expected as integer"},
      {[&] { json_extract(obj, "d", n); }, "'d' is expected as integer"},
      {[&] { json_extract(obj, "s", flag); }, "'s' is expected as boolean"},
      {[&] { json_extract(obj, "n", s); }, "'n' is expected as string"},
      {[&] { json_extract(obj, "absent", s); }, "missing key 'absent'"},
      {[&] { json_extract_object(obj, "a", o); }, "'a' is expected as object"},
      {[&] { json_extract_array(obj, "o", o); }, "'o' is expected as array"},
      {[&] { json_extract(JSON_Value::array(), "s", s); }, "expected an object, got array"}};
  for (const auto& [extract, message] : cases) {
    try {
      extract();
      ADD_FAILURE() << "no exception: " << message;
    } catch (const JSON_Error& e) {
      EXPECT_STREQ(e.what(), message);
    }
  }
}

TEST(Paths, EverythingLivesUnderTheInstallRoot) {
  Temp_Dir dir;
  setenv("BRIMLET_ROOT", (dir.path() + "/").c_str(), 1);
  EXPECT_EQ(install_root(), dir.path());
  EXPECT_EQ(rooted_path("/etc/x"), dir.path() + "/etc/x");
  Path_Conf conf("/etc/opt/quorvex/brimlet5/$COMPONENT/servant", "h3c-cas", "svc.conf", 0750);
  std::string path, text;
  ASSERT_TRUE(conf.get(path));
  EXPECT_EQ(path, dir.path() + "/etc/opt/quorvex/brimlet5/h3c-cas/servant/svc.conf");
  struct stat st {};
  ASSERT_EQ(stat((dir.path() + "/etc/opt/quorvex/brimlet5/h3c-cas/servant").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0750u);
  for (const char* content : {"one", "two"})
    ASSERT_TRUE(write_file_atomic(dir.file("f"), content, 0600));
  EXPECT_TRUE(read_file(dir.file("f"), text) && text == "two");
  EXPECT_FALSE(write_file_atomic(dir.file("no/such/dir/f"), "x", 0600));
  unsetenv("BRIMLET_ROOT");
  EXPECT_EQ(install_root(), "");
}

TEST(Log, LinesCarryRelativeSourceAndReachSinks) {
  std::vector<std::string> lines;
  int id = add_log_sink([&](ACE_Log_Priority, const std::string& line) { lines.push_back(line); });
  Log_Options opts;
  opts.to_stderr = false;
  ASSERT_TRUE(open_log(opts));
  LOG_MSG((LM_ERROR, "Failed to open '%s' at %N:%l.\n", "x"));
  EXPECT_FALSE(CHECK_TRUE(lines.size() > 100));
  LOG_MSG((LM_DEBUG, "hidden unless debug\n"));
  remove_log_sink(id);
  LOG_MSG((LM_ERROR, "not seen by the removed sink\n"));
  ASSERT_EQ(lines.size(), 2u);
  const std::string src = "tests/unit/core/core_test.cc:";
  const std::string parts[] = {"ERROR " + src, "Failed to open 'x' at " + src, "EMERGENCY",
                               "Unexpected error in " + src, "lines.size() > 100:\n"};
  for (int i = 0; i < 5; ++i)  // the first two in the first line
    EXPECT_NE(lines[i < 2 ? 0 : 1].find(parts[i]), std::string::npos) << parts[i];
}

TEST(Worker_Pool, RunsEveryPostedJobBeforeJoining) {
  std::atomic<int> done{0};
  auto pool = std::make_unique<Worker_Pool>(3);
  for (int i = 0; i < 100; ++i)
    ASSERT_TRUE(pool->post([&] { ++done; }));
  pool.reset();  // joins
  EXPECT_EQ(done.load(), 100);
}

TEST(Job_Subtype, OnlyTheExactTextWithinItsLengthCounts) {
  using S = Job_Definition_Subtype;
  const std::string texts[] = {"full", "incremental", "differential", "Full", "full ",
                               "",     "differentia"};
  const S subtypes[] = {S::Full, S::Incremental, S::Differential};  // the rest: Unknown
  for (std::size_t i = 0; i < std::size(texts); ++i) {
    const S subtype = i < std::size(subtypes) ? subtypes[i] : S::Unknown;
    EXPECT_EQ(job_def_subtype_from_string(texts[i].c_str(), texts[i].size()), subtype) << i;
    EXPECT_TRUE(subtype == S::Unknown || job_def_subtype_to_string(subtype) == texts[i]) << i;
  }
  // The length bounds the text: a prefix of a longer buffer is read, no NUL needed.
  EXPECT_TRUE(job_def_subtype_from_string("fullness", 4) == S::Full &&
              job_def_subtype_from_string(nullptr, 0) == S::Unknown);
  EXPECT_STREQ(job_def_subtype_to_string(static_cast<S>(42)), "unknown");
}

const char key[] = "P!L@O#V$A%R^N&3157";

TEST(Crypto, DigestsEncryptionAndBase64) {
  MD_Generator md5("abc", 3, MD_MD5), sha("abc", 3, MD_SHA256), unknown("abc", 3, 99);
  EXPECT_EQ(Hex_String_T(md5.get(), md5.length()).str(), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Hex_String_T(sha.get(), sha.length()).str(),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(unknown.get(), nullptr);
  const std::string plains[] = {
      "", "p", "ab", "abc", "Circle Of Life", std::string(1000, 'x'), std::string("\0\xff", 2)};
  for (const std::string& plain : plains) {
    std::string cipher, raw;
    ASSERT_TRUE(encrypt_string(plain.data(), plain.size(), cipher, key, strlen(key)));
    EXPECT_TRUE(plain.size() < 8 || cipher.find(plain) == std::string::npos);
    Secure_String out;
    EXPECT_TRUE(decrypt_string(cipher, out, key, strlen(key)) &&
                std::string(out.data(), out.size()) == plain);
    EXPECT_TRUE(base64_decode(base64_encode(plain.data(), plain.size()), raw) && raw == plain);
  }
  std::string cipher, again, raw;
  ASSERT_TRUE(encrypt_string("secret", 6, cipher, key, strlen(key)) &&
              encrypt_string("secret", 6, again, key, strlen(key)));
  EXPECT_NE(cipher, again) << "a fresh nonce each time";
  Secure_String out = "untouched";
  EXPECT_FALSE(decrypt_string(cipher, out, "other key", 9));
  ASSERT_TRUE(base64_decode(cipher, raw));
  for (std::size_t i : {std::size_t(0), std::size_t(13), raw.size() - 1}) {
    const std::string bad = raw.substr(0, i) + char(raw[i] ^ 1) + raw.substr(i + 1);
    EXPECT_FALSE(decrypt_string(base64_encode(bad.data(), bad.size()), out, key, strlen(key))) << i;
  }
  for (const std::string& bad : {cipher.substr(0, 8), std::string("not base64!"), std::string()})
    EXPECT_FALSE(decrypt_string(bad, out, key, strlen(key))) << bad;
  EXPECT_TRUE(std::string(out.data(), out.size()) == "untouched" && !base64_decode("abc", raw));
}
}  // namespace
