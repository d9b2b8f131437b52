// The simulated CAS installation: what the CVM reports and how it behaves, read from one JSON file
// (format in sim/cas/README.md). Plain data; the running simulator guards its copy with a lock.
#pragma once

#include "host/core/json.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cas_sim {

struct Operator {
  std::int64_t id = 0;
  std::string login_name;
  std::string name;  // display name; the login name when the file has none
  std::string password;
  std::int64_t group_id = 0;  // 1 is CAS's "System Default Administrator Group"
  std::string description;
};

struct Knobs {
  int latency_ms = 0;                // added to every CVM answer
  int nonce_lifetime_seconds = 300;  // a digest nonce is refused as stale this long after issue
};

// A scripted misbehaviour of the CVM for requests whose path starts with `path`.
struct Fault {
  enum class Kind { STATUS, EMPTY, NOT_JSON, CLOSE };
  std::int64_t id = 0;  // given by the simulator when the fault is added
  std::string path;
  std::string method;      // "GET", ...; empty: any method
  std::int64_t count = 0;  // requests still to hit; 0: every request until removed
  Kind kind = Kind::STATUS;
  int status = 500;  // for STATUS
  std::string error_code;
  std::string error_message;
  std::string body;
};

struct World {
  std::string version = "H3C CAS E0750";
  std::string realm = "VMC RESTful Web Services";
  Knobs knobs;
  std::vector<Operator> operators;
  std::vector<Fault> faults;
  // Top-level sections not modelled yet (hosts, VMs, pools, ...), kept and shown as given.
  JSON_Value sections = JSON_Value::object();
};

// Parses a JSON document, refusing nesting deeper than 64 levels; false (nothing logged) with the
// parser's message in `error`.
bool parse_json_text(const std::string& text, JSON_Value& out, std::string& error);

// The loaders fill their target only on success. On failure they log one line naming `origin`
// (the file, or "fault", ...) and the offending key with its expected type, and leave the same
// text in `error`.
bool load_world(const JSON_Value& json, const std::string& origin, World& world,
                std::string& error);
bool load_world_file(const std::string& path, World& world, std::string& error);
bool load_fault(const JSON_Value& json, Fault& fault, std::string& error);
// Applies a partial update {"latency_ms", "nonce_lifetime_seconds", "version", "operators"} to
// `world`, all or nothing.
bool apply_knobs(const JSON_Value& json, World& world, std::string& error);

JSON_Value dump_world(const World& world);
JSON_Value dump_fault(const Fault& fault);

}  // namespace cas_sim
