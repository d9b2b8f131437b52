#include "host/core/log.h"
#include "host/storage/options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using Options = Client_IO_Base::Options;

class Log_Lines {
 public:
  Log_Lines() {
    id_ =
        add_log_sink([this](ACE_Log_Priority, const std::string& line) { lines.push_back(line); });
  }
  ~Log_Lines() { remove_log_sink(id_); }
  std::vector<std::string> lines;

 private:
  int id_;
};

JSON_Value dumped(const Options& opts) {
  JSON_Value out;
  opts >> out;
  return out;
}

// The agent and the servant exchange exactly this form.
TEST(Storage_Options, DefaultsAndTheirJsonForm) {
  EXPECT_EQ(dumped(Options()), JSON_Value::parse(R"({
      "connect_timeout": 30, "io_timeout": 300, "retry_count": 3, "retry_interval": 10,
      "compression": "zstd", "compression_level": 3, "encryption": false,
      "encryption_key_id": "", "access_mode": "direct", "extra": {}})"));
  // Members of the target that are not options stay.
  JSON_Value target = {{"other", 1}};
  Options() >> target;
  EXPECT_EQ(target["other"], 1);
  EXPECT_EQ(target.size(), 11u);
}

TEST(Storage_Options, RoundTripsEveryMember) {
  Options opts;
  opts.connect_timeout_ = 5;
  opts.io_timeout_ = 86400;
  opts.retry_count_ = 0;
  opts.retry_interval_ = 3600;
  opts.compression_ = Client_IO_Base::Compression::Lz4;
  opts.compression_level_ = 12;
  opts.encryption_ = true;
  opts.encryption_key_id_ = "key-7";
  opts.access_mode_ = Client_IO_Base::Access_Mode::Proxy;
  opts.extra_ = {{"region", "eu-1"}, {"part_size", 8}};

  Options back;
  ASSERT_TRUE(back << dumped(opts));
  EXPECT_EQ(dumped(back), dumped(opts));
  EXPECT_EQ(back.compression_, Client_IO_Base::Compression::Lz4);
  EXPECT_EQ(back.access_mode_, Client_IO_Base::Access_Mode::Proxy);
  EXPECT_EQ(back.encryption_key_id_, "key-7");
  EXPECT_EQ(back.extra_["region"], "eu-1");
}

TEST(Storage_Options, AbsentKeysKeepTheirValuesAndUnknownKeysAreIgnored) {
  Options opts;
  opts.retry_count_ = 9;
  const JSON_Value partial = {{"compression", "zlib"}, {"compression_level", 9}, {"x", true}};
  ASSERT_TRUE(opts << partial);
  EXPECT_EQ(opts.compression_, Client_IO_Base::Compression::Zlib);
  EXPECT_EQ(opts.compression_level_, 9);
  EXPECT_EQ(opts.retry_count_, 9);
  EXPECT_EQ(opts.connect_timeout_, 30);
  // No level applies without compression.
  const JSON_Value none = {{"compression", "none"}, {"compression_level", 0}};
  ASSERT_TRUE(opts << none);
  EXPECT_EQ(opts.compression_, Client_IO_Base::Compression::None);
}

// Each refusal is one log line and leaves the options as they were.
TEST(Storage_Options, RefusesWrongTypesAndValuesOutOfRange) {
  const std::pair<const char*, const char*> cases[] = {
      {"[]", "expected an object, got array"},
      {R"({"connect_timeout": "30"})", "'connect_timeout' is expected as integer"},
      {R"({"connect_timeout": 0})", "'connect_timeout' is expected in 1..86400, not 0"},
      {R"({"io_timeout": 86401})", "'io_timeout' is expected in 1..86400, not 86401"},
      {R"({"retry_count": -1})", "'retry_count' is expected in 0..1000, not -1"},
      {R"({"retry_interval": 3601})", "'retry_interval' is expected in 0..3600, not 3601"},
      {R"({"compression": "brotli"})", "unknown compression 'brotli'"},
      {R"({"compression": "ZSTD"})", "unknown compression 'ZSTD'"},
      {R"({"compression_level": 23})", "'compression_level' is expected in 1..22, not 23"},
      // The level is checked against the method it ends up with.
      {R"({"compression": "zlib", "compression_level": 10})",
       "'compression_level' is expected in 1..9, not 10"},
      {R"({"compression": "lz4", "compression_level": 0})",
       "'compression_level' is expected in 1..12, not 0"},
      {R"({"encryption": 1})", "'encryption' is expected as boolean"},
      {R"({"encryption": true})", "'encryption' needs an 'encryption_key_id'"},
      {R"({"access_mode": "tape"})", "unknown access mode 'tape'"},
      {R"({"extra": []})", "'extra' is expected as object"},
  };
  for (const auto& [json, message] : cases) {
    Options opts;
    opts.retry_count_ = 4;
    const JSON_Value before = dumped(opts);
    Log_Lines log;
    EXPECT_FALSE(opts << JSON_Value::parse(json)) << json;
    const std::string expected = std::string("Invalid storage I/O options: ") + message + ".\n";
    ASSERT_EQ(log.lines.size(), 1u) << json;
    const std::string& line = log.lines[0];
    EXPECT_EQ(line.substr(line.size() - std::min(line.size(), expected.size())), expected);
    EXPECT_EQ(dumped(opts), before) << json;
  }
}

}  // namespace
