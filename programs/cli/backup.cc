#include "programs/cli/backup.h"

#include "host/catalog/server_api.h"
#include "host/core/text.h"
#include "programs/cli/table.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>

namespace {

bool find_vms(const std::string& cvm_uuid, const std::vector<std::string>& names,
              JSON_Value& entries, std::string& error) {
  JSON_Value found;
  if (!agent_call("h3ccas.list", {{"uuid", cvm_uuid}, {"subtype", "verify"}, {"vms", names}}, found,
                  error))
    return false;
  std::string missing;
  for (const auto& name : names) {
    const JSON_Value* vm = nullptr;
    // The agent matches names in any case; the definition takes the VM's own.
    for (const auto& v : found)
      if (strcasecmp(v.value("name", "").c_str(), name.c_str()) == 0)
        vm = &v;
    if (!vm) {
      missing += (missing.empty() ? "'" : ", '") + name + "'";
      continue;
    }
    entries.push_back({{"type", "VirtualMachine"},
                       {"host_id", vm->value("host_id", "")},
                       {"name", vm->value("name", "")},
                       {"title", vm->value("title", "")},
                       {"uuid", vm->value("uuid", "")}});
  }
  if (!missing.empty())
    error = "VMs not found: " + missing;
  return missing.empty();
}

bool find_pool(const std::string& key, Backup_Target& target, std::string& error) {
  JSON_Value pool;
  if (!find_row(server_api::pool_route, key, "storage pool", pool, error))
    return false;
  target.pool_uuid = pool.value("uuid", "");
  target.pool_name = pool.value("name", "");
  target.pool_io = pool.value("io_options", JSON_Value::object());
  return true;
}

}  // namespace

JSON_Value backup_options(const JSON_Value& pool_io, const JSON_Value& from_file,
                          const JSON_Value& from_flags) {
  // What the agent requires, at values that suit most CVMs; a VM without a base to build on is
  // backed up in full.
  JSON_Value options = {{"restart_vm", false},
                        {"read_buffer_size", 1048576},
                        {"cvd_sdk_log_level", "warn"},
                        {"cvd_sdk_network_timeout", 60},
                        {"compression", pool_io.value("compression", "zstd")},
                        {"enable_cbt", true},
                        {"no_cbt", "full_backup"}};
  if (pool_io.contains("compression_level"))
    options["compression_level"] = pool_io["compression_level"];
  options.update(from_file);
  options.update(from_flags);
  return options;
}

void print_summary(std::ostream& out, const JSON_Value& status, bool full) {
  if (status.value("vms", JSON_Value::array()).empty())
    return;
  Table table({"VM", "TYPE", "SOURCE", "COPIED", "STORED", "TIME", "RESULT"});
  for (const auto& vm : status.value("vms", JSON_Value::array())) {
    const JSON_Value* h = history_of(status, vm.value("uuid", ""));
    bool ok = h && h->value("succeed", false);
    std::int64_t start = seconds_of(vm, "start_time"), end = seconds_of(vm, "end_time");
    // A history entry that knows the type says whether an incremental became a full backup.
    std::string type = h && h->contains("type") ? h->value("type", "")
                       : full                   ? "full"
                                                : "incremental";
    table.add({vm.value("name", ""), type, h ? size_text(bytes_of(*h, "size")) : "",
               size_text(bytes_of(vm, "processed_bytes")),
               h ? size_text(bytes_of(*h, "storaged_size")) : "",
               start && end >= start ? duration_text(end - start) : "",
               ok ? "ok" : vm.value("status", "failed")});
  }
  table.print(out);
}

JSON_Value backup_definition(const Backup_Target& target, bool full, const JSON_Value& options,
                             const std::string& uid) {
  return {{"uid", uid},
          {"name", "backup of " + target.cvm_name},
          {"type", 1},
          {"subtype", full ? "full" : "incremental"},
          {"host_id", target.cvm_uuid},
          {"agent", target.agent},
          {"target_id", target.pool_uuid},
          {"target_name", target.pool_name},
          {"source", {{"entries", target.entries}, {"exclusion", JSON_Value::array()}}},
          {"options", options}};
}

int backup_run(const Cli& cli, const Backup_Args& args) {
  Backup_Target target;
  JSON_Value cvm, from_file;
  std::string error;
  if (!read_options(args.options_file, from_file, error) || !find_cvm(args.cvm, cvm, error))
    return fail(error);
  target.cvm_uuid = cvm.value("uuid", "");
  target.cvm_name = cvm.value("name", "");
  if (target.cvm_name.empty())
    target.cvm_name = cvm.value("host", target.cvm_uuid);
  target.agent = agent_host_id();
  if (!find_pool(args.pool, target, error))
    return fail(error);
  if (!args.host.empty()) {
    JSON_Value host;
    if (!find_host(target.cvm_uuid, args.host, host, error))
      return fail(error);
    target.entries.push_back(
        {{"type", "HostSystem"}, {"id", host.value("id", "")}, {"name", host.value("name", "")}});
  } else if (!find_vms(target.cvm_uuid, args.vms, target.entries, error)) {
    return fail(error);
  }
  JSON_Value definition = backup_definition(
      target, args.full, backup_options(target.pool_io, from_file, args.option_flags), new_uuid());
  return run_job(
      cli, definition, "backup", args.wait, args.interval,
      [&args](const JSON_Value& status) { print_summary(std::cout, status, args.full); });
}
