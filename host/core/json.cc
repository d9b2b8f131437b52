#include "host/core/json.h"

const char* json_type_name(const JSON_Value& value) {
  switch (value.type()) {
    case JSON_Value::value_t::null:
      return "null";
    case JSON_Value::value_t::object:
      return "object";
    case JSON_Value::value_t::array:
      return "array";
    case JSON_Value::value_t::string:
      return "string";
    case JSON_Value::value_t::boolean:
      return "boolean";
    case JSON_Value::value_t::number_integer:
    case JSON_Value::value_t::number_unsigned:
      return "integer";
    case JSON_Value::value_t::number_float:
      return "number";
    default:
      return "binary";
  }
}

const JSON_Value& json_object(const JSON_Value& value) {
  if (!value.is_object())
    throw JSON_Error(std::string("expected an object, got ") + json_type_name(value));
  return value;
}

const JSON_Value* json_find(const JSON_Value& obj, const char* key) {
  const JSON_Value& o = json_object(obj);
  auto it = o.find(key);
  return it == o.end() ? nullptr : &*it;
}

void json_throw_type(const char* key, const char* expected) {
  throw JSON_Error(std::string("'") + key + "' is expected as " + expected);
}

static bool extract_typed(const JSON_Value& obj, const char* key, JSON_Value& target, bool required,
                          JSON_Value::value_t type, const char* name) {
  const JSON_Value* v = json_find(obj, key);
  if (!v) {
    if (required)
      throw JSON_Error(std::string("missing key '") + key + "'");
    return false;
  }
  if (v->type() != type)
    json_throw_type(key, name);
  target = *v;
  return true;
}

bool json_extract_object(const JSON_Value& obj, const char* key, JSON_Value& target,
                         bool required) {
  return extract_typed(obj, key, target, required, JSON_Value::value_t::object, "object");
}

bool json_extract_array(const JSON_Value& obj, const char* key, JSON_Value& target, bool required) {
  return extract_typed(obj, key, target, required, JSON_Value::value_t::array, "array");
}
