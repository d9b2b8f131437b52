#include "host/storage/options.h"

#include "host/core/log.h"
#include "host/storage/codec.h"

namespace {

using Compression = Client_IO_Base::Compression;
using Access_Mode = Client_IO_Base::Access_Mode;

const struct {
  const char* name;
  Access_Mode value;
} s_access_modes[] = {{"direct", Access_Mode::Direct}, {"proxy", Access_Mode::Proxy}};

// The entry of a name table by name or by value; null when absent.
template <class Table>
auto by_name(const Table& table, const std::string& name) -> decltype(&table[0]) {
  for (const auto& e : table)
    if (name == e.name)
      return &e;
  return nullptr;
}

template <class Table, class Value>
auto by_value(const Table& table, Value value) -> decltype(&table[0]) {
  for (const auto& e : table)
    if (e.value == value)
      return &e;
  return nullptr;
}

void check_range(const char* key, int value, int min, int max) {
  if (value < min || value > max)
    throw JSON_Error(std::string("'") + key + "' is expected in " + std::to_string(min) + ".." +
                     std::to_string(max) + ", not " + std::to_string(value));
}

}  // namespace

bool operator<<(Client_IO_Base::Options& opts, const JSON_Value& value) {
  Client_IO_Base::Options o = opts;
  try {
    json_object(value);
    json_extract(value, "connect_timeout", o.connect_timeout_, false);
    json_extract(value, "io_timeout", o.io_timeout_, false);
    json_extract(value, "retry_count", o.retry_count_, false);
    json_extract(value, "retry_interval", o.retry_interval_, false);
    std::string text;
    if (json_extract(value, "compression", text, false)) {
      const Codec_Info* codec = codec_info(text);
      if (!codec)
        throw JSON_Error("unknown compression '" + text + "'");
      o.compression_ = codec->codec;
    }
    json_extract(value, "compression_level", o.compression_level_, false);
    json_extract(value, "encryption", o.encryption_, false);
    json_extract(value, "encryption_key_id", o.encryption_key_id_, false);
    if (json_extract(value, "access_mode", text, false)) {
      auto e = by_name(s_access_modes, text);
      if (!e)
        throw JSON_Error("unknown access mode '" + text + "'");
      o.access_mode_ = e->value;
    }
    json_extract_object(value, "extra", o.extra_, false);

    check_range("connect_timeout", o.connect_timeout_, 1, 86400);
    check_range("io_timeout", o.io_timeout_, 1, 86400);
    check_range("retry_count", o.retry_count_, 0, 1000);
    check_range("retry_interval", o.retry_interval_, 0, 3600);
    const Codec_Info* c = codec_info(o.compression_);
    if (!c)
      throw JSON_Error("unknown compression");
    if (c->codec != Compression::None)
      check_range("compression_level", o.compression_level_, c->min_level, c->max_level);
    if (o.encryption_ && o.encryption_key_id_.empty())
      throw JSON_Error("'encryption' needs an 'encryption_key_id'");
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid storage I/O options: %s.\n", e.what()));
    return false;
  }
  opts = std::move(o);
  return true;
}

void operator>>(const Client_IO_Base::Options& opts, JSON_Value& value) {
  if (!value.is_object())
    value = JSON_Value::object();
  const Codec_Info* compression = codec_info(opts.compression_);
  auto access_mode = by_value(s_access_modes, opts.access_mode_);
  value["connect_timeout"] = opts.connect_timeout_;
  value["io_timeout"] = opts.io_timeout_;
  value["retry_count"] = opts.retry_count_;
  value["retry_interval"] = opts.retry_interval_;
  value["compression"] = compression ? compression->name : "none";
  value["compression_level"] = opts.compression_level_;
  value["encryption"] = opts.encryption_;
  value["encryption_key_id"] = opts.encryption_key_id_;
  value["access_mode"] = access_mode ? access_mode->name : "direct";
  value["extra"] = opts.extra_;
}
