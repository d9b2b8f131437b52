#include "host/job/yajl_parser.h"

bool JSON_Parser::on_number(const char* text, std::size_t length) {
  JSON_Value v = JSON_Value::parse(text, text + length, nullptr, false);
  return !v.is_discarded() && v.is_number() && add(std::move(v));
}

bool JSON_Parser::on_start_map() {
  if (!add(JSON_Value::object()))
    return false;
  done_ = false;
  return true;
}

bool JSON_Parser::on_start_array() {
  if (!add(JSON_Value::array()))
    return false;
  done_ = false;
  return true;
}

bool JSON_Parser::on_map_key(const char* text, std::size_t length) {
  if (open_.empty() || !open_.back()->is_object())
    return false;
  key_.assign(text, length);
  return true;
}

// Places `v` where the next value goes; a container stays open until its end event.
bool JSON_Parser::add(JSON_Value v) {
  if (done_)
    return false;
  bool container = v.is_structured();
  JSON_Value* slot;
  if (open_.empty()) {
    value_ = std::move(v);
    slot = &value_;
    done_ = !container;
  } else if (open_.back()->is_object()) {
    slot = &(*open_.back())[key_];
    *slot = std::move(v);
  } else {
    open_.back()->push_back(std::move(v));
    slot = &open_.back()->back();
  }
  if (container)
    open_.push_back(slot);
  return true;
}

bool JSON_Parser::end() {
  if (open_.empty())
    return false;
  open_.pop_back();
  done_ = open_.empty();
  return true;
}

bool replay_json(const JSON_Value& value, YAJL_Handler& handler) {
  switch (value.type()) {
    case JSON_Value::value_t::null:
      return handler.on_null();
    case JSON_Value::value_t::boolean:
      return handler.on_boolean(value.get<bool>());
    case JSON_Value::value_t::string: {
      const auto& s = value.get_ref<const std::string&>();
      return handler.on_string(s.data(), s.size());
    }
    case JSON_Value::value_t::object:
      if (!handler.on_start_map())
        return false;
      for (auto& [key, member] : value.items())
        if (!handler.on_map_key(key.data(), key.size()) || !replay_json(member, handler))
          return false;
      return handler.on_end_map();
    case JSON_Value::value_t::array:
      if (!handler.on_start_array())
        return false;
      for (const auto& element : value)
        if (!replay_json(element, handler))
          return false;
      return handler.on_end_array();
    default: {
      std::string text = value.dump();
      return handler.on_number(text.data(), text.size());
    }
  }
}

yajl_gen_status yajl_gen_json(yajl_gen gen, const JSON_Value& value) {
  auto text = [](const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); };
  switch (value.type()) {
    case JSON_Value::value_t::null:
      return yajl_gen_null(gen);
    case JSON_Value::value_t::boolean:
      return yajl_gen_bool(gen, value.get<bool>());
    case JSON_Value::value_t::string: {
      const auto& s = value.get_ref<const std::string&>();
      return yajl_gen_string(gen, text(s), s.size());
    }
    case JSON_Value::value_t::object: {
      yajl_gen_status st = yajl_gen_map_open(gen);
      for (auto it = value.begin(); st == yajl_gen_status_ok && it != value.end(); ++it)
        if ((st = yajl_gen_string(gen, text(it.key()), it.key().size())) == yajl_gen_status_ok)
          st = yajl_gen_json(gen, it.value());
      return st == yajl_gen_status_ok ? yajl_gen_map_close(gen) : st;
    }
    case JSON_Value::value_t::array: {
      yajl_gen_status st = yajl_gen_array_open(gen);
      for (auto it = value.begin(); st == yajl_gen_status_ok && it != value.end(); ++it)
        st = yajl_gen_json(gen, *it);
      return st == yajl_gen_status_ok ? yajl_gen_array_close(gen) : st;
    }
    default: {
      std::string number = value.dump();
      return yajl_gen_number(gen, number.data(), number.size());
    }
  }
}
