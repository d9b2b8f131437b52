// brimlet backup CVM: a backup run of a host's VMs or of named VMs through the agent, watched
// until it ends: live progress per VM, then a summary table.
#pragma once

#include "programs/cli/run.h"

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

struct Backup_Args {
  std::string cvm;
  std::string host;              // every VM of this host (id or name)...
  std::vector<std::string> vms;  // ...or these VMs, by name
  bool full = false;             // incremental otherwise (full when a VM has no base yet)
  std::string pool;              // the storage pool's name or uuid
  std::string options_file;      // a JSON object of backup options
  JSON_Value option_flags = JSON_Value::object();  // options given as flags; they win
  bool wait = true;
  std::chrono::milliseconds interval{2000};  // between status requests while waiting
};

// What a definition names once the CVM, the pool and the VMs are looked up.
struct Backup_Target {
  std::string cvm_uuid, cvm_name, agent, pool_uuid, pool_name;
  JSON_Value pool_io = JSON_Value::object();  // the pool's "io_options"
  JSON_Value entries = JSON_Value::array();   // the definition's source entries
};

// The options of a run: defaults, then the pool's compression, then the file's keys, then the
// flags'.
JSON_Value backup_options(const JSON_Value& pool_io, const JSON_Value& from_file,
                          const JSON_Value& from_flags);
JSON_Value backup_definition(const Backup_Target& target, bool full, const JSON_Value& options,
                             const std::string& uid);

// The table of a finished run: VM, type, source size, copied, stored, time, result.
void print_summary(std::ostream& out, const JSON_Value& status, bool full);

int backup_run(const Cli& cli, const Backup_Args& args);
