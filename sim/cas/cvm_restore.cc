// The CVM's operations that make and remove what a restore builds: VMs (created shut off, without
// disks), storage volumes in pools, disks attached from those volumes, and VM deletion. As with
// the backup operations, a refusal found in the request is an error answer and one found by the
// operation a failed task; a volume or VM appears at once, its task completes on the clock.
#include "sim/cas/cvm_api.h"

#include "host/core/text.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <utility>

namespace cas_sim {

namespace {

const char bad_request[] = "参数错误";
const char no_host[] = "主机不存在";
const char no_vm[] = "虚拟机不存在";
const char no_pool[] = "存储池不存在";
const char no_volume[] = "存储卷不存在";

// Pool types whose volumes are devices rather than image files.
bool block_pool(const std::string& type) {
  return type == "iscsi" || type == "fc" || type == "logical" || type == "rbd";
}

// A member CAS takes as text; a whole number is taken in its decimal form. False when absent or of
// another type (`bad` tells which).
bool member_text(const JSON_Value& body, const char* key, std::string& out, bool& bad) {
  const JSON_Value* v = json_find(body, key);
  if (v && v->is_string())
    out = v->get<std::string>();
  else if (v && v->is_number_integer())
    out = std::to_string(v->get<std::int64_t>());
  else
    bad |= v != nullptr;
  return v && !bad;
}

// Sizes and counts beyond this are refused, as the world file refuses them.
constexpr std::int64_t max_count = std::int64_t(1) << 40;

// A positive decimal count such as "2048"; false for anything else.
bool parse_count(const std::string& text, std::int64_t& out) {
  const char* stop = nullptr;
  out = natoi<std::int64_t>(text.data(), text.data() + text.size(), &stop);
  return errno == 0 && stop == text.data() + text.size() && out > 0 && out <= max_count;
}

// A member read as a count, keeping `out` when absent; false when present and not a count.
bool member_count(const JSON_Value& body, const char* key, std::int64_t& out) {
  std::string text;
  bool bad = false;
  return !member_text(body, key, text, bad) ? !bad : parse_count(text, out);
}

// CAS sends a list of one as a bare object.
std::vector<JSON_Value> members_of(const JSON_Value* list) {
  if (!list)
    return {};
  if (list->is_array())
    return list->get<std::vector<JSON_Value>>();
  return {*list};
}

void start_task(Simulator& sim, HTTP_Server_Response& response, const char* fail_msg,
                const std::string& target_id = "") {
  Task_Outcome outcome;
  if (fail_msg) {
    outcome.result = "1";
    outcome.fail_msg = fail_msg;
  }
  outcome.target_id = target_id;
  cas_json(response,
           {{"msgId", sim.tasks().start(std::chrono::milliseconds(sim.knobs().task_duration_ms),
                                        std::move(outcome))}});
}

Host* host_by_id(World& world, const std::string& id) {
  return const_cast<Host*>(find_host(world, id));
}

Pool* pool_by_name(World& world, const std::string& name) {
  return const_cast<Pool*>(find_pool(world, name));
}

// The VM whose disk is at `path`, if any.
const VM* user_of(const World& world, const std::string& path) {
  for (const Host& host : world.hosts)
    for (const VM& vm : host.vms)
      for (const Disk& disk : vm.disks)
        if (disk.path == path)
          return &vm;
  return nullptr;
}

// Space a volume of `pool` gives back when it goes.
void give_back(Pool& pool, double allocation_mib) {
  pool.free_mib = std::min<std::int64_t>(
      pool.capacity_mib, pool.free_mib + static_cast<std::int64_t>(std::ceil(allocation_mib)));
}

std::string provisioning_of(const std::string& code) {
  return code == "0" ? "lazy_zeroed" : code == "1" ? "eager_zeroed" : code == "2" ? "thin" : "";
}

// The NICs of a new VM from CAS's "network" members, checked against its host; a failure text
// for what the operation refuses.
const char* make_nics(const World& world, const Host& host, std::int64_t vm_id,
                      const std::vector<JSON_Value>& members, std::vector<Nic>& out) {
  for (std::size_t i = 0; i < members.size(); ++i) {
    const JSON_Value& m = members[i];
    std::string vs_name, vs_id, profile_id, mac;
    bool bad = false;
    member_text(m, "vsName", vs_name, bad);
    member_text(m, "vsId", vs_id, bad);
    member_text(m, "profileId", profile_id, bad);
    member_text(m, "mac", mac, bad);
    auto vs = std::find_if(host.vswitches.begin(), host.vswitches.end(), [&](const VSwitch& v) {
      return vs_name.empty() ? std::to_string(v.id) == vs_id : v.name == vs_name;
    });
    if (bad || vs == host.vswitches.end())
      return "虚拟交换机不存在";
    Nic nic{mac, vs->name, ""};
    if (!profile_id.empty()) {
      auto p =
          std::find_if(world.port_profiles.begin(), world.port_profiles.end(),
                       [&](const Port_Profile& p) { return std::to_string(p.id) == profile_id; });
      if (p == world.port_profiles.end())
        return "端口配置文件不存在";
      nic.profile = p->name;
    }
    if (nic.mac.empty()) {
      // CAS assigns addresses from its own range.
      char text[18];
      snprintf(text, sizeof text, "0c:da:41:%02x:%02x:%02x",
               static_cast<unsigned>(vm_id >> 8) & 255, static_cast<unsigned>(vm_id) & 255,
               static_cast<unsigned>(i) & 255);
      nic.mac = text;
    }
    out.push_back(std::move(nic));
  }
  return nullptr;
}

}  // namespace

void CVM_Api::add_restore_routes() {
  routes_.add(HTTP_Method::POST, "/cas/casrs/vm/add", &CVM_Api::vm_add);
  routes_.add(HTTP_Method::DELETE, "/cas/casrs/vm/delete/{id}", &CVM_Api::vm_delete);
  routes_.add(HTTP_Method::PUT, "/cas/casrs/vm/addDevice", &CVM_Api::disk_attach);
  routes_.add(HTTP_Method::POST, "/cas/casrs/storage/volume", &CVM_Api::volume_create);
  routes_.add(HTTP_Method::DELETE, "/cas/casrs/storage/volume/delete/{host}/{pool}/{name}",
              &CVM_Api::volume_delete);
}

void CVM_Api::vm_add(const Call& call, HTTP_Server_Response& response) {
  JSON_Value body;
  std::string error, host_id;
  VM vm;
  std::int64_t memory = 1024, sockets = 1, cores = 1, shares = 512, max_cpus = 8, blkiotune = 300;
  bool bad = false;
  if (!parse_json_text(call.request.body, body, error) || !body.is_object() ||
      !member_text(body, "name", vm.name, bad) || vm.name.empty() ||
      !member_text(body, "hostId", host_id, bad) || !member_count(body, "memory", memory) ||
      !member_count(body, "cpuSockets", sockets) || !member_count(body, "cpuCores", cores) ||
      !member_count(body, "cpuShares", shares) || !member_count(body, "maxCpuSocket", max_cpus) ||
      !member_count(body, "blkiotune", blkiotune) || sockets > 64 || cores > 4096 ||
      sockets * cores > 4096)
    return cas_error(response, 400, bad_request);
  vm.title = vm.name;
  member_text(body, "title", vm.title, bad);
  member_text(body, "osBit", vm.architecture, bad);
  member_text(body, "system", vm.system, bad);
  member_text(body, "osVersion", vm.os_version, bad);
  member_text(body, "autoMigrate", vm.auto_migrate, bad);
  const JSON_Value* network = json_find(body, "network");
  if (bad || (network && !network->is_array() && !network->is_object()))
    return cas_error(response, 400, bad_request);
  vm.os = vm.os_version;
  vm.status = "shutOff";
  vm.memory_mib = memory;
  vm.cpu_sockets = static_cast<int>(sockets);
  vm.cpus = static_cast<int>(sockets * cores);
  vm.cpu_shares = static_cast<int>(std::min<std::int64_t>(shares, 1 << 20));
  vm.max_cpus = static_cast<int>(std::min<std::int64_t>(max_cpus, 4096));
  vm.blkiotune = static_cast<int>(std::min<std::int64_t>(blkiotune, 1000));
  // Disks are attached afterwards (addDevice); the floppy drive CAS is given holds nothing.
  const char* refusal = nullptr;
  bool known = sim_.change_world([&](World& world) {
    Host* host = host_by_id(world, host_id);
    if (!host)
      return false;
    // Ids are not given twice, even after the VM that had one was deleted.
    vm.id = last_vm_id_ + 1;
    for (const Host& h : world.hosts)
      for (const VM& v : h.vms)
        vm.id = std::max(vm.id, v.id + 1);
    char uuid[40];
    snprintf(uuid, sizeof uuid, "5a1d0000-0000-4000-8000-%012lld",
             static_cast<long long>(vm.id % 1000000000000));
    vm.uuid = uuid;
    bool taken = false;
    for (const Host& h : world.hosts)
      for (const VM& v : h.vms)
        taken |= v.name == vm.name;
    if (taken)
      refusal = "虚拟机名称已存在";
    else
      refusal = make_nics(world, *host, vm.id, members_of(network), vm.networks);
    if (!refusal) {
      host->vms.push_back(vm);
      last_vm_id_ = vm.id;
    }
    return true;
  });
  if (!known)
    return cas_error(response, 404, no_host);
  start_task(sim_, response, refusal, refusal ? "" : cas_number(vm.id));
}

void CVM_Api::vm_delete(const Call& call, HTTP_Server_Response& response) {
  const auto wipe = call.request.query.find("deleteDisk");
  const bool delete_disks = wipe != call.request.query.end() && wipe->second == "true";
  std::vector<std::string> gone;  // images to remove
  bool known = sim_.change_world([&](World& world) {
    for (Host& host : world.hosts)
      for (auto vm = host.vms.begin(); vm != host.vms.end(); ++vm) {
        if (std::to_string(vm->id) != call.params.at("id"))
          continue;
        // Image files stay in their pools as volumes unless deleted with the VM.
        for (const Disk& disk : vm->disks) {
          Pool* pool = disk.device == "disk" ? pool_by_name(world, disk.pool) : nullptr;
          const std::string prefix = pool ? pool->path + "/" : "";
          if (!pool || disk.path.compare(0, prefix.size(), prefix) != 0 ||
              disk.path.find('/', prefix.size()) != std::string::npos ||
              std::any_of(pool->volumes.begin(), pool->volumes.end(),
                          [&](const Volume& v) { return prefix + v.name == disk.path; }))
            continue;
          Volume volume{disk.path.substr(prefix.size()),
                        static_cast<double>(disk.size_mib),
                        "",
                        disk.format,
                        disk.provisioning,
                        disk.cluster_size};
          if (delete_disks) {
            give_back(*pool, volume_allocation_mib(volume));
            gone.push_back(disk.path);
          } else {
            pool->volumes.push_back(std::move(volume));
          }
        }
        host.vms.erase(vm);
        return true;
      }
    return false;
  });
  // CAS tells an unknown VM by its own number, which a client may take as already deleted.
  if (!known)
    return cas_error(response, 500, no_vm, "1001");
  for (const std::string& path : gone)
    sim_.disks().forget(path);
  start_task(sim_, response, nullptr, call.params.at("id"));
}

void CVM_Api::disk_attach(const Call& call, HTTP_Server_Response& response) {
  JSON_Value body;
  std::string error, vm_id, path, format, device = "disk", bus, name, cache;
  bool bad = false;
  const JSON_Value* storage = nullptr;
  if (!parse_json_text(call.request.body, body, error) || !body.is_object() ||
      !member_text(body, "id", vm_id, bad) || !(storage = json_find(body, "storage")) ||
      !storage->is_object() || !member_text(*storage, "path", path, bad))
    return cas_error(response, 400, bad_request);
  // "fileType" carries the image format.
  member_text(*storage, "fileType", format, bad);
  member_text(*storage, "device", device, bad);
  member_text(*storage, "targetBus", bus, bad);
  member_text(*storage, "deviceName", name, bad);
  member_text(*storage, "cacheType", cache, bad);
  if (bad || device != "disk" || (!format.empty() && format != "raw" && format != "qcow2"))
    return cas_error(response, 400, bad_request);
  // Without a device name the next free one is taken; a name given must be free.
  const bool named = !name.empty();
  const char* refusal = nullptr;
  bool known = sim_.change_world([&](World& world) {
    VM* vm = const_cast<VM*>(find_vm(world, vm_id));
    if (!vm)
      return false;
    Pool* pool = nullptr;
    auto volume = std::vector<Volume>::iterator();
    for (Pool& p : world.pools)
      for (auto v = p.volumes.begin(); v != p.volumes.end() && !pool; ++v)
        if (path == p.path + "/" + v->name) {
          pool = &p;
          volume = v;
        }
    auto taken = [&](const std::string& n) {
      return std::any_of(vm->disks.begin(), vm->disks.end(),
                         [&](const Disk& d) { return d.device_name == n; });
    };
    for (char c = 'a'; c <= 'z' && (name.empty() || taken(name)) && !named; ++c)
      name = std::string("vd") + c;
    if (user_of(world, path))
      refusal = "存储卷已被虚拟机使用";
    else if (!pool)
      refusal = no_volume;
    else if (taken(name))
      refusal = "设备名称已存在";
    if (refusal)
      return true;
    Disk disk;
    disk.device_name = name;
    disk.size_mib = static_cast<std::int64_t>(std::ceil(volume->size_mib));
    disk.allocation_mib = static_cast<std::int64_t>(std::ceil(volume_allocation_mib(*volume)));
    disk.format = !format.empty() ? format : !volume->format.empty() ? volume->format : "qcow2";
    disk.file_type = pool->type == "rbd" ? "network" : block_pool(pool->type) ? "block" : "file";
    disk.pool = pool->name;
    disk.path = path;
    if (!bus.empty())
      disk.target_bus = bus;
    if (!cache.empty())
      disk.cache_type = cache;
    disk.provisioning =
        volume->provisioning.empty() && disk.file_type == "file" ? "thin" : volume->provisioning;
    disk.cluster_size = volume->cluster_size;
    vm->disks.push_back(std::move(disk));
    pool->volumes.erase(volume);
    return true;
  });
  if (!known)
    return cas_error(response, 404, no_vm);
  start_task(sim_, response, refusal, refusal ? "" : vm_id);
}

void CVM_Api::volume_create(const Call& call, HTTP_Server_Response& response) {
  JSON_Value body;
  std::string error, host_id, pool_name, mode = "2", capacity_text;
  Volume volume;
  volume.format = "qcow2";
  std::int64_t capacity = 0, cluster = 0;
  bool bad = false;
  if (!parse_json_text(call.request.body, body, error) || !body.is_object() ||
      !member_text(body, "hostId", host_id, bad) || !member_text(body, "spName", pool_name, bad) ||
      !member_text(body, "volName", volume.name, bad) ||
      !member_text(body, "capacity", capacity_text, bad) || !parse_count(capacity_text, capacity) ||
      !member_count(body, "clusterSize", cluster) || volume.name.empty() ||
      volume.name.find('/') != std::string::npos || volume.name == "." || volume.name == "..")
    return cas_error(response, 400, bad_request);
  member_text(body, "format", volume.format, bad);
  member_text(body, "mode", mode, bad);
  volume.provisioning = provisioning_of(mode);
  if (bad || volume.provisioning.empty() || (volume.format != "raw" && volume.format != "qcow2"))
    return cas_error(response, 400, bad_request);
  volume.size_mib = static_cast<double>(capacity);
  volume.cluster_size = cluster;
  std::string path;
  int status = sim_.change_world([&](World& world) {
    Pool* pool = pool_by_name(world, pool_name);
    if (!host_by_id(world, host_id))
      return 1;
    if (!pool)
      return 2;
    path = pool->path + "/" + volume.name;
    bool exists = user_of(world, path) != nullptr;
    for (const Volume& v : pool->volumes)
      exists |= v.name == volume.name;
    if (exists)
      return 3;
    const double needed = volume_allocation_mib(volume);
    if (needed > static_cast<double>(pool->free_mib))
      return 4;
    pool->free_mib -= static_cast<std::int64_t>(needed);
    pool->volumes.push_back(volume);
    return 0;
  });
  switch (status) {
    case 1:
      return cas_error(response, 404, no_host);
    case 2:
      return cas_error(response, 404, no_pool);
    case 3:
      return cas_error(response, 500, "存储卷已存在", "2005");
    case 4:
      return start_task(sim_, response, "存储池空间不足");
  }
  // An image left by an earlier volume of that name (or an earlier run) must not show through.
  sim_.disks().forget(path);
  start_task(sim_, response, nullptr);
}

void CVM_Api::volume_delete(const Call& call, HTTP_Server_Response& response) {
  const std::string& name = call.params.at("name");
  std::string path;
  int status = sim_.change_world([&](World& world) {
    Pool* pool = pool_by_name(world, call.params.at("pool"));
    if (!host_by_id(world, call.params.at("host")))
      return 1;
    if (!pool)
      return 2;
    path = pool->path + "/" + name;
    if (user_of(world, path))
      return 4;
    auto v = std::find_if(pool->volumes.begin(), pool->volumes.end(),
                          [&](const Volume& v) { return v.name == name; });
    if (v == pool->volumes.end())
      return 3;
    give_back(*pool, volume_allocation_mib(*v));
    pool->volumes.erase(v);
    return 0;
  });
  switch (status) {
    case 1:
      return cas_error(response, 404, no_host);
    case 2:
      return cas_error(response, 404, no_pool);
    case 3:
      return cas_error(response, 404, no_volume);
    case 4:
      return start_task(sim_, response, "存储卷已被虚拟机使用");
  }
  sim_.disks().forget(path);
  start_task(sim_, response, nullptr);
}

}  // namespace cas_sim
