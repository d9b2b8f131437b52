#include "host/storage/options.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {
using Options = Client_IO_Base::Options;

JSON_Value dumped(const Options& opts, JSON_Value target = JSON_Value::object()) {
  return opts >> target, target;
}

// The agent writes the options into a servant's parameters and the servant reads them back.
TEST(Storage_Options, RoundTripsEveryMemberAndRefusesWrongTypesAndValues) {
  JSON_Value all = JSON_Value::parse(R"({
      "connect_timeout": 5, "io_timeout": 86400, "retry_count": 0, "retry_interval": 3600,
      "compression": "lz4", "compression_level": 12, "encryption": true,
      "encryption_key_id": "key-7", "access_mode": "proxy", "extra": {"region": "eu-1"}})");
  Options opts;
  ASSERT_TRUE(opts << all);
  all["other"] = 1;  // members of the target that are not options stay
  EXPECT_EQ(dumped(opts, {{"other", 1}}), all);
  EXPECT_TRUE(opts.compression_ == Client_IO_Base::Compression::Lz4 &&
              opts.access_mode_ == Client_IO_Base::Access_Mode::Proxy);
  // Absent keys keep their values, unknown keys are ignored, and "none" takes any level.
  ASSERT_TRUE((opts << JSON_Value{{"compression", "zlib"}, {"compression_level", 9}, {"x", 1}}));
  EXPECT_TRUE(opts.compression_ == Client_IO_Base::Compression::Zlib &&
              opts.compression_level_ == 9 && opts.retry_count_ == 0);
  ASSERT_TRUE((opts << JSON_Value{{"compression", "none"}, {"compression_level", 5}}));
  EXPECT_EQ(opts.compression_, Client_IO_Base::Compression::None);
  // Each refusal is one log line and leaves the options as they were.
  const std::pair<const char*, const char*> cases[] = {
      {"[]", "expected an object, got array"},
      {R"({"connect_timeout": "30"})", "'connect_timeout' is expected as integer"},
      {R"({"connect_timeout": 0})", "'connect_timeout' is expected in 1..86400, not 0"},
      {R"({"compression": "ZSTD"})", "unknown compression 'ZSTD'"},
      {R"({"compression_level": 23})", "'compression_level' is expected in 1..22, not 23"},
      // The level is checked against the method it ends up with.
      {R"({"compression": "zlib", "compression_level": 10})",
       "'compression_level' is expected in 1..9, not 10"},
      {R"({"encryption": true})", "'encryption' needs an 'encryption_key_id'"},
      {R"({"access_mode": "tape"})", "unknown access mode 'tape'"},
      {R"({"extra": []})", "'extra' is expected as object"},
  };
  for (const auto& [json, message] : cases) {
    opts = Options(), opts.retry_count_ = 4;
    const JSON_Value before = dumped(opts);
    Log_Capture log;
    EXPECT_FALSE(opts << JSON_Value::parse(json)) << json;
    EXPECT_TRUE(log.count() == 1 &&
                log.contains(std::string("Invalid storage I/O options: ") + message + ".\n"))
        << log.text();
    EXPECT_EQ(dumped(opts), before) << json;
  }
}
}  // namespace
