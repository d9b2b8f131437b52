// The JSON value model and the keyed extractor that every loader uses.
#pragma once

#include <nlohmann/json.hpp>

#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>

using JSON_Value = nlohmann::json;

// Thrown by the extractor; what() names the key and the expected type.
class JSON_Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "string", "integer", "object", ... as used in messages.
const char* json_type_name(const JSON_Value& value);

// The object itself, or JSON_Error when `value` is not an object.
const JSON_Value& json_object(const JSON_Value& value);

// Reads `key` of object `obj` into `target`. A missing key throws when `required`, and otherwise
// leaves `target` alone and returns false. A value of the wrong type (or out of the target's
// range) always throws: "'port' is expected as integer".
// T: std::string (and string-like), bool, integral types, double, JSON_Value (any value).
template <class T>
bool json_extract(const JSON_Value& obj, const char* key, T& target, bool required = true);

// Object- and array-typed members.
bool json_extract_object(const JSON_Value& obj, const char* key, JSON_Value& target,
                         bool required = true);
bool json_extract_array(const JSON_Value& obj, const char* key, JSON_Value& target,
                        bool required = true);

// The member or nullptr when absent (obj must be an object).
const JSON_Value* json_find(const JSON_Value& obj, const char* key);

[[noreturn]] void json_throw_type(const char* key, const char* expected);

template <class T>
bool json_extract(const JSON_Value& obj, const char* key, T& target, bool required) {
  const JSON_Value* v = json_find(obj, key);
  if (!v) {
    if (required)
      throw JSON_Error(std::string("missing key '") + key + "'");
    return false;
  }
  if constexpr (std::is_same_v<T, bool>) {
    if (!v->is_boolean())
      json_throw_type(key, "boolean");
    target = v->get<bool>();
  } else if constexpr (std::is_integral_v<T>) {
    if (!v->is_number_integer())
      json_throw_type(key, "integer");
    if (v->is_number_unsigned()) {
      auto n = v->get<std::uint64_t>();
      if (n > static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
        json_throw_type(key, "integer in range");
      target = static_cast<T>(n);
    } else {
      auto n = v->get<std::int64_t>();
      if constexpr (std::is_unsigned_v<T>) {
        if (n < 0 || static_cast<std::uint64_t>(n) > std::numeric_limits<T>::max())
          json_throw_type(key, "integer in range");
      } else {
        if (n < static_cast<std::int64_t>(std::numeric_limits<T>::min()) ||
            n > static_cast<std::int64_t>(std::numeric_limits<T>::max()))
          json_throw_type(key, "integer in range");
      }
      target = static_cast<T>(n);
    }
  } else if constexpr (std::is_floating_point_v<T>) {
    if (!v->is_number())
      json_throw_type(key, "number");
    target = v->get<T>();
  } else if constexpr (std::is_same_v<T, JSON_Value>) {
    target = *v;
  } else {
    if (!v->is_string())
      json_throw_type(key, "string");
    const auto& s = v->get_ref<const std::string&>();
    target.assign(s.data(), s.size());
  }
  return true;
}
