#include "sim/cas/world.h"

#include "host/core/log.h"
#include "host/core/paths.h"

#include <algorithm>
#include <initializer_list>
#include <set>

namespace cas_sim {

namespace {

// Deeper documents are refused while parsing: copying and dumping values recurse.
constexpr int max_depth = 64;

// Runs `f`, prefixing the message of any JSON_Error with `where` so that nested keys are named.
template <class F>
void within(const std::string& where, F&& f) {
  try {
    f();
  } catch (const JSON_Error& e) {
    throw JSON_Error(where + ": " + e.what());
  }
}

// A key the loader does not know is refused: a misspelt knob must not pass unnoticed.
void check_keys(const JSON_Value& obj, std::initializer_list<const char*> known) {
  for (const auto& item : json_object(obj).items()) {
    bool found =
        std::any_of(known.begin(), known.end(), [&](const char* k) { return item.key() == k; });
    if (!found)
      throw JSON_Error("unknown key '" + item.key() + "'");
  }
}

// Text that travels in an HTTP header field must not hold line breaks or other controls.
void check_header_text(const char* key, const std::string& text) {
  bool bad = std::any_of(text.begin(), text.end(),
                         [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
  if (bad)
    json_throw_type(key, "string without control characters");
}

template <class T>
void extract_in_range(const JSON_Value& obj, const char* key, T& target, T low, T high) {
  T value = target;
  if (!json_extract(obj, key, value, false))
    return;
  if (value < low || value > high)
    json_throw_type(
        key, ("integer from " + std::to_string(low) + " to " + std::to_string(high)).c_str());
  target = value;
}

void parse_knob_values(const JSON_Value& obj, Knobs& knobs) {
  extract_in_range(obj, "latency_ms", knobs.latency_ms, 0, 60000);
  extract_in_range(obj, "nonce_lifetime_seconds", knobs.nonce_lifetime_seconds, 1, 86400);
}

Operator parse_operator(const JSON_Value& obj) {
  check_keys(obj, {"id", "login_name", "name", "password", "group_id", "description"});
  Operator op;
  json_extract(obj, "id", op.id);
  json_extract(obj, "login_name", op.login_name);
  json_extract(obj, "password", op.password);
  json_extract(obj, "group_id", op.group_id);
  if (!json_extract(obj, "name", op.name, false))
    op.name = op.login_name;
  json_extract(obj, "description", op.description, false);
  if (op.login_name.empty())
    json_throw_type("login_name", "non-empty string");
  return op;
}

std::vector<Operator> parse_operators(const JSON_Value& array) {
  if (!array.is_array())
    json_throw_type("operators", "array");
  std::vector<Operator> out;
  std::set<std::string> logins;
  std::set<std::int64_t> ids;
  for (std::size_t i = 0; i < array.size(); ++i) {
    within("operators[" + std::to_string(i) + "]", [&] {
      Operator op = parse_operator(array[i]);
      if (!logins.insert(op.login_name).second)
        throw JSON_Error("login name '" + op.login_name + "' appears twice");
      if (!ids.insert(op.id).second)
        throw JSON_Error("id " + std::to_string(op.id) + " appears twice");
      out.push_back(std::move(op));
    });
  }
  return out;
}

const char* kind_name(Fault::Kind kind) {
  switch (kind) {
    case Fault::Kind::STATUS:
      return "status";
    case Fault::Kind::EMPTY:
      return "empty";
    case Fault::Kind::NOT_JSON:
      return "not_json";
    case Fault::Kind::CLOSE:
      return "close";
  }
  return "status";
}

Fault parse_fault(const JSON_Value& obj) {
  // "id" is written by dump_fault; the simulator numbers faults itself.
  check_keys(obj, {"id", "path", "method", "count", "kind", "status", "error_code", "error_message",
                   "body"});
  Fault fault;
  json_extract(obj, "path", fault.path);
  if (fault.path.empty() || fault.path[0] != '/')
    json_throw_type("path", "string starting with '/'");
  if (json_extract(obj, "method", fault.method, false)) {
    static const std::set<std::string> methods = {"GET", "POST", "PUT", "DELETE", "HEAD", "PATCH"};
    if (!methods.count(fault.method))
      json_throw_type("method", "GET, POST, PUT, DELETE, HEAD or PATCH");
  }
  if (json_extract(obj, "count", fault.count, false) && fault.count < 1)
    json_throw_type("count", "positive integer");
  std::string kind = "status";
  json_extract(obj, "kind", kind, false);
  static const Fault::Kind kinds[] = {Fault::Kind::STATUS, Fault::Kind::EMPTY,
                                      Fault::Kind::NOT_JSON, Fault::Kind::CLOSE};
  auto it = std::find_if(std::begin(kinds), std::end(kinds),
                         [&](Fault::Kind k) { return kind == kind_name(k); });
  if (it == std::end(kinds))
    json_throw_type("kind", "one of status, empty, not_json, close");
  fault.kind = *it;
  if (fault.kind == Fault::Kind::STATUS) {
    json_extract(obj, "status", fault.status);
    if (fault.status < 100 || fault.status > 599)
      json_throw_type("status", "HTTP status from 100 to 599");
  }
  json_extract(obj, "error_code", fault.error_code, false);
  json_extract(obj, "error_message", fault.error_message, false);
  json_extract(obj, "body", fault.body, false);
  check_header_text("error_code", fault.error_code);
  check_header_text("error_message", fault.error_message);
  return fault;
}

void parse_world(const JSON_Value& json, World& world) {
  json_object(json);
  json_extract(json, "version", world.version, false);
  if (json_extract(json, "realm", world.realm, false)) {
    check_header_text("realm", world.realm);
    if (world.realm.empty() || world.realm.find('"') != std::string::npos)
      json_throw_type("realm", "non-empty string without '\"'");
  }
  if (const JSON_Value* knobs = json_find(json, "knobs")) {
    within("knobs", [&] {
      check_keys(*knobs, {"latency_ms", "nonce_lifetime_seconds"});
      parse_knob_values(*knobs, world.knobs);
    });
  }
  const JSON_Value* operators = json_find(json, "operators");
  if (!operators)
    throw JSON_Error("missing key 'operators'");
  world.operators = parse_operators(*operators);
  if (const JSON_Value* faults = json_find(json, "faults")) {
    if (!faults->is_array())
      json_throw_type("faults", "array");
    for (std::size_t i = 0; i < faults->size(); ++i)
      within("faults[" + std::to_string(i) + "]",
             [&] { world.faults.push_back(parse_fault((*faults)[i])); });
  }
  static const std::set<std::string> modelled = {"version", "realm", "knobs", "operators",
                                                 "faults"};
  for (const auto& item : json.items())
    if (!modelled.count(item.key()))
      world.sections[item.key()] = item.value();
}

// Runs a parser over `json`; on failure logs one line and leaves the text in `error`.
template <class F>
bool load(const std::string& origin, std::string& error, F&& parse) {
  try {
    parse();
    return true;
  } catch (const std::exception& e) {
    error = e.what();
  }
  LOG_MSG((LM_ERROR, "Invalid %s: %s.\n", origin.c_str(), error.c_str()));
  return false;
}

}  // namespace

bool parse_json_text(const std::string& text, JSON_Value& out, std::string& error) {
  auto limit_depth = [](int depth, JSON_Value::parse_event_t, JSON_Value&) {
    if (depth > max_depth)
      throw JSON_Error("nested deeper than " + std::to_string(max_depth) + " levels");
    return true;
  };
  try {
    out = JSON_Value::parse(text, limit_depth);
    return true;
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
}

bool load_world(const JSON_Value& json, const std::string& origin, World& world,
                std::string& error) {
  World loaded;
  if (!load(origin, error, [&] { parse_world(json, loaded); }))
    return false;
  world = std::move(loaded);
  return true;
}

bool load_world_file(const std::string& path, World& world, std::string& error) {
  std::string text;
  if (!read_file(path, text)) {
    error = "cannot read '" + path + "'";
    LOG_MSG((LM_ERROR, "Failed to read world file '%s': %m.\n", path.c_str()));
    return false;
  }
  std::string origin = "world file '" + path + "'";
  JSON_Value json;
  if (!parse_json_text(text, json, error)) {
    LOG_MSG((LM_ERROR, "Invalid %s: %s.\n", origin.c_str(), error.c_str()));
    return false;
  }
  return load_world(json, origin, world, error);
}

bool load_fault(const JSON_Value& json, Fault& fault, std::string& error) {
  return load("fault", error, [&] { fault = parse_fault(json); });
}

bool apply_knobs(const JSON_Value& json, World& world, std::string& error) {
  World changed = world;
  if (!load("knobs", error, [&] {
        check_keys(json, {"latency_ms", "nonce_lifetime_seconds", "version", "operators"});
        parse_knob_values(json, changed.knobs);
        json_extract(json, "version", changed.version, false);
        if (const JSON_Value* operators = json_find(json, "operators"))
          changed.operators = parse_operators(*operators);
      }))
    return false;
  world = std::move(changed);
  return true;
}

JSON_Value dump_fault(const Fault& fault) {
  JSON_Value out = {{"id", fault.id}, {"path", fault.path}, {"kind", kind_name(fault.kind)}};
  if (!fault.method.empty())
    out["method"] = fault.method;
  if (fault.count > 0)
    out["count"] = fault.count;
  if (fault.kind == Fault::Kind::STATUS)
    out["status"] = fault.status;
  if (!fault.error_code.empty())
    out["error_code"] = fault.error_code;
  if (!fault.error_message.empty())
    out["error_message"] = fault.error_message;
  if (!fault.body.empty())
    out["body"] = fault.body;
  return out;
}

JSON_Value dump_world(const World& world) {
  JSON_Value out = world.sections;
  out["version"] = world.version;
  out["realm"] = world.realm;
  out["knobs"] = {{"latency_ms", world.knobs.latency_ms},
                  {"nonce_lifetime_seconds", world.knobs.nonce_lifetime_seconds}};
  JSON_Value& operators = out["operators"] = JSON_Value::array();
  for (const Operator& op : world.operators) {
    JSON_Value o = {{"id", op.id},
                    {"login_name", op.login_name},
                    {"name", op.name},
                    {"password", op.password},
                    {"group_id", op.group_id}};
    if (!op.description.empty())
      o["description"] = op.description;
    operators.push_back(std::move(o));
  }
  JSON_Value& faults = out["faults"] = JSON_Value::array();
  for (const Fault& fault : world.faults)
    faults.push_back(dump_fault(fault));
  return out;
}

}  // namespace cas_sim
