// The simulated CAS installation: what the CVM reports and how it behaves, read from one JSON file
// (format in sim/cas/README.md). Plain data; the running simulator guards its copy with a lock.
#pragma once

#include "host/core/json.h"
#include "sim/cas/tasks.h"

#include <cstdint>
#include <optional>
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
  int task_duration_ms = 1000;       // how long an asynchronous task runs
  bool vm_list_conflict = false;     // the VM list without hostId answers 409, as a large CAS does
};

// What the disk service writes into a disk the first time it serves it: `allocated_percent` of the
// disk in extents of data, the rest holes. The same seed gives the same bytes.
struct Disk_Content {
  enum class Pattern { EMPTY, RANDOM, TEXT, ZEROS_AND_RANDOM };
  Pattern pattern = Pattern::EMPTY;
  int allocated_percent = 0;
  std::uint64_t seed = 0;
};

// A virtual disk of a VM; its image is a volume of `pool`.
struct Disk {
  std::string device = "disk";  // CAS device kind: "disk" or "cdrom"
  std::string device_name;      // "vda"
  std::int64_t size_mib = 0;
  std::int64_t allocation_mib = 0;
  std::string format = "qcow2";
  std::string file_type = "file";  // "file": an image in a pool; "block": a device; "network": RBD
  std::string pool;                // empty: none
  std::string path;
  std::string target_bus = "virtio";
  std::string cache_type = "directsync";
  std::string provisioning;       // "thin", "lazy_zeroed", "eager_zeroed"; empty: none (block)
  std::int64_t cluster_size = 0;  // bytes; 0: not reported
  std::string backing_file;
  bool shared = false;
  std::optional<Disk_Content> content;  // none: the disk starts empty
};

struct Nic {
  std::string mac;
  std::string vswitch;  // the name of a vSwitch of the VM's host
  std::string profile;  // the name of a port profile; empty: none
};

struct Capabilities {
  bool snapshot = true;
  bool cbt = true;
  bool external_snapshot = true;
  bool external_cbt = true;
};

struct Snapshot {
  std::string name;  // unique within its VM
  bool internal = false;
  std::vector<Snapshot> children;
};

struct VM {
  std::int64_t id = 0;  // unique in the world, as are uuids
  std::string uuid;
  std::string name;
  std::string title;               // the name when the file has none
  std::string status = "running";  // CAS vmStatus: "running", "shutOff" or "paused"
  std::string os;                  // empty: CAS sends no "osDesc"
  int cpus = 1;                    // a multiple of cpu_sockets
  int cpu_sockets = 1;
  std::int64_t memory_mib = 1024;
  std::vector<Disk> disks;
  std::vector<Nic> networks;
  Capabilities capabilities;
  std::vector<Snapshot> snapshots;  // the first level of the snapshot tree
  // What CAS keeps of a VM's definition and shows in its detail, so that a VM made again from
  // its saved detail comes back alike.
  std::string architecture = "x86_64";  // "osBit" when created
  std::string system = "1";
  std::string os_version;  // empty: not told
  int cpu_shares = 512;
  int max_cpus = 8;
  int blkiotune = 300;
  std::string auto_migrate = "0";
};

struct VSwitch {
  // Network type bits of CAS, in its order.
  enum Type : unsigned {
    MANAGEMENT = 1,
    SERVICE = 2,
    STORAGE = 4,
    BACKUP = 8,
    MIGRATION = 16,
    OTHER = 32
  };
  std::int64_t id = 0;  // unique in the world
  std::string name;     // unique on its host
  std::string pnic;
  std::string address;
  std::string gateway;
  bool active = true;
  unsigned types = 0;
};

struct Host {
  std::int64_t id = 0;
  std::string name;
  std::string ip;
  std::string status = "1";  // CAS code: "0" disconnected, "1" connected, "2" unresponsive
  int cpu_count = 2;
  int cpu_cores = 8;
  std::int64_t memory_mib = 131072;
  std::vector<VM> vms;
  std::vector<VSwitch> vswitches;
};

// A file of a pool that is no VM's disk (an ISO image, a spare volume).
struct Volume {
  std::string name;
  double size_mib = 0;  // CAS reports volume sizes with a fraction
  std::string users;
  std::string format;        // "raw", "qcow2"; empty: not told
  std::string provisioning;  // as a disk's; empty: not told (the space counts as allocated)
  std::int64_t cluster_size = 0;
};

// Pools are shared: every host sees every pool.
struct Pool {
  std::string name;  // unique
  std::string title;
  std::string type = "dir";
  std::string path;
  std::int64_t capacity_mib = 0;
  std::int64_t free_mib = 0;  // the capacity when the file has none
  bool active = true;
  std::vector<Volume> volumes;
};

struct Port_Profile {
  std::int64_t id = 0;
  std::string name;
  std::string description;
  int vlan_id = 1;
  std::string acl_name;
  std::string net_limit_title;
};

// What "generate" adds to a world: `hosts` hosts holding `vms` VMs between them, the same for
// the same seed.
struct Generation {
  int hosts = 0;
  int vms = 0;
  std::uint64_t seed = 0;
};

// A scripted misbehaviour of the CVM for requests whose path starts with `path`.
struct Fault {
  enum class Kind { STATUS, EMPTY, NOT_JSON, CLOSE };
  std::int64_t id = 0;  // given by the simulator when the fault is added
  std::string path;
  std::string method;            // "GET", ...; empty: any method
  std::string request_contains;  // empty: any request body
  std::int64_t count = 0;        // requests still to hit; 0: every request until removed
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
  std::vector<Host> hosts;
  std::vector<Pool> pools;
  std::vector<Port_Profile> port_profiles;
};

// Appends the generated hosts and VMs to `world`, numbered after its own; their disks go to the
// world's first pool, which is added when there is none.
void generate_inventory(const Generation& generation, World& world);

// Lookups by the decimal id a CVM request carries; nullptr when there is none.
const Host* find_host(const World& world, const std::string& id);
const VM* find_vm(const World& world, const std::string& id, const Host** host = nullptr);
const Pool* find_pool(const World& world, const std::string& name);

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
// Applies a partial update of the knobs' keys, "version" and "operators" to `world`, all or
// nothing.
bool apply_knobs(const JSON_Value& json, World& world, std::string& error);

// A task to start, {"duration_ms", "result", "fail_msg", "target_id"}, all optional:
// `duration_ms` keeps its value when the request has none.
bool load_task(const JSON_Value& json, int& duration_ms, Task_Outcome& outcome, std::string& error);

JSON_Value dump_world(const World& world);
// The world without its inventory: version, realm, knobs, operators and faults.
JSON_Value dump_settings(const World& world);
JSON_Value dump_fault(const Fault& fault);

}  // namespace cas_sim
