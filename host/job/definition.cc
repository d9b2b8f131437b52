#include "host/job/definition.h"

#include <yajl/yajl_parse.h>

#include <cstring>
#include <map>

namespace {

bool is_part(const std::string& key) {
  return key == "source" || key == "options";
}

// A module's parser, destroyed by the creator that made it.
struct Part_Parser {
  YAJL_Handler_Creator* creator = nullptr;
  YAJL_Handler* handler = nullptr;
  ~Part_Parser() {
    if (handler)
      creator->destroy(handler);
  }
};

// Drives one parse: top-level members go to a JSON_Parser each, the parts to the module's
// parsers (or, before the module's parsers are known, to a JSON_Parser kept for later).
class Definition_Driver {
 public:
  Definition_Driver(Job_Definition& def, const Job_Definition::Parser_Resolver& resolver,
                    std::string& error)
      : def_(def), resolver_(resolver), error_(error) {}

  // Forwards one event to the member being read, or handles the top level.
  template <class F>
  int forward(F&& event) {
    if (!current_) {
      error_ = "a job definition is a JSON object";
      return 0;
    }
    if (!event(*current_)) {
      if (error_.empty())
        error_ = "invalid value of '" + key_ + "'";
      return 0;
    }
    return current_->complete() ? finish() : 1;
  }
  int start_value(bool map) {
    if (depth_ == 0 && !current_) {
      if (!map) {
        error_ = "a job definition is a JSON object";
        return 0;
      }
      depth_ = 1;
      return 1;
    }
    return 2;  // a member's value: forward it
  }
  int key(const char* text, std::size_t length) {
    if (current_)
      return forward([&](YAJL_Handler& h) { return h.on_map_key(text, length); });
    key_.assign(text, length);
    if (!begin_member())
      return 0;
    return 1;
  }
  int end_top() {
    depth_ = 0;
    ended_ = true;
    return 1;
  }
  bool in_member() const { return current_ != nullptr; }
  bool ended() const { return ended_; }

  // After the whole text: the parts kept for later go to their parsers now.
  bool finish_parse() {
    for (const char* part : {"source", "options"}) {
      auto pending = pending_.find(part);
      if (pending == pending_.end())
        continue;
      const JSON_Value& value = pending->second;
      key_ = part;
      if (!open_part(true))
        return false;
      if (!replay_json(value, *current_) || !current_->complete()) {
        error_ = "invalid value of '" + key_ + "'";
        return false;
      }
      if (!finish())
        return false;
    }
    return true;
  }

 private:
  bool begin_member() {
    // A part goes straight to its module's parser when the keys read so far find one; otherwise
    // it waits for the keys that follow ("module" may come last).
    if (is_part(key_) && def_.type != 0 && open_part(false))
      return true;
    json_.reset(new JSON_Parser);
    current_ = json_.get();
    return true;
  }
  bool open_part(bool last_chance) {
    YAJL_Handler_Creator* creator = resolver_(def_, key_.c_str());
    if (!creator && !last_chance)
      return false;
    if (!creator) {
      const char* type = job_type_name(def_.type);
      error_ = "no module parses the '" + key_ + "' of " + (type ? type : "this type of") +
               " jobs" + (def_.module.empty() ? "" : " in module '" + def_.module + "'");
      return false;
    }
    part_.reset(new Part_Parser{creator, creator->create()});
    if (!part_->handler) {
      error_ = "out of memory";
      return false;
    }
    current_ = part_->handler;
    return true;
  }
  int finish() {
    YAJL_Handler* done = current_;
    current_ = nullptr;
    if (done == json_.get()) {
      if (is_part(key_))
        pending_[key_] = std::move(json_->value());
      else if (!set_member(key_, json_->value()))
        return 0;
    } else if (key_ == "source") {
      def_.source = done->job_source();
    } else {
      def_.options = done->job_options();
    }
    if (is_part(key_) && done != json_.get() &&
        !(key_ == "source" ? !!def_.source : !!def_.options)) {
      error_ = "the parser of '" + key_ + "' gave no record";
      return 0;
    }
    json_.reset();
    part_.reset();
    return 1;
  }
  bool set_member(const std::string& key, const JSON_Value& value) {
    JSON_Value obj = {{key, value}};
    const char* k = key.c_str();
    try {
      std::string subtype;
      if (key == "subtype") {
        json_extract(obj, k, subtype);
        def_.subtype = job_def_subtype_from_string(subtype.data(), subtype.size());
        if (def_.subtype == Job_Definition_Subtype::Unknown)
          throw JSON_Error("unknown subtype '" + subtype + "'");
      }
      static const std::map<std::string, std::string Job_Definition::*> texts = {
          {"uid", &Job_Definition::uid},
          {"name", &Job_Definition::name},
          {"module", &Job_Definition::module},
          {"host_id", &Job_Definition::host_id},
          {"agent", &Job_Definition::agent},
          {"target_id", &Job_Definition::target_id},
          {"target_device", &Job_Definition::target_device},
          {"target_name", &Job_Definition::target_name},
          {"precondition", &Job_Definition::precondition},
          {"pre_action", &Job_Definition::pre_action},
          {"post_action", &Job_Definition::post_action}};
      static const std::map<std::string, unsigned Job_Definition::*> counts = {
          {"retry_count", &Job_Definition::retry_count},
          {"retry_interval", &Job_Definition::retry_interval},
          {"max_seconds_retry", &Job_Definition::max_seconds_retry}};
      static const std::map<std::string, bool Job_Definition::*> flags = {
          {"ignore_pre_action_failure", &Job_Definition::ignore_pre_action_failure},
          {"ignore_post_action_failure", &Job_Definition::ignore_post_action_failure},
          {"run_post_action_always", &Job_Definition::run_post_action_always}};
      if (auto t = texts.find(key); t != texts.end())
        json_extract(obj, k, def_.*(t->second));
      else if (auto c = counts.find(key); c != counts.end())
        json_extract(obj, k, def_.*(c->second));
      else if (auto f = flags.find(key); f != flags.end())
        json_extract(obj, k, def_.*(f->second));
      else if (key == "type")
        json_extract(obj, k, def_.type);
      else if (key == "schedule_type")
        json_extract(obj, k, def_.schedule_type);
    } catch (const std::exception& e) {
      error_ = e.what();
      return false;
    }
    return true;
  }

  Job_Definition& def_;
  const Job_Definition::Parser_Resolver& resolver_;
  std::string& error_;
  int depth_ = 0;
  bool ended_ = false;
  std::string key_;
  YAJL_Handler* current_ = nullptr;
  std::unique_ptr<JSON_Parser> json_;
  std::unique_ptr<Part_Parser> part_;
  std::map<std::string, JSON_Value> pending_;
};

Definition_Driver& driver(void* ctx) {
  return *static_cast<Definition_Driver*>(ctx);
}

const char* chars(const unsigned char* text) {
  return reinterpret_cast<const char*>(text);
}

int on_value(void* ctx, bool map, bool (YAJL_Handler::*start)()) {
  Definition_Driver& d = driver(ctx);
  if (!d.in_member()) {
    int r = d.start_value(map);
    if (r != 2)
      return r;
  }
  return d.forward([&](YAJL_Handler& h) { return (h.*start)(); });
}

const yajl_callbacks callbacks = {
    [](void* ctx) { return driver(ctx).forward([](YAJL_Handler& h) { return h.on_null(); }); },
    [](void* ctx, int v) {
      return driver(ctx).forward([&](YAJL_Handler& h) { return h.on_boolean(v != 0); });
    },
    nullptr,
    nullptr,
    [](void* ctx, const char* text, size_t n) {
      return driver(ctx).forward([&](YAJL_Handler& h) { return h.on_number(text, n); });
    },
    [](void* ctx, const unsigned char* text, size_t n) {
      return driver(ctx).forward([&](YAJL_Handler& h) { return h.on_string(chars(text), n); });
    },
    [](void* ctx) { return on_value(ctx, true, &YAJL_Handler::on_start_map); },
    [](void* ctx, const unsigned char* text, size_t n) { return driver(ctx).key(chars(text), n); },
    [](void* ctx) {
      Definition_Driver& d = driver(ctx);
      return d.in_member() ? d.forward([](YAJL_Handler& h) { return h.on_end_map(); })
                           : d.end_top();
    },
    [](void* ctx) { return on_value(ctx, false, &YAJL_Handler::on_start_array); },
    [](void* ctx) { return driver(ctx).forward([](YAJL_Handler& h) { return h.on_end_array(); }); },
};

}  // namespace

bool Job_Definition::parse(const std::string& text, const Parser_Resolver& resolver,
                           std::string& error) {
  error.clear();
  Definition_Driver d(*this, resolver, error);
  yajl_handle h = yajl_alloc(&callbacks, nullptr, &d);
  if (!h) {
    error = "out of memory";
    return false;
  }
  yajl_status st = yajl_parse(h, reinterpret_cast<const unsigned char*>(text.data()), text.size());
  if (st == yajl_status_ok)
    st = yajl_complete_parse(h);
  if (st != yajl_status_ok && error.empty()) {
    unsigned char* msg = yajl_get_error(h, 0, nullptr, 0);
    error = std::string("malformed JSON: ") + chars(msg);
    yajl_free_error(h, msg);
    while (!error.empty() && (error.back() == '\n' || error.back() == ' ' || error.back() == '.'))
      error.pop_back();
  }
  yajl_free(h);
  if (!error.empty() || !d.finish_parse())
    return false;
  for (auto [missing, what] : {std::pair<bool, const char*>{uid.empty(), "uid"},
                               {type == 0, "type"},
                               {!source, "source"},
                               {!options, "options"}})
    if (missing) {
      error = std::string("missing key '") + what + "'";
      return false;
    }
  return true;
}

std::string Job_Definition::generate() const {
  yajl_gen gen = yajl_gen_alloc(nullptr);
  if (!gen)
    return "";
  JSON_Value head = {{"uid", uid},
                     {"name", name},
                     {"type", type},
                     {"host_id", host_id},
                     {"agent", agent},
                     {"target_id", target_id},
                     {"target_device", target_device},
                     {"target_name", target_name},
                     {"retry_count", retry_count},
                     {"retry_interval", retry_interval},
                     {"max_seconds_retry", max_seconds_retry},
                     {"schedule_type", schedule_type},
                     {"precondition", precondition},
                     {"pre_action", pre_action},
                     {"post_action", post_action},
                     {"ignore_pre_action_failure", ignore_pre_action_failure},
                     {"ignore_post_action_failure", ignore_post_action_failure},
                     {"run_post_action_always", run_post_action_always}};
  if (!module.empty())
    head["module"] = module;
  if (subtype != Job_Definition_Subtype::Unknown)
    head["subtype"] = job_def_subtype_to_string(subtype);
  // Everything but the closing brace, then the parts.
  yajl_gen_status st = yajl_gen_map_open(gen);
  for (auto it = head.begin(); st == yajl_gen_status_ok && it != head.end(); ++it)
    if ((st = yajl_gen_string(gen, reinterpret_cast<const unsigned char*>(it.key().data()),
                              it.key().size())) == yajl_gen_status_ok)
      st = yajl_gen_json(gen, it.value());
  int options_status = 0;
  if (st == yajl_gen_status_ok && source &&
      (st = yajl_gen_string(gen, reinterpret_cast<const unsigned char*>("source"), 6)) ==
          yajl_gen_status_ok)
    source->generate(gen);
  if (st == yajl_gen_status_ok && options &&
      (st = yajl_gen_string(gen, reinterpret_cast<const unsigned char*>("options"), 7)) ==
          yajl_gen_status_ok)
    options_status = options->generate(gen);
  std::string out;
  const unsigned char* buf;
  size_t len;
  if (st == yajl_gen_status_ok && options_status == 0 &&
      yajl_gen_map_close(gen) == yajl_gen_status_ok &&
      yajl_gen_get_buf(gen, &buf, &len) == yajl_gen_status_ok)
    out.assign(chars(buf), len);
  yajl_gen_free(gen);
  return out;
}

const char* job_type_name(int type) {
  return type == Job_Definition::Backup    ? "backup"
         : type == Job_Definition::Restore ? "restore"
                                           : nullptr;
}
