#include "programs/cli/restore.h"

#include "host/catalog/server_api.h"
#include "host/core/text.h"
#include "programs/cli/table.h"

#include <strings.h>

#include <algorithm>
#include <iostream>
#include <set>

namespace {

// The record of `list` whose `key` is `value`; null when none is.
const JSON_Value* named(const JSON_Value& list, const char* key, const std::string& value) {
  for (const auto& item : list)
    if (item.is_object() && item.value(key, "") == value)
      return &item;
  return nullptr;
}

bool get_set(const std::string& uuid, JSON_Value& set, std::string& error) {
  HTTP_Request req(HTTP_Method::GET, server_api::h3ccas_sets_route);
  HTTP_Query_String_Builder(req.query()).append("uuid", uuid);
  if (!server_call(req, nullptr, set, error))
    return false;
  if (set.is_object())
    return true;
  error = "unexpected answer from the backup server: " + set.dump();
  return false;
}

// The catalog's summaries of the sets, newest first; of one VM when `set` is given.
bool list_sets(const JSON_Value* set, JSON_Value& rows, std::string& error) {
  HTTP_Request req(HTTP_Method::GET, server_api::h3ccas_sets_route);
  if (set)
    HTTP_Query_String_Builder(req.query())
        .append("host_uuid", set->value("host_uuid", ""))
        .append("vm_id", set->value("vm_id", ""));
  JSON_Value out;
  if (!server_call(req, nullptr, out, error))
    return false;
  rows = out.value("rows", JSON_Value::array());
  return true;
}

std::string chain_head(const JSON_Value& set) {
  const JSON_Value chain = set.value("chain", JSON_Value::array());
  return chain.empty() || !chain.front().is_string() ? set.value("uuid", "")
                                                     : chain.front().get<std::string>();
}

bool list_on_host(const std::string& cvm, const char* subtype, const std::string& host_id,
                  JSON_Value& out, std::string& error) {
  JSON_Value params = {{"uuid", cvm}, {"subtype", subtype}};
  if (!host_id.empty())
    params["host_id"] = host_id;
  return agent_call("h3ccas.list", params, out, error);
}

// Restoring over a VM of the name, in any case, must be asked for.
bool check_name_free(const std::string& cvm, const std::string& name, bool overwrite,
                     std::string& error) {
  JSON_Value found;
  if (!agent_call("h3ccas.list", {{"uuid", cvm}, {"subtype", "verify"}, {"vms", {name}}}, found,
                  error))
    return false;
  for (const auto& vm : found)
    if (strcasecmp(vm.value("name", "").c_str(), name.c_str()) == 0 && !overwrite) {
      error = "a VM named '" + vm.value("name", "") +
              "' exists on this CVM; give --overwrite to replace it";
      return false;
    }
  return true;
}

// One NIC on VSWITCH[/PROFILE]; without a profile "Default", else the CVM's first.
bool map_network(const std::string& mapping, const Restore_Inventory& inv, JSON_Value& nic,
                 std::string& error) {
  const std::string host = inv.host.value("name", "");
  const std::size_t slash = mapping.find('/');
  const std::string vswitch = mapping.substr(0, slash);
  const JSON_Value* vs = vswitch.empty() && !inv.vswitches.empty()
                             ? &inv.vswitches.front()
                             : named(inv.vswitches, "name", vswitch);
  if (!vs) {
    error = vswitch.empty() ? "host '" + host + "' has no virtual switch (give --no-network)"
                            : "no virtual switch '" + vswitch + "' on host '" + host + "'";
    return false;
  }
  const JSON_Value* profile = nullptr;
  if (slash != std::string::npos) {
    if (!(profile = named(inv.profiles, "name", mapping.substr(slash + 1)))) {
      error = "no port profile '" + mapping.substr(slash + 1) + "' on this CVM";
      return false;
    }
  } else if (!(profile = named(inv.profiles, "name", "Default")) && !inv.profiles.empty()) {
    profile = &inv.profiles.front();
  }
  if (!profile) {
    error = "this CVM has no port profile";
    return false;
  }
  nic = {{"virtual_switch_id", vs->value("id", "")},
         {"virtual_switch_name", vs->value("name", "")},
         {"network_profile_id", profile->value("id", "")},
         {"network_profile_name", profile->value("name", "")}};
  return true;
}

void print_restore_summary(std::ostream& out, const JSON_Value& status) {
  Table table({"VM", "RESTORED", "TIME", "RESULT"});
  for (const auto& vm : status.value("vms", JSON_Value::array())) {
    const JSON_Value* h = history_of(status, vm.value("uuid", ""));
    std::int64_t start = seconds_of(vm, "start_time"), end = seconds_of(vm, "end_time");
    table.add({vm.value("name", ""), size_text(bytes_of(vm, "processed_bytes")),
               start && end >= start ? duration_text(end - start) : "",
               h && h->value("succeed", false) ? "ok" : vm.value("status", "failed")});
  }
  table.print(out);
}

}  // namespace

JSON_Value restore_options(const Restore_Args& args, const JSON_Value& from_file) {
  JSON_Value options = {{"parallel_vms", 1},           {"write_buffer_size", 4 << 20},
                        {"cvd_sdk_log_level", "info"}, {"cvd_sdk_network_timeout", 10},
                        {"start_vm", false},           {"original_restore", false},
                        {"overwrite_vm", false},       {"reserve_mac", false}};
  options.update(from_file);
  for (auto [given, key] : {std::pair{args.start, "start_vm"},
                            {args.original, "original_restore"},
                            {args.overwrite, "overwrite_vm"},
                            {args.reserve_mac, "reserve_mac"}})
    if (given)
      options[key] = true;
  if (args.parallel_disks)
    options["parallel_disks_per_vm"] = args.parallel_disks;
  return options;
}

bool restore_entry(const JSON_Value& set, const Restore_Args& args,
                   const Restore_Inventory* inventory, JSON_Value& entry, std::string& error) {
  entry = {{"source_host_id", set.value("host_id", "")},
           {"source_host_name", set.value("host_name", "")},
           {"source_vm_id", set.value("vm_id", "")},
           {"source_vm_name", set.value("vm_name", "")},
           {"timepoint", time_text(set.value("start_time", JSON_Value(0)))},
           {"catalog_uuid", set.value("uuid", "")},
           {"bak_resource_uuid", set.value("resource_uuid", "")}};
  if (args.original || !inventory)
    return true;
  const Restore_Inventory& inv = *inventory;
  const std::string host = inv.host.value("name", "");
  JSON_Value disks = JSON_Value::array(), nics = JSON_Value::array();
  for (const auto& disk : set.value("vm_disks", JSON_Value::array())) {
    const std::string name = args.pool.empty() ? disk.value("pool_name", "") : args.pool;
    const JSON_Value* pool = named(inv.pools, "name", name);
    if (!pool) {
      error = "no storage pool '" + name + "' on host '" + host + "'";
      return false;
    }
    // File storage takes the source's provisioning (thin when it had none); block storage the
    // volume of the source's name.
    std::string mode = disk.value("mode", "");
    std::string path = disk.value("path", "");
    disks.push_back({{"source_path", path},
                     {"target_pool_name", name},
                     {"target_pool_path", pool->value("path", "")},
                     {"target_pool_type", pool->value("storage_type", "")},
                     {"provisioning_mode", mode == "0" || mode == "1" ? mode : "2"},
                     {"target_volume_name", path.substr(path.rfind('/') + 1)}});
  }
  const std::size_t nic_count =
      args.no_network ? 0 : std::max<std::size_t>(args.networks.size(), 1);
  for (std::size_t i = 0; i < nic_count; ++i) {
    JSON_Value nic;
    if (!map_network(args.networks.empty() ? "" : args.networks[i], inv, nic, error))
      return false;
    nics.push_back(std::move(nic));
  }
  entry.update({{"target_host_id", inv.host.value("id", "")},
                {"target_host_ip", inv.host.value("ip", "")},
                {"target_host_name", host},
                {"target_vm_name", args.name},
                {"cpu_count", args.cpus},
                {"cpu_cores", args.cores},
                {"memory_mbytes", args.memory_mib},
                {"disks", disks},
                {"networks", nics}});
  return true;
}

JSON_Value restore_definition(const JSON_Value& set, const JSON_Value& entries, bool verify,
                              const JSON_Value& options, const std::string& uid) {
  // No "pool_uuid": each set is read from the pool its catalog entry names, so that a run may
  // take sets of several pools.
  JSON_Value source = {{"entries", entries}};
  if (verify)
    source["verify"] = true;
  return {{"uid", uid},
          {"name", (verify ? "verify of " : "restore of ") + set.value("vm_name", "")},
          {"type", 2},
          {"host_id", set.value("host_uuid", "")},
          {"agent", agent_host_id()},
          {"source", source},
          {"options", options}};
}

int restore_run(const Cli& cli, const Restore_Args& args) {
  JSON_Value set, from_file;
  std::string error;
  if (!args.original && args.name.empty())
    return usage_error(cli, "give --name NAME for the new VM, or --original");
  if (!read_options(args.options_file, from_file, error) || !get_set(args.set, set, error))
    return fail(error);
  if (args.latest) {
    JSON_Value rows;
    if (!list_sets(&set, rows, error))
      return fail(error);
    for (const auto& row : rows)  // newest first
      if (chain_head(row) == chain_head(set)) {
        if (row.value("uuid", "") != set.value("uuid", "") &&
            !get_set(row.value("uuid", ""), set, error))
          return fail(error);
        break;
      }
  }
  const std::string cvm = set.value("host_uuid", "");
  if (!check_name_free(cvm, args.original ? set.value("vm_name", "") : args.name, args.overwrite,
                       error))
    return fail(error);
  Restore_Inventory inv;
  if (!args.original &&
      (!find_host(cvm, args.host.empty() ? set.value("host_id", "") : args.host, inv.host, error) ||
       !list_on_host(cvm, "StoragePool", inv.host.value("id", ""), inv.pools, error) ||
       !list_on_host(cvm, "VirtualSwitch", inv.host.value("id", ""), inv.vswitches, error) ||
       !list_on_host(cvm, "PortProfile", "", inv.profiles, error)))
    return fail(error);
  JSON_Value entry;
  if (!restore_entry(set, args, &inv, entry, error))
    return fail(error);
  if (!cli.json)
    std::cout << "Restoring set " << set.value("uuid", "") << " of " << set.value("vm_name", "")
              << " (" << set.value("backup_type", "") << ") to "
              << (args.original ? "the original VM" : "'" + args.name + "'") << "\n";
  const JSON_Value definition = restore_definition(set, JSON_Value::array({entry}), false,
                                                   restore_options(args, from_file), new_uuid());
  return run_job(cli, definition, "restore", args.wait, args.interval,
                 [](const JSON_Value& status) { print_restore_summary(std::cout, status); });
}

std::size_t print_bad_objects(std::ostream& out, const JSON_Value& status,
                              const std::map<std::string, std::string>& set_of) {
  Table table({"SET", "VM", "OBJECT", "ERROR"});
  std::size_t bad = 0;
  for (const auto& vm : status.value("vms", JSON_Value::array())) {
    const std::string uuid = vm.value("uuid", "");
    const JSON_Value* h = history_of(status, uuid);
    auto set = set_of.find(uuid);
    for (const auto& object : h ? h->value("bad_objects", JSON_Value::array()) : JSON_Value()) {
      table.add({set != set_of.end() ? set->second : "", vm.value("name", ""),
                 object.value("object", ""), object.value("error", "")});
      ++bad;
    }
  }
  if (bad)
    table.print(out);
  return bad;
}

int sets_verify(const Cli& cli, const std::string& uuid, bool all, const std::string& pool,
                std::chrono::milliseconds interval) {
  JSON_Value sets = JSON_Value::array(), pool_row;
  std::string error;
  if (!all) {
    JSON_Value set;
    if (!get_set(uuid, set, error))
      return fail(error);
    sets.push_back(set);
  } else if (!list_sets(nullptr, sets, error) ||
             (!pool.empty() &&
              !find_row(server_api::pool_route, pool, "storage pool", pool_row, error))) {
    return fail(error);
  }
  // The newest set of each chain reads every object of its older sets too. A run verifies one
  // set per VM at a time: a VM's progress is its own.
  std::size_t verified = 0;
  std::set<std::string> chains;
  std::vector<std::vector<const JSON_Value*>> runs;
  for (const auto& set : sets) {
    if (!pool.empty() && set.value("pool_uuid", "") != pool_row.value("uuid", ""))
      continue;
    verified += all ? 1 : set.value("chain", JSON_Value::array()).size();
    if (!chains.insert(chain_head(set)).second)
      continue;
    auto run = runs.begin();
    for (; run != runs.end(); ++run)
      if (run->front()->value("host_uuid", "") == set.value("host_uuid", "") &&
          !std::any_of(run->begin(), run->end(),
                       [&](auto* s) { return s->value("vm_id", "") == set.value("vm_id", ""); }))
        break;
    if (run == runs.end())
      run = runs.emplace(runs.end());
    run->push_back(&set);
  }
  if (runs.empty())
    return fail("no backup set to verify");
  int rc = OK;
  std::size_t bad = 0;
  std::uint64_t read = 0;
  const Restore_Args none;
  for (const auto& run : runs) {
    JSON_Value entries = JSON_Value::array(), entry;
    std::map<std::string, std::string> set_of;
    for (const JSON_Value* set : run) {
      restore_entry(*set, none, nullptr, entry, error);
      entries.push_back(entry);
      set_of[set->value("vm_id", "")] = set->value("uuid", "");
    }
    const JSON_Value definition = restore_definition(
        *run.front(), entries, true, restore_options(none, JSON_Value::object()), new_uuid());
    rc |= run_job(cli, definition, "verify", true, interval, [&](const JSON_Value& status) {
      bad += print_bad_objects(std::cout, status, set_of);
      const JSON_Value result = status.value("result", JSON_Value::object());
      for (const auto& h : result.value("h3c-cas", JSON_Value::array()))
        read += bytes_of(h, "storaged_size");
    });
  }
  if (rc == OK && !cli.json)
    std::cout << "all " << verified << " set" << (verified == 1 ? "" : "s") << " verified, "
              << size_text(read) << " read\n";
  return rc == OK && bad == 0 ? OK : FAILED;
}
