// The CVM's inventory queries and the progress of its asynchronous tasks, answered from the world
// with CAS's key names and habits (README.md, "CAS answer shapes").
#include "sim/cas/cvm_api.h"

#include <algorithm>
#include <utility>

namespace cas_sim {

namespace {

// What a handler works out under the world's lock: a body, or a refusal.
struct Answer {
  Answer(JSON_Value value = nullptr) : body(std::move(value)) {}
  JSON_Value body;  // null: no body
  int status = 200;
  const char* error = nullptr;  // the Error-Message of a refusal
};

Answer refuse(int status, const char* message) {
  Answer answer;
  answer.status = status;
  answer.error = message;
  return answer;
}

void reply(HTTP_Server_Response& response, const Answer& answer) {
  if (answer.error)
    cas_error(response, answer.status, answer.error);
  else
    cas_json(response, answer.body);
}

const char no_host[] = "主机不存在";
const char no_vm[] = "虚拟机不存在";

// A query parameter; nullptr when absent.
const std::string* query(const HTTP_Server_Request& request, const char* key) {
  auto it = request.query.find(key);
  return it == request.query.end() ? nullptr : &it->second;
}

const char* cas_bool(bool value) {
  return value ? "true" : "false";
}

JSON_Value host_json(const Host& host) {
  return {{"id", cas_number(host.id)},
          {"name", host.name},
          {"ip", host.ip},
          {"status", host.status},
          {"cpuCount", cas_number(host.cpu_count)},
          {"cpuCores", cas_number(host.cpu_cores)},
          {"memorySize", cas_number(host.memory_mib)}};
}

JSON_Value vm_json(const Host& host, const VM& vm) {
  JSON_Value out = {{"id", cas_number(vm.id)},
                    {"uuid", vm.uuid},
                    {"name", vm.name},
                    {"title", vm.title},
                    {"vmStatus", vm.status},
                    {"hostId", cas_number(host.id)},
                    {"hostName", host.name},
                    {"cpu", cas_number(vm.cpus)},
                    {"memory", cas_number(vm.memory_mib)}};
  if (!vm.os.empty())
    out["osDesc"] = vm.os;
  return out;
}

JSON_Value disk_json(const Disk& disk) {
  JSON_Value out = {{"device", disk.device},
                    {"deviceName", disk.device_name},
                    {"fileType", disk.file_type},
                    {"path", disk.path},
                    {"format", disk.format},
                    {"targetBus", disk.target_bus},
                    {"size", cas_number(disk.size_mib)},
                    {"allocation", cas_number(disk.allocation_mib)},
                    {"cacheType", disk.cache_type},
                    {"isShareStorage", disk.shared ? "1" : "0"}};
  if (!disk.provisioning.empty())
    out["mode"] = provisioning_code(disk.provisioning);
  if (disk.cluster_size > 0)
    out["clusterSize"] = cas_number(disk.cluster_size);
  if (!disk.backing_file.empty())
    out["backingFile"] = disk.backing_file;
  if (!disk.pool.empty())
    out["storagePool"] = disk.pool;
  return out;
}

JSON_Value snapshot_json(const std::string& name, bool internal,
                         const std::vector<Snapshot>& children) {
  JSON_Value out = {{"name", name}, {"snapshotMode", internal ? "1" : "0"}};
  std::vector<JSON_Value> members;
  for (const Snapshot& child : children)
    members.push_back(snapshot_json(child.name, child.internal, child.children));
  if (!members.empty())
    out["snapshots"] = cas_list("snapshot", std::move(members));
  return out;
}

// The hostId a query must carry, resolved; an answer when it is missing or names no host.
const Host* query_host(const World& world, const HTTP_Server_Request& request, Answer& answer) {
  const std::string* id = query(request, "hostId");
  if (!id) {
    answer = refuse(400, "缺少参数hostId");
    return nullptr;
  }
  const Host* host = find_host(world, *id);
  if (!host)
    answer = refuse(404, no_host);
  return host;
}

}  // namespace

void CVM_Api::add_inventory_routes() {
  const std::pair<const char*, Handler> routes[] = {
      {"/cas/casrs/host", &CVM_Api::host_list},
      {"/cas/casrs/host/id/{id}", &CVM_Api::host_detail},
      {"/cas/casrs/host/id/{id}/vswitch", &CVM_Api::vswitch_list},
      {"/cas/casrs/vm/vmList", &CVM_Api::vm_list},
      {"/cas/casrs/vm/detail/{id}", &CVM_Api::vm_detail},
      {"/cas/casrs/vm/{id}/capabilities", &CVM_Api::vm_capabilities},
      {"/cas/casrs/vm/snapshot/{id}", &CVM_Api::snapshot_tree},
      {"/cas/casrs/storage/pool", &CVM_Api::pool_list},
      {"/cas/casrs/storage/volume", &CVM_Api::volume_list},
      {"/cas/casrs/profile", &CVM_Api::port_profile_list},
      {"/cas/casrs/message/{id}", &CVM_Api::task_progress},
  };
  for (const auto& route : routes)
    routes_.add(HTTP_Method::GET, route.first, route.second);
}

void CVM_Api::host_list(const Call&, HTTP_Server_Response& response) {
  reply(response, sim_.with_world([](const World& world) {
    std::vector<JSON_Value> members;
    for (const Host& host : world.hosts)
      members.push_back(host_json(host));
    return Answer(cas_list("host", std::move(members)));
  }));
}

void CVM_Api::host_detail(const Call& call, HTTP_Server_Response& response) {
  reply(response, sim_.with_world([&](const World& world) {
    const Host* host = find_host(world, call.params.at("id"));
    return host ? Answer(host_json(*host)) : refuse(404, no_host);
  }));
}

void CVM_Api::vswitch_list(const Call& call, HTTP_Server_Response& response) {
  reply(response, sim_.with_world([&](const World& world) {
    const Host* host = find_host(world, call.params.at("id"));
    if (!host)
      return refuse(404, no_host);
    std::vector<JSON_Value> members;
    for (const VSwitch& v : host->vswitches) {
      JSON_Value out = {{"id", cas_number(v.id)},         {"name", v.name},
                        {"address", v.address},           {"gateway", v.gateway},
                        {"status", v.active ? "1" : "0"}, {"networkType", cas_number(v.types)},
                        {"hostId", cas_number(host->id)}};
      if (!v.pnic.empty())
        out["pnic"] = v.pnic;
      members.push_back(std::move(out));
    }
    return Answer(cas_list("vSwitch", std::move(members)));
  }));
}

void CVM_Api::vm_list(const Call& call, HTTP_Server_Response& response) {
  const std::string* host_id = query(call.request, "hostId");
  const std::string* sort = query(call.request, "sortField");
  if (sort && *sort != "title" && *sort != "name")
    return cas_error(response, 400, "不支持的排序字段");
  if (!host_id && sim_.knobs().vm_list_conflict)
    return cas_error(response, 409, "虚拟机数量过多，请按主机查询");
  reply(response, sim_.with_world([&](const World& world) {
    std::vector<std::pair<const Host*, const VM*>> vms;
    if (host_id) {
      const Host* host = find_host(world, *host_id);
      if (!host)
        return refuse(404, no_host);
      for (const VM& vm : host->vms)
        vms.emplace_back(host, &vm);
    } else {
      for (const Host& host : world.hosts)
        for (const VM& vm : host.vms)
          vms.emplace_back(&host, &vm);
    }
    if (sort) {
      auto field = *sort == "title" ? &VM::title : &VM::name;
      std::stable_sort(vms.begin(), vms.end(), [&](const auto& a, const auto& b) {
        return a.second->*field < b.second->*field;
      });
    }
    std::vector<JSON_Value> members;
    members.reserve(vms.size());
    for (const auto& entry : vms)
      members.push_back(vm_json(*entry.first, *entry.second));
    return Answer(cas_list("domain", std::move(members)));
  }));
}

void CVM_Api::vm_detail(const Call& call, HTTP_Server_Response& response) {
  reply(response, sim_.with_world([&](const World& world) {
    const Host* host = nullptr;
    const VM* vm = find_vm(world, call.params.at("id"), &host);
    if (!vm)
      return refuse(404, no_vm);
    JSON_Value basic = vm_json(*host, *vm);
    basic.erase("cpu");
    basic.erase("memory");
    basic["architecture"] = vm->architecture;
    basic["system"] = vm->system;
    basic["blkiotune"] = cas_number(vm->blkiotune);
    basic["autoMigrate"] = vm->auto_migrate;
    if (!vm->os_version.empty())
      basic["osVersion"] = vm->os_version;
    JSON_Value out = {{"id", cas_number(vm->id)},
                      {"status", vm->status},
                      {"basic", std::move(basic)},
                      {"cpu",
                       {{"cpuSockets", cas_number(vm->cpu_sockets)},
                        {"cpuCores", cas_number(vm->cpus / vm->cpu_sockets)},
                        {"cpuShares", cas_number(vm->cpu_shares)},
                        {"maxCpuNum", cas_number(vm->max_cpus)}}},
                      {"memory", {{"size", cas_number(vm->memory_mib)}}}};
    std::vector<JSON_Value> networks, storages;
    for (const Nic& nic : vm->networks) {
      JSON_Value n = {{"mac", nic.mac}, {"vsName", nic.vswitch}};
      if (!nic.profile.empty())
        n["profileName"] = nic.profile;
      networks.push_back(std::move(n));
    }
    for (const Disk& disk : vm->disks)
      storages.push_back(disk_json(disk));
    // Absent rather than empty, as CAS leaves them out.
    if (!networks.empty())
      out["network"] = cas_members(std::move(networks));
    if (!storages.empty())
      out["storage"] = cas_members(std::move(storages));
    return Answer(std::move(out));
  }));
}

void CVM_Api::vm_capabilities(const Call& call, HTTP_Server_Response& response) {
  reply(response, sim_.with_world([&](const World& world) {
    const VM* vm = find_vm(world, call.params.at("id"));
    if (!vm)
      return refuse(404, no_vm);
    const Capabilities& caps = vm->capabilities;
    return Answer(JSON_Value{{"supportSnapshot", cas_bool(caps.snapshot)},
                             {"supportCbt", cas_bool(caps.cbt)},
                             {"supportExternalSnapshot", cas_bool(caps.external_snapshot)},
                             {"supportExternalSnapshotFastBackup", cas_bool(caps.external_cbt)}});
  }));
}

void CVM_Api::snapshot_tree(const Call& call, HTTP_Server_Response& response) {
  reply(response, sim_.with_world([&](const World& world) {
    const VM* vm = find_vm(world, call.params.at("id"));
    if (!vm)
      return refuse(404, no_vm);
    // The root is the VM itself; its snapshots hang below it.
    return Answer(JSON_Value{{"snapshot", snapshot_json(vm->name, false, vm->snapshots)}});
  }));
}

void CVM_Api::pool_list(const Call& call, HTTP_Server_Response& response) {
  reply(response, sim_.with_world([&](const World& world) {
    Answer answer;
    const Host* host = query_host(world, call.request, answer);
    if (!host)
      return answer;
    std::vector<JSON_Value> members;
    for (const Pool& pool : world.pools) {
      JSON_Value out = {{"name", pool.name},
                        {"type", pool.type},
                        {"path", pool.path},
                        {"totalSize", cas_number(pool.capacity_mib)},
                        {"freeSize", cas_number(pool.free_mib)},
                        {"status", pool.active ? "1" : "0"},
                        {"hostId", cas_number(host->id)}};
      if (!pool.title.empty())
        out["title"] = pool.title;
      members.push_back(std::move(out));
    }
    return Answer(cas_list("storagePool", std::move(members)));
  }));
}

void CVM_Api::volume_list(const Call& call, HTTP_Server_Response& response) {
  reply(response, sim_.with_world([&](const World& world) {
    Answer answer;
    if (!query_host(world, call.request, answer))
      return answer;
    const std::string* pool_name = query(call.request, "poolName");
    if (!pool_name)
      return refuse(400, "缺少参数poolName");
    const Pool* pool = find_pool(world, *pool_name);
    if (!pool)
      return refuse(404, "存储池不存在");
    std::vector<JSON_Value> members;
    auto add = [&](const std::string& name, const std::string& path, const std::string& size,
                   const std::string& allocation, const std::string& users,
                   const std::string& format, const std::string& provisioning) {
      JSON_Value out = {{"name", name},
                        {"path", path},
                        {"size", size},
                        {"allocation", allocation},
                        {"users", users}};
      if (!format.empty())
        out["format"] = format;
      if (!provisioning.empty())
        out["mode"] = provisioning_code(provisioning);
      members.push_back(std::move(out));
    };
    for (const Volume& volume : pool->volumes)
      add(volume.name, pool->path + "/" + volume.name, cas_mib(volume.size_mib),
          cas_mib(volume_allocation_mib(volume)), volume.users, volume.format, volume.provisioning);
    // Every disk image in the pool is one of its volumes, used by its VM.
    for (const Host& host : world.hosts)
      for (const VM& vm : host.vms)
        for (const Disk& disk : vm.disks)
          if (disk.pool == pool->name)
            add(disk.path.substr(disk.path.rfind('/') + 1), disk.path, cas_number(disk.size_mib),
                cas_number(disk.allocation_mib), vm.name, disk.format, disk.provisioning);
    return Answer(cas_list("storageVolume", std::move(members)));
  }));
}

void CVM_Api::port_profile_list(const Call&, HTTP_Server_Response& response) {
  reply(response, sim_.with_world([](const World& world) {
    std::vector<JSON_Value> members;
    for (const Port_Profile& p : world.port_profiles) {
      JSON_Value out = {
          {"id", cas_number(p.id)}, {"name", p.name}, {"vlanId", cas_number(p.vlan_id)}};
      if (!p.description.empty())
        out["description"] = p.description;
      if (!p.acl_name.empty())
        out["aclName"] = p.acl_name;
      if (!p.net_limit_title.empty())
        out["netLimitTitle"] = p.net_limit_title;
      members.push_back(std::move(out));
    }
    return Answer(cas_list("portProfile", std::move(members)));
  }));
}

void CVM_Api::task_progress(const Call& call, HTTP_Server_Response& response) {
  const std::string& id = call.params.at("id");
  Task_Progress progress;
  if (!sim_.tasks().progress(id, progress))
    return cas_error(response, 404, "消息不存在");
  JSON_Value out = {{"msgId", id},
                    {"completed", cas_bool(progress.completed)},
                    {"progress", cas_number(progress.percent)}};
  if (progress.completed) {
    out["result"] = progress.outcome.result;
    if (!progress.outcome.fail_msg.empty())
      out["failMsg"] = progress.outcome.fail_msg;
    if (!progress.outcome.target_id.empty())
      out["targetId"] = progress.outcome.target_id;
  }
  cas_json(response, out);
}

}  // namespace cas_sim
