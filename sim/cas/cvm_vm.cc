// The CVM's operations on VMs that a backup needs: snapshots (internal and external, copy-on-write
// in the disk store), changed-block trackers, allocated and changed block lists, and power. Each
// state change runs as an asynchronous task; a refusal found when the request arrives is an
// error answer, one found by the operation itself a failed task, as on CAS.
#include "sim/cas/cvm_api.h"

#include "host/core/log.h"

#include <chrono>
#include <utility>

namespace cas_sim {

namespace {

const char no_vm[] = "虚拟机不存在";
const char bad_request[] = "参数错误";

const std::string* query(const HTTP_Server_Request& request, const char* key) {
  auto it = request.query.find(key);
  return it == request.query.end() ? nullptr : &it->second;
}

VM* vm_by_id(World& world, const std::string& id) {
  return const_cast<VM*>(find_vm(world, id));
}

VM* vm_by_name(World& world, const std::string& name) {
  for (Host& host : world.hosts)
    for (VM& vm : host.vms)
      if (vm.name == name)
        return &vm;
  return nullptr;
}

// The paths of the VM's disks (CD-ROMs hold no guest data).
std::vector<std::string> disk_paths(const VM& vm) {
  std::vector<std::string> out;
  for (const Disk& disk : vm.disks)
    if (disk.device == "disk")
      out.push_back(disk.path);
  return out;
}

Snapshot* find_snapshot(std::vector<Snapshot>& tree, const std::string& name) {
  for (Snapshot& s : tree) {
    if (s.name == name)
      return &s;
    if (Snapshot* found = find_snapshot(s.children, name))
      return found;
  }
  return nullptr;
}

// Removes `name` from the tree; its children take its place under its parent.
bool remove_snapshot(std::vector<Snapshot>& tree, const std::string& name, bool& internal) {
  for (auto it = tree.begin(); it != tree.end(); ++it) {
    if (it->name == name) {
      internal = it->internal;
      std::vector<Snapshot> children = std::move(it->children);
      it = tree.erase(it);
      tree.insert(it, children.begin(), children.end());
      return true;
    }
    if (remove_snapshot(it->children, name, internal))
      return true;
  }
  return false;
}

// A new snapshot hangs below the newest one: the end of the latest branch.
std::vector<Snapshot>& newest_branch(std::vector<Snapshot>& tree) {
  return tree.empty() || tree.back().children.empty() ? tree.empty() ? tree : tree.back().children
                                                      : newest_branch(tree.back().children);
}

JSON_Value blocks_json(const std::vector<Extent>& extents) {
  std::vector<JSON_Value> members;
  for (const Extent& e : extents)
    members.push_back({{"offset", cas_number(static_cast<std::int64_t>(e.offset))},
                       {"length", cas_number(static_cast<std::int64_t>(e.length))}});
  return cas_list("dataBlockInfo", std::move(members));
}

}  // namespace

void CVM_Api::add_vm_routes() {
  routes_.add(HTTP_Method::POST, "/cas/casrs/vm/snapshot", &CVM_Api::snapshot_create);
  routes_.add(HTTP_Method::DELETE, "/cas/casrs/vm/snapshot/{id}/{name}", &CVM_Api::snapshot_delete);
  routes_.add(HTTP_Method::GET, "/cas/casrs/vm/disk/dataBlock", &CVM_Api::data_blocks);
  routes_.add(HTTP_Method::GET, "/cas/casrs/vm/disk/changedBlock", &CVM_Api::changed_blocks);
  routes_.add(HTTP_Method::POST, "/cas/casrs/vm/disk/changedBlockTracker",
              &CVM_Api::tracker_create);
  routes_.add(HTTP_Method::GET, "/cas/casrs/vm/disk/changedBlockTracker", &CVM_Api::tracker_info);
  routes_.add(HTTP_Method::DELETE, "/cas/casrs/vm/disk/changedBlockTracker",
              &CVM_Api::tracker_delete);
  routes_.add(HTTP_Method::PUT, "/cas/casrs/vm/{action}/{id}", &CVM_Api::vm_power);
}

namespace {

// Answers a started task: {"msgId": ...}; an empty `fail_msg` succeeds.
void start_task(Simulator& sim, HTTP_Server_Response& response, const std::string& fail_msg,
                const std::string& target_id = "") {
  Task_Outcome outcome;
  if (!fail_msg.empty()) {
    outcome.result = "1";
    outcome.fail_msg = fail_msg;
  }
  outcome.target_id = target_id;
  int ms = sim.knobs().task_duration_ms;
  cas_json(response, {{"msgId", sim.tasks().start(std::chrono::milliseconds(ms), outcome)}});
}

}  // namespace

void CVM_Api::snapshot_create(const Call& call, HTTP_Server_Response& response) {
  JSON_Value body;
  std::string error, vm_id, name, mode;
  if (!parse_json_text(call.request.body, body, error) || !body.is_object() ||
      !json_find(body, "vmId") || !json_find(body, "name") || !json_find(body, "snapshotMode") ||
      !body["vmId"].is_string() || !body["name"].is_string() || !body["snapshotMode"].is_string())
    return cas_error(response, 400, bad_request);
  vm_id = body["vmId"];
  name = body["name"];
  mode = body["snapshotMode"];
  if (mode != "1" && mode != "2")
    return cas_error(response, 400, bad_request);
  const bool internal = mode == "1";
  // Checked under the world's lock; the disks are frozen outside it (the store reads the world).
  std::vector<std::string> paths, backings;
  const char* refusal = nullptr;
  bool known = sim_.change_world([&](World& world) {
    VM* vm = vm_by_id(world, vm_id);
    if (!vm)
      return false;
    bool local_raw = false;
    for (const Disk& disk : vm->disks)
      local_raw |= disk.device == "disk" && disk.format == "raw" && disk.file_type != "network";
    if (find_snapshot(vm->snapshots, name))
      refusal = "快照名称已存在";
    else if (internal ? !vm->capabilities.snapshot : !vm->capabilities.external_snapshot)
      refusal = "虚拟机不支持该类型的快照";
    else if (local_raw)
      refusal = "raw格式的本地磁盘不支持快照";
    paths = disk_paths(*vm);
    for (const Disk& disk : vm->disks)
      if (disk.device == "disk")
        backings.push_back(disk.backing_file);
    return true;
  });
  if (!known)
    return cas_error(response, 404, no_vm);
  if (refusal)
    return start_task(sim_, response, refusal);
  std::vector<std::pair<std::string, std::string>> moved;  // old path, overlay
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const std::string& path = paths[i];
    std::string overlay = path + "." + name;
    if (!(internal ? sim_.disks().take_snapshot(path, name)
                   : sim_.disks().take_external_snapshot(path, name, overlay, backings[i])))
      return start_task(sim_, response, "创建快照失败");
    if (!internal)
      moved.emplace_back(path, overlay);
  }
  sim_.change_world([&](World& world) {
    if (VM* vm = vm_by_id(world, vm_id)) {
      newest_branch(vm->snapshots).push_back(Snapshot{name, internal, {}});
      // The guest goes on in overlays whose backing files are the frozen images.
      for (Disk& disk : vm->disks)
        for (const auto& [old_path, overlay] : moved)
          if (disk.path == old_path) {
            disk.backing_file = old_path;
            disk.path = overlay;
          }
    }
  });
  start_task(sim_, response, "");
}

void CVM_Api::snapshot_delete(const Call& call, HTTP_Server_Response& response) {
  const std::string& name = call.params.at("name");
  std::vector<std::string> paths;
  bool internal = false;
  int status = sim_.change_world([&](World& world) {
    VM* vm = vm_by_id(world, call.params.at("id"));
    if (!vm)
      return 1;
    if (!remove_snapshot(vm->snapshots, name, internal))
      return 2;
    paths = disk_paths(*vm);
    return 0;
  });
  if (status)
    return cas_error(response, 404, status == 1 ? no_vm : "快照不存在");
  struct Merged {
    std::string overlay, path, backing;  // the disk's path and backing file again
  };
  std::vector<Merged> merged;
  for (const std::string& path : paths) {
    std::string now, backing;
    if (sim_.disks().drop_snapshot(path, name, now, backing) && now != path)
      merged.push_back({path, now, backing});
  }
  sim_.change_world([&](World& world) {
    if (VM* vm = vm_by_id(world, call.params.at("id")))
      for (Disk& disk : vm->disks)
        for (const Merged& m : merged)
          if (disk.path == m.overlay) {
            disk.path = m.path;
            disk.backing_file = m.backing;
          }
  });
  start_task(sim_, response, "");
}

void CVM_Api::data_blocks(const Call& call, HTTP_Server_Response& response) {
  const std::string* vm_id = query(call.request, "vmId");
  const std::string* image = query(call.request, "image");
  const std::string* snapshot = query(call.request, "snapshot");
  if (!vm_id || !image || !query(call.request, "hostId"))
    return cas_error(response, 400, bad_request);
  if (!sim_.with_world([&](const World& world) { return find_vm(world, *vm_id) != nullptr; }))
    return cas_error(response, 404, no_vm);
  std::vector<Extent> extents;
  if (!sim_.disks().allocated_blocks(*image, snapshot ? *snapshot : "", extents))
    return cas_error(response, 404, "磁盘或快照不存在");
  cas_json(response, blocks_json(extents));
}

void CVM_Api::changed_blocks(const Call& call, HTTP_Server_Response& response) {
  const std::string* vm_id = query(call.request, "vmId");
  const std::string* path = query(call.request, "srcPath");
  const std::string* name = query(call.request, "name");
  const std::string* snapshot = query(call.request, "snapshotName");
  if (!vm_id || !path || !name)
    return cas_error(response, 400, bad_request);
  if (!sim_.with_world([&](const World& world) { return find_vm(world, *vm_id) != nullptr; }))
    return cas_error(response, 404, no_vm);
  std::vector<Extent> extents;
  if (!sim_.disks().changed_blocks(*path, *name, snapshot ? *snapshot : "", extents))
    return cas_error(response, 404, "变化块跟踪器不存在或已失效");
  cas_json(response, blocks_json(extents));
}

namespace {

// The disks of the VM named in the query "vmName", and whether it may track changes; false
// when there is no such VM.
bool tracked_vm(Simulator& sim, const HTTP_Server_Request& request, std::vector<std::string>& paths,
                bool& cbt) {
  const std::string* vm_name = query(request, "vmName");
  return vm_name && sim.change_world([&](World& world) {
    VM* vm = vm_by_name(world, *vm_name);
    if (vm) {
      paths = disk_paths(*vm);
      cbt = vm->capabilities.cbt || vm->capabilities.external_cbt;
    }
    return vm != nullptr;
  });
}

}  // namespace

void CVM_Api::tracker_create(const Call& call, HTTP_Server_Response& response) {
  std::vector<std::string> paths;
  bool cbt = false;
  const std::string* name = query(call.request, "name");
  if (!name || name->empty())
    return cas_error(response, 400, bad_request);
  if (!tracked_vm(sim_, call.request, paths, cbt))
    return cas_error(response, 404, no_vm);
  if (!cbt)
    return start_task(sim_, response, "虚拟机不支持CBT");
  for (const std::string& path : paths)
    if (!sim_.disks().add_tracker(path, *name))
      return start_task(sim_, response, "创建CBT失败");
  start_task(sim_, response, "");
}

void CVM_Api::tracker_info(const Call& call, HTTP_Server_Response& response) {
  std::vector<std::string> paths;
  bool cbt = false;
  const std::string* name = query(call.request, "name");
  if (!name)
    return cas_error(response, 400, bad_request);
  if (!tracked_vm(sim_, call.request, paths, cbt))
    return cas_error(response, 404, no_vm);
  std::vector<JSON_Value> members;
  for (const std::string& path : paths) {
    bool valid = false;
    if (sim_.disks().tracker_valid(path, *name, valid))
      members.push_back({{"image", path}, {"valid", valid ? "true" : "false"}});
  }
  cas_json(response, cas_list("dirtyBitmapInfo", std::move(members)));
}

void CVM_Api::tracker_delete(const Call& call, HTTP_Server_Response& response) {
  std::vector<std::string> paths;
  bool cbt = false;
  const std::string* name = query(call.request, "name");
  if (!name)
    return cas_error(response, 400, bad_request);
  if (!tracked_vm(sim_, call.request, paths, cbt))
    return cas_error(response, 404, no_vm);
  for (const std::string& path : paths)
    sim_.disks().drop_tracker(path, *name);
  start_task(sim_, response, "");
}

void CVM_Api::vm_power(const Call& call, HTTP_Server_Response& response) {
  const std::string& action = call.params.at("action");
  if (action != "start" && action != "stop")
    return cas_error(response, 404, "请求的资源不存在");
  const bool start = action == "start";
  std::int64_t id = 0;
  std::string status;
  if (!sim_.with_world([&](const World& world) {
        const VM* vm = find_vm(world, call.params.at("id"));
        if (vm) {
          id = vm->id;
          status = vm->status;
        }
        return vm != nullptr;
      }))
    return cas_error(response, 404, no_vm);
  if (start == (status == "running"))
    return start_task(sim_, response, start ? "虚拟机已处于运行状态" : "虚拟机已关闭");
  // The VM reaches its new state when its task completes.
  int ms = sim_.knobs().task_duration_ms;
  sim_.change_status_at(id, start ? "running" : "shutOff",
                        std::chrono::steady_clock::now() + std::chrono::milliseconds(ms));
  start_task(sim_, response, "", cas_number(id));
}

}  // namespace cas_sim
