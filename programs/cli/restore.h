// brimlet restore SET: a backup set (or the newest set of its chain) back onto CAS, as a new VM or
// over the VM it came from; brimlet sets verify: every object of sets' chains read and checked,
// nothing written. Both run as restore jobs on the agent, watched like a backup.
#pragma once

#include "programs/cli/run.h"

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

struct Restore_Args {
  std::string set;                    // a backup set's uuid
  bool latest = false;                // the newest set of its chain instead
  std::string name;                   // of the new VM
  std::string host;                   // id or name; default: the source VM's host
  std::string pool;                   // CAS storage pool on the host; default: each disk's own
  std::vector<std::string> networks;  // VSWITCH[/PROFILE], one per NIC, by name
  bool no_network = false;            // a new VM without NICs
  int cpus = 0, cores = 0;            // 0: the source VM's
  std::uint64_t memory_mib = 0;       // 0: the source VM's
  bool original = false, overwrite = false, reserve_mac = false, start = false;
  int parallel_disks = 0;    // 0: the agent's default
  std::string options_file;  // a JSON object of restore options
  bool wait = true;
  std::chrono::milliseconds interval{2000};
};

// What a new VM's disks and NICs are mapped onto: the target host ("id", "name", "ip") and the
// CVM's answers for its storage pools, virtual switches and port profiles.
struct Restore_Inventory {
  JSON_Value host = JSON_Value::object();
  JSON_Value pools = JSON_Value::array();
  JSON_Value vswitches = JSON_Value::array();
  JSON_Value profiles = JSON_Value::array();
};

// Defaults, then the file's keys, then the flags given.
JSON_Value restore_options(const Restore_Args& args, const JSON_Value& from_file);
// The source entry of backup set `set` (as the catalog shows one set): where it came from, and
// unless `args` restore over the original (or `inventory` is null: a verify) where it goes.
// False with `error` when a disk's pool or a network names nothing on the target host.
bool restore_entry(const JSON_Value& set, const Restore_Args& args,
                   const Restore_Inventory* inventory, JSON_Value& entry, std::string& error);
// A restore job of CVM `set`'s for `entries`; `verify`: reads the sets and writes nothing.
JSON_Value restore_definition(const JSON_Value& set, const JSON_Value& entries, bool verify,
                              const JSON_Value& options, const std::string& uid);

int restore_run(const Cli& cli, const Restore_Args& args);

// sets verify SET | --all [--pool POOL]: exit status 1 when an object is bad.
int sets_verify(const Cli& cli, const std::string& set, bool all, const std::string& pool,
                std::chrono::milliseconds interval);
// The bad objects of a finished verify run: SET, VM, OBJECT, ERROR; `set_of` maps the run's VM
// ids to the set verified for each. How many objects were bad.
std::size_t print_bad_objects(std::ostream& out, const JSON_Value& status,
                              const std::map<std::string, std::string>& set_of);
