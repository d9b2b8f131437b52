#include "sim/cas/world.h"

#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/text.h"

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <iterator>
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
void check_keys(const JSON_Value& obj, const std::vector<const char*>& known) {
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
void extract_in_range(const JSON_Value& obj, const char* key, T& target, T low, T high,
                      bool required = false) {
  T value = target;
  if (!json_extract(obj, key, value, required))
    return;
  if (value < low || value > high)
    json_throw_type(
        key, ("integer from " + std::to_string(low) + " to " + std::to_string(high)).c_str());
  target = value;
}

void extract_id(const JSON_Value& obj, std::int64_t& id) {
  json_extract(obj, "id", id);
  if (id < 1)
    json_throw_type("id", "positive integer");
}

void extract_name(const JSON_Value& obj, const char* key, std::string& target) {
  json_extract(obj, key, target);
  if (target.empty())
    json_throw_type(key, "non-empty string");
}

void extract_path(const JSON_Value& obj, const char* key, std::string& target) {
  json_extract(obj, key, target);
  if (target.empty() || target[0] != '/')
    json_throw_type(key, "string starting with '/'");
}

// An optional string that must be one of `choices`; `expected` lists them for the message.
void extract_choice(const JSON_Value& obj, const char* key, std::string& target,
                    std::initializer_list<const char*> choices, const char* expected) {
  std::string value;
  if (!json_extract(obj, key, value, false))
    return;
  if (std::none_of(choices.begin(), choices.end(), [&](const char* c) { return value == c; }))
    json_throw_type(key, expected);
  target = value;
}

// Parses each member of the optional array `key`, naming its place in errors.
template <class F>
void for_each_member(const JSON_Value& obj, const char* key, F&& parse) {
  const JSON_Value* array = json_find(obj, key);
  if (!array)
    return;
  if (!array->is_array())
    json_throw_type(key, "array");
  for (std::size_t i = 0; i < array->size(); ++i)
    within(std::string(key) + "[" + std::to_string(i) + "]", [&] { parse((*array)[i]); });
}

template <class T>
void insert_unique(std::set<T>& seen, const T& value, const std::string& what) {
  if (!seen.insert(value).second)
    throw JSON_Error(what + " appears twice");
}

std::string in_quotes(const std::string& text) {
  return "'" + text + "'";
}

void parse_knob_values(const JSON_Value& obj, Knobs& knobs) {
  extract_in_range(obj, "latency_ms", knobs.latency_ms, 0, 60000);
  extract_in_range(obj, "nonce_lifetime_seconds", knobs.nonce_lifetime_seconds, 1, 86400);
  extract_in_range(obj, "task_duration_ms", knobs.task_duration_ms, 0, 3600000);
  json_extract(obj, "vm_list_conflict", knobs.vm_list_conflict, false);
}

const std::vector<const char*> knob_keys = {"latency_ms", "nonce_lifetime_seconds",
                                            "task_duration_ms", "vm_list_conflict"};

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
                   "body", "request_contains"});
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
  json_extract(obj, "request_contains", fault.request_contains, false);
  check_header_text("error_code", fault.error_code);
  check_header_text("error_message", fault.error_message);
  return fault;
}

// Names and ids that the inventory refers to or must not repeat, collected while parsing.
struct Inventory_Index {
  std::set<std::string> pools;
  std::set<std::string> profiles;
  std::set<std::int64_t> host_ids, vm_ids, vswitch_ids, profile_ids;
  std::set<std::string> uuids;
};

// Sizes in MiB up to an exbibyte.
constexpr std::int64_t max_mib = std::int64_t(1) << 40;

const char* const vswitch_type_names[] = {"management", "service",   "storage",
                                          "backup",     "migration", "other"};

const char* const content_pattern_names[] = {"empty", "random", "text", "zeros_and_random"};

// Without "allocated_percent", as much of the disk as the CVM reports allocated holds data.
Disk_Content parse_content(const JSON_Value& obj, const Disk& disk) {
  check_keys(obj, {"pattern", "allocated_percent", "seed"});
  Disk_Content content;
  std::string pattern;
  json_extract(obj, "pattern", pattern);
  auto it = std::find(std::begin(content_pattern_names), std::end(content_pattern_names), pattern);
  if (it == std::end(content_pattern_names))
    json_throw_type("pattern", "one of empty, random, text, zeros_and_random");
  content.pattern =
      static_cast<Disk_Content::Pattern>(std::distance(std::begin(content_pattern_names), it));
  content.allocated_percent = static_cast<int>(disk.allocation_mib * 100 / disk.size_mib);
  extract_in_range(obj, "allocated_percent", content.allocated_percent, 0, 100);
  json_extract(obj, "seed", content.seed, false);
  return content;
}

Disk parse_disk(const JSON_Value& obj, const Inventory_Index& index) {
  check_keys(obj, {"device", "device_name", "size_mib", "allocation_mib", "format", "file_type",
                   "pool", "path", "target_bus", "cache_type", "provisioning", "cluster_size",
                   "backing_file", "shared", "content"});
  Disk disk;
  extract_choice(obj, "device", disk.device, {"disk", "cdrom"}, "disk or cdrom");
  extract_name(obj, "device_name", disk.device_name);
  extract_in_range<std::int64_t>(obj, "size_mib", disk.size_mib, 1, max_mib, true);
  disk.allocation_mib = disk.size_mib;
  extract_in_range<std::int64_t>(obj, "allocation_mib", disk.allocation_mib, 0, disk.size_mib);
  extract_choice(obj, "format", disk.format, {"raw", "qcow2"}, "raw or qcow2");
  extract_choice(obj, "file_type", disk.file_type, {"file", "block", "network"},
                 "file, block or network");
  // "network": an RBD image of a pool of type rbd.
  bool file = disk.file_type != "block";
  if (json_extract(obj, "pool", disk.pool, file) && !index.pools.count(disk.pool))
    json_throw_type("pool", "the name of a pool");
  if (disk.file_type == "network") {
    // An RBD image is named "<pool>/<image>", as CAS reports it.
    json_extract(obj, "path", disk.path);
    std::size_t slash = disk.path.find('/');
    if (slash == 0 || slash == std::string::npos || slash + 1 == disk.path.size() ||
        disk.path.find('/', slash + 1) != std::string::npos)
      json_throw_type("path", "'<pool>/<image>' for a network disk");
  } else {
    extract_path(obj, "path", disk.path);
  }
  json_extract(obj, "target_bus", disk.target_bus, false);
  json_extract(obj, "cache_type", disk.cache_type, false);
  // CAS reports a provisioning mode for image files only, unless told otherwise.
  if (file)
    disk.provisioning = "thin";
  extract_choice(obj, "provisioning", disk.provisioning, {"thin", "lazy_zeroed", "eager_zeroed"},
                 "thin, lazy_zeroed or eager_zeroed");
  extract_in_range<std::int64_t>(obj, "cluster_size", disk.cluster_size, 0, 1 << 30);
  json_extract(obj, "backing_file", disk.backing_file, false);
  json_extract(obj, "shared", disk.shared, false);
  if (const JSON_Value* content = json_find(obj, "content"))
    within("content", [&] { disk.content = parse_content(*content, disk); });
  return disk;
}

Snapshot parse_snapshot(const JSON_Value& obj, std::set<std::string>& names) {
  check_keys(obj, {"name", "internal", "snapshots"});
  Snapshot snapshot;
  extract_name(obj, "name", snapshot.name);
  insert_unique(names, snapshot.name, "snapshot name " + in_quotes(snapshot.name));
  json_extract(obj, "internal", snapshot.internal, false);
  for_each_member(obj, "snapshots", [&](const JSON_Value& child) {
    snapshot.children.push_back(parse_snapshot(child, names));
  });
  return snapshot;
}

VM parse_vm(const JSON_Value& obj, const Host& host, Inventory_Index& index) {
  check_keys(obj, {"id",         "uuid",         "name",        "title",        "status",
                   "os",         "cpus",         "cpu_sockets", "memory_mib",   "disks",
                   "networks",   "capabilities", "snapshots",   "architecture", "system",
                   "os_version", "cpu_shares",   "max_cpus",    "blkiotune",    "auto_migrate"});
  VM vm;
  extract_id(obj, vm.id);
  insert_unique(index.vm_ids, vm.id, "VM id " + std::to_string(vm.id));
  extract_name(obj, "uuid", vm.uuid);
  insert_unique(index.uuids, vm.uuid, "uuid " + in_quotes(vm.uuid));
  extract_name(obj, "name", vm.name);
  vm.title = vm.name;
  json_extract(obj, "title", vm.title, false);
  extract_choice(obj, "status", vm.status, {"running", "shutOff", "paused"},
                 "running, shutOff or paused");
  json_extract(obj, "os", vm.os, false);
  extract_in_range(obj, "cpu_sockets", vm.cpu_sockets, 1, 64);
  vm.cpus = vm.cpu_sockets;
  extract_in_range(obj, "cpus", vm.cpus, 1, 4096);
  if (vm.cpus % vm.cpu_sockets != 0)
    json_throw_type("cpus", "a multiple of cpu_sockets");
  extract_in_range<std::int64_t>(obj, "memory_mib", vm.memory_mib, 1, max_mib);
  json_extract(obj, "architecture", vm.architecture, false);
  json_extract(obj, "system", vm.system, false);
  json_extract(obj, "os_version", vm.os_version, false);
  json_extract(obj, "auto_migrate", vm.auto_migrate, false);
  extract_in_range(obj, "cpu_shares", vm.cpu_shares, 1, 1 << 20);
  extract_in_range(obj, "max_cpus", vm.max_cpus, 1, 4096);
  extract_in_range(obj, "blkiotune", vm.blkiotune, 1, 1000);

  std::set<std::string> devices;
  for_each_member(obj, "disks", [&](const JSON_Value& member) {
    Disk disk = parse_disk(member, index);
    insert_unique(devices, disk.device_name, "device name " + in_quotes(disk.device_name));
    vm.disks.push_back(std::move(disk));
  });
  for_each_member(obj, "networks", [&](const JSON_Value& member) {
    check_keys(member, {"mac", "vswitch", "profile"});
    Nic nic;
    extract_name(member, "mac", nic.mac);
    json_extract(member, "vswitch", nic.vswitch);
    if (std::none_of(host.vswitches.begin(), host.vswitches.end(),
                     [&](const VSwitch& v) { return v.name == nic.vswitch; }))
      json_throw_type("vswitch", "the name of a vSwitch of the VM's host");
    if (json_extract(member, "profile", nic.profile, false) && !index.profiles.count(nic.profile))
      json_throw_type("profile", "the name of a port profile");
    vm.networks.push_back(std::move(nic));
  });
  if (const JSON_Value* caps = json_find(obj, "capabilities")) {
    within("capabilities", [&] {
      check_keys(*caps, {"snapshot", "cbt", "external_snapshot", "external_cbt"});
      json_extract(*caps, "snapshot", vm.capabilities.snapshot, false);
      json_extract(*caps, "cbt", vm.capabilities.cbt, false);
      json_extract(*caps, "external_snapshot", vm.capabilities.external_snapshot, false);
      json_extract(*caps, "external_cbt", vm.capabilities.external_cbt, false);
    });
  }
  std::set<std::string> snapshot_names;
  for_each_member(obj, "snapshots", [&](const JSON_Value& member) {
    vm.snapshots.push_back(parse_snapshot(member, snapshot_names));
  });
  return vm;
}

VSwitch parse_vswitch(const JSON_Value& obj, Inventory_Index& index) {
  check_keys(obj, {"id", "name", "pnic", "address", "gateway", "active", "types"});
  VSwitch vswitch;
  extract_id(obj, vswitch.id);
  insert_unique(index.vswitch_ids, vswitch.id, "vSwitch id " + std::to_string(vswitch.id));
  extract_name(obj, "name", vswitch.name);
  json_extract(obj, "pnic", vswitch.pnic, false);
  json_extract(obj, "address", vswitch.address, false);
  json_extract(obj, "gateway", vswitch.gateway, false);
  json_extract(obj, "active", vswitch.active, false);
  if (const JSON_Value* types = json_find(obj, "types")) {
    const char* expected = "array of management, service, storage, backup, migration, other";
    if (!types->is_array())
      json_throw_type("types", expected);
    for (const JSON_Value& type : *types) {
      auto begin = std::begin(vswitch_type_names), end = std::end(vswitch_type_names);
      auto it = std::find_if(begin, end, [&](const char* name) { return type == name; });
      if (it == end)
        json_throw_type("types", expected);
      vswitch.types |= 1u << (it - begin);
    }
  }
  return vswitch;
}

Host parse_host(const JSON_Value& obj, Inventory_Index& index) {
  check_keys(obj, {"id", "name", "ip", "status", "cpu_count", "cpu_cores", "memory_mib",
                   "vswitches", "vms"});
  Host host;
  extract_id(obj, host.id);
  insert_unique(index.host_ids, host.id, "host id " + std::to_string(host.id));
  extract_name(obj, "name", host.name);
  extract_name(obj, "ip", host.ip);
  extract_choice(obj, "status", host.status, {"0", "1", "2"}, "\"0\", \"1\" or \"2\"");
  extract_in_range(obj, "cpu_count", host.cpu_count, 1, 1024);
  extract_in_range(obj, "cpu_cores", host.cpu_cores, 1, 1024);
  extract_in_range<std::int64_t>(obj, "memory_mib", host.memory_mib, 1, max_mib);
  std::set<std::string> vswitch_names;
  for_each_member(obj, "vswitches", [&](const JSON_Value& member) {
    VSwitch vswitch = parse_vswitch(member, index);
    insert_unique(vswitch_names, vswitch.name, "vSwitch name " + in_quotes(vswitch.name));
    host.vswitches.push_back(std::move(vswitch));
  });
  for_each_member(obj, "vms", [&](const JSON_Value& member) {
    host.vms.push_back(parse_vm(member, host, index));
  });
  return host;
}

Pool parse_pool(const JSON_Value& obj) {
  check_keys(obj,
             {"name", "title", "type", "path", "capacity_mib", "free_mib", "active", "volumes"});
  Pool pool;
  extract_name(obj, "name", pool.name);
  json_extract(obj, "title", pool.title, false);
  json_extract(obj, "type", pool.type, false);
  extract_path(obj, "path", pool.path);
  extract_in_range<std::int64_t>(obj, "capacity_mib", pool.capacity_mib, 0, max_mib, true);
  pool.free_mib = pool.capacity_mib;
  extract_in_range<std::int64_t>(obj, "free_mib", pool.free_mib, 0, pool.capacity_mib);
  json_extract(obj, "active", pool.active, false);
  std::set<std::string> names;
  for_each_member(obj, "volumes", [&](const JSON_Value& member) {
    check_keys(member, {"name", "size_mib", "users", "format", "provisioning", "cluster_size"});
    Volume volume;
    extract_name(member, "name", volume.name);
    insert_unique(names, volume.name, "volume name " + in_quotes(volume.name));
    json_extract(member, "size_mib", volume.size_mib);
    if (!(volume.size_mib >= 0 && volume.size_mib <= max_mib))
      json_throw_type("size_mib", "number from 0 to 2^40");
    json_extract(member, "users", volume.users, false);
    extract_choice(member, "format", volume.format, {"raw", "qcow2"}, "raw or qcow2");
    extract_choice(member, "provisioning", volume.provisioning,
                   {"thin", "lazy_zeroed", "eager_zeroed"}, "thin, lazy_zeroed or eager_zeroed");
    extract_in_range<std::int64_t>(member, "cluster_size", volume.cluster_size, 0, 1 << 30);
    pool.volumes.push_back(std::move(volume));
  });
  return pool;
}

Port_Profile parse_port_profile(const JSON_Value& obj) {
  check_keys(obj, {"id", "name", "description", "vlan_id", "acl_name", "net_limit_title"});
  Port_Profile profile;
  extract_id(obj, profile.id);
  extract_name(obj, "name", profile.name);
  json_extract(obj, "description", profile.description, false);
  extract_in_range(obj, "vlan_id", profile.vlan_id, 1, 4094);
  json_extract(obj, "acl_name", profile.acl_name, false);
  json_extract(obj, "net_limit_title", profile.net_limit_title, false);
  return profile;
}

Generation parse_generate(const JSON_Value& obj) {
  check_keys(obj, {"hosts", "vms", "seed"});
  Generation generation;
  extract_in_range(obj, "hosts", generation.hosts, 1, 10000, true);
  extract_in_range(obj, "vms", generation.vms, 0, 1000000, true);
  json_extract(obj, "seed", generation.seed, false);
  return generation;
}

void parse_inventory(const JSON_Value& json, World& world) {
  Inventory_Index index;
  for_each_member(json, "pools", [&](const JSON_Value& member) {
    Pool pool = parse_pool(member);
    insert_unique(index.pools, pool.name, "pool name " + in_quotes(pool.name));
    world.pools.push_back(std::move(pool));
  });
  for_each_member(json, "port_profiles", [&](const JSON_Value& member) {
    Port_Profile profile = parse_port_profile(member);
    insert_unique(index.profile_ids, profile.id, "port profile id " + std::to_string(profile.id));
    insert_unique(index.profiles, profile.name, "port profile name " + in_quotes(profile.name));
    world.port_profiles.push_back(std::move(profile));
  });
  for_each_member(json, "hosts", [&](const JSON_Value& member) {
    world.hosts.push_back(parse_host(member, index));
  });
  if (const JSON_Value* generate = json_find(json, "generate")) {
    Generation generation;
    within("generate", [&] { generation = parse_generate(*generate); });
    generate_inventory(generation, world);
  }
}

void parse_world(const JSON_Value& json, World& world) {
  check_keys(json, {"version", "realm", "knobs", "operators", "faults", "pools", "port_profiles",
                    "hosts", "generate"});
  json_extract(json, "version", world.version, false);
  if (json_extract(json, "realm", world.realm, false)) {
    check_header_text("realm", world.realm);
    if (world.realm.empty() || world.realm.find('"') != std::string::npos)
      json_throw_type("realm", "non-empty string without '\"'");
  }
  if (const JSON_Value* knobs = json_find(json, "knobs")) {
    within("knobs", [&] {
      check_keys(*knobs, knob_keys);
      parse_knob_values(*knobs, world.knobs);
    });
  }
  const JSON_Value* operators = json_find(json, "operators");
  if (!operators)
    throw JSON_Error("missing key 'operators'");
  world.operators = parse_operators(*operators);
  for_each_member(json, "faults",
                  [&](const JSON_Value& member) { world.faults.push_back(parse_fault(member)); });
  parse_inventory(json, world);
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
        std::vector<const char*> keys = knob_keys;
        keys.insert(keys.end(), {"version", "operators"});
        check_keys(json, keys);
        parse_knob_values(json, changed.knobs);
        json_extract(json, "version", changed.version, false);
        if (const JSON_Value* operators = json_find(json, "operators"))
          changed.operators = parse_operators(*operators);
      }))
    return false;
  world = std::move(changed);
  return true;
}

bool load_task(const JSON_Value& json, int& duration_ms, Task_Outcome& outcome,
               std::string& error) {
  int duration = duration_ms;
  Task_Outcome loaded;
  if (!load("task", error, [&] {
        check_keys(json, {"duration_ms", "result", "fail_msg", "target_id"});
        extract_in_range(json, "duration_ms", duration, 0, 3600000);
        json_extract(json, "result", loaded.result, false);
        json_extract(json, "fail_msg", loaded.fail_msg, false);
        json_extract(json, "target_id", loaded.target_id, false);
      }))
    return false;
  duration_ms = duration;
  outcome = std::move(loaded);
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
  if (!fault.request_contains.empty())
    out["request_contains"] = fault.request_contains;
  return out;
}

namespace {

// Optional texts are written only when set, so that a dump loads back to the same world.
void put_text(JSON_Value& out, const char* key, const std::string& text) {
  if (!text.empty())
    out[key] = text;
}

JSON_Value dump_disk(const Disk& disk) {
  JSON_Value out = {{"device", disk.device},
                    {"device_name", disk.device_name},
                    {"size_mib", disk.size_mib},
                    {"allocation_mib", disk.allocation_mib},
                    {"format", disk.format},
                    {"file_type", disk.file_type},
                    {"path", disk.path},
                    {"target_bus", disk.target_bus},
                    {"cache_type", disk.cache_type},
                    {"cluster_size", disk.cluster_size},
                    {"shared", disk.shared}};
  put_text(out, "pool", disk.pool);
  put_text(out, "provisioning", disk.provisioning);
  put_text(out, "backing_file", disk.backing_file);
  if (disk.content)
    out["content"] = {{"pattern", content_pattern_names[static_cast<int>(disk.content->pattern)]},
                      {"allocated_percent", disk.content->allocated_percent},
                      {"seed", disk.content->seed}};
  return out;
}

JSON_Value dump_snapshot(const Snapshot& snapshot) {
  JSON_Value out = {{"name", snapshot.name}, {"internal", snapshot.internal}};
  if (!snapshot.children.empty()) {
    JSON_Value& children = out["snapshots"] = JSON_Value::array();
    for (const Snapshot& child : snapshot.children)
      children.push_back(dump_snapshot(child));
  }
  return out;
}

JSON_Value dump_vm(const VM& vm) {
  JSON_Value out = {{"id", vm.id},
                    {"uuid", vm.uuid},
                    {"name", vm.name},
                    {"title", vm.title},
                    {"status", vm.status},
                    {"cpus", vm.cpus},
                    {"cpu_sockets", vm.cpu_sockets},
                    {"memory_mib", vm.memory_mib},
                    {"architecture", vm.architecture},
                    {"system", vm.system},
                    {"cpu_shares", vm.cpu_shares},
                    {"max_cpus", vm.max_cpus},
                    {"blkiotune", vm.blkiotune},
                    {"auto_migrate", vm.auto_migrate},
                    {"disks", JSON_Value::array()},
                    {"networks", JSON_Value::array()},
                    {"capabilities",
                     {{"snapshot", vm.capabilities.snapshot},
                      {"cbt", vm.capabilities.cbt},
                      {"external_snapshot", vm.capabilities.external_snapshot},
                      {"external_cbt", vm.capabilities.external_cbt}}}};
  put_text(out, "os", vm.os);
  put_text(out, "os_version", vm.os_version);
  for (const Disk& disk : vm.disks)
    out["disks"].push_back(dump_disk(disk));
  for (const Nic& nic : vm.networks) {
    JSON_Value n = {{"mac", nic.mac}, {"vswitch", nic.vswitch}};
    put_text(n, "profile", nic.profile);
    out["networks"].push_back(std::move(n));
  }
  if (!vm.snapshots.empty()) {
    JSON_Value& snapshots = out["snapshots"] = JSON_Value::array();
    for (const Snapshot& snapshot : vm.snapshots)
      snapshots.push_back(dump_snapshot(snapshot));
  }
  return out;
}

JSON_Value dump_vswitch(const VSwitch& vswitch) {
  JSON_Value types = JSON_Value::array();
  for (std::size_t i = 0; i < std::size(vswitch_type_names); ++i)
    if (vswitch.types & (1u << i))
      types.push_back(vswitch_type_names[i]);
  return {{"id", vswitch.id},           {"name", vswitch.name},       {"pnic", vswitch.pnic},
          {"address", vswitch.address}, {"gateway", vswitch.gateway}, {"active", vswitch.active},
          {"types", std::move(types)}};
}

JSON_Value dump_host(const Host& host) {
  JSON_Value out = {{"id", host.id},
                    {"name", host.name},
                    {"ip", host.ip},
                    {"status", host.status},
                    {"cpu_count", host.cpu_count},
                    {"cpu_cores", host.cpu_cores},
                    {"memory_mib", host.memory_mib},
                    {"vswitches", JSON_Value::array()},
                    {"vms", JSON_Value::array()}};
  for (const VSwitch& vswitch : host.vswitches)
    out["vswitches"].push_back(dump_vswitch(vswitch));
  for (const VM& vm : host.vms)
    out["vms"].push_back(dump_vm(vm));
  return out;
}

JSON_Value dump_pool(const Pool& pool) {
  JSON_Value out = {{"name", pool.name},
                    {"type", pool.type},
                    {"path", pool.path},
                    {"capacity_mib", pool.capacity_mib},
                    {"free_mib", pool.free_mib},
                    {"active", pool.active},
                    {"volumes", JSON_Value::array()}};
  put_text(out, "title", pool.title);
  for (const Volume& volume : pool.volumes) {
    JSON_Value v = {{"name", volume.name}, {"size_mib", volume.size_mib}};
    put_text(v, "users", volume.users);
    put_text(v, "format", volume.format);
    put_text(v, "provisioning", volume.provisioning);
    if (volume.cluster_size > 0)
      v["cluster_size"] = volume.cluster_size;
    out["volumes"].push_back(std::move(v));
  }
  return out;
}

JSON_Value dump_port_profile(const Port_Profile& profile) {
  JSON_Value out = {{"id", profile.id}, {"name", profile.name}, {"vlan_id", profile.vlan_id}};
  put_text(out, "description", profile.description);
  put_text(out, "acl_name", profile.acl_name);
  put_text(out, "net_limit_title", profile.net_limit_title);
  return out;
}

}  // namespace

JSON_Value dump_settings(const World& world) {
  JSON_Value out = {{"version", world.version},
                    {"realm", world.realm},
                    {"knobs",
                     {{"latency_ms", world.knobs.latency_ms},
                      {"nonce_lifetime_seconds", world.knobs.nonce_lifetime_seconds},
                      {"task_duration_ms", world.knobs.task_duration_ms},
                      {"vm_list_conflict", world.knobs.vm_list_conflict}}}};
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

JSON_Value dump_world(const World& world) {
  JSON_Value out = dump_settings(world);
  JSON_Value& pools = out["pools"] = JSON_Value::array();
  for (const Pool& pool : world.pools)
    pools.push_back(dump_pool(pool));
  JSON_Value& profiles = out["port_profiles"] = JSON_Value::array();
  for (const Port_Profile& profile : world.port_profiles)
    profiles.push_back(dump_port_profile(profile));
  JSON_Value& hosts = out["hosts"] = JSON_Value::array();
  for (const Host& host : world.hosts)
    hosts.push_back(dump_host(host));
  return out;
}

namespace {

// A CVM id is a whole decimal number; anything else names nothing.
bool parse_id(const std::string& text, std::int64_t& id) {
  const char* stop = nullptr;
  id = natoi<std::int64_t>(text.data(), text.data() + text.size(), &stop);
  return errno == 0 && stop == text.data() + text.size();
}

}  // namespace

const Host* find_host(const World& world, const std::string& id) {
  std::int64_t n = 0;
  if (!parse_id(id, n))
    return nullptr;
  for (const Host& host : world.hosts)
    if (host.id == n)
      return &host;
  return nullptr;
}

const VM* find_vm(const World& world, const std::string& id, const Host** host) {
  std::int64_t n = 0;
  if (!parse_id(id, n))
    return nullptr;
  for (const Host& h : world.hosts) {
    for (const VM& vm : h.vms) {
      if (vm.id == n) {
        if (host)
          *host = &h;
        return &vm;
      }
    }
  }
  return nullptr;
}

const Pool* find_pool(const World& world, const std::string& name) {
  for (const Pool& pool : world.pools)
    if (pool.name == name)
      return &pool;
  return nullptr;
}

}  // namespace cas_sim
