#include "h3ccas/common.h"

#include "h3ccas/restful_client.h"

#include "host/catalog/server_api.h"
#include "host/core/identity.h"
#include "host/core/log.h"
#include "host/core/text.h"
#include "host/http/client.h"

#include <boost/algorithm/string/predicate.hpp>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace h3ccas {

namespace {

// The key the backup server encrypts stored CVM passwords with for its agents.
const char* const s_password_key = server_api::cvm_password_seal_key;
const unsigned long s_password_key_length = server_api::cvm_password_seal_key_length;

struct Provision_Mode_Entry {
  const char* key;
  std::size_t key_length;
  Provisioning_Mode value;
};

// CAS's own codes; ended by a null key.
const Provision_Mode_Entry s_provision_mode_table[] = {
    {"0", 1, LAZY_ZEROED},
    {"1", 1, EAGER_ZEROED},
    {"2", 1, THIN},
    {nullptr, 0, UNKNOWN},
};

// Parses a whole decimal string of MiB into bytes (refusing sizes that do not fit); nothing is
// logged.
bool mib_to_bytes(const std::string& text, std::uint64_t& bytes) {
  unsigned long mib = 0;
  if (!try_natoi<unsigned long>(mib, text, 0) || mib > (UINT64_MAX >> 20))
    return false;
  bytes = static_cast<std::uint64_t>(mib) << 20;
  return true;
}

// A whole decimal string of MiB, fraction allowed ("1.5"), into bytes. Unlike try_atod nothing is
// logged: the caller's message names the volume. Negative, non-finite and too large values fail.
bool fractional_mib_to_bytes(const std::string& text, std::uint64_t& bytes) {
  std::size_t used = 0;
  double mib = 0;
  try {
    mib = std::stod(text, &used);
  } catch (const std::exception&) {
    return false;
  }
  const double value = mib * 1048576.0;
  if (used != text.size() || !(value >= 0 && value < 18446744073709551616.0))
    return false;
  // The unsigned conversion keeps sizes of 2^63 bytes and above.
  bytes = static_cast<std::uint64_t>(value);
  return true;
}

const char* host_status(const std::string& code) {
  if (code == "0")
    return "disconnected";
  if (code == "1")
    return "connected";
  return "unresponsive";
}

const char* vm_status(const std::string& cas_status) {
  if (cas_status == "shutOff")
    return "poweroff";
  if (cas_status == "running")
    return "poweron";
  if (cas_status == "paused")
    return "suspended";
  return "unknown";
}

// Throws JSON_Error on a shape error; the host detail reads the same keys under its own message.
void read_host_i(const JSON_Value& value, CVK_Host& host) {
  std::string status;
  json_extract(value, "id", host.id_);
  json_extract(value, "ip", host.ip_);
  json_extract(value, "name", host.name_);
  json_extract(value, "status", status);
  host.status_ = host_status(status);
}

const std::pair<Virtual_Switch::VS_TYPE, const char*> s_vs_type_names[] = {
    {Virtual_Switch::VS_TYPE_MANAGEMENT, "management"},
    {Virtual_Switch::VS_TYPE_SERVICE, "service"},
    {Virtual_Switch::VS_TYPE_STORAGE, "storage"},
    {Virtual_Switch::VS_TYPE_BACKUP, "backup"},
    {Virtual_Switch::VS_TYPE_MIGRATION, "migration"},
    {Virtual_Switch::VS_TYPE_OTHER, "other"},
};

}  // namespace

bool try_atod(double& out, const std::string& s) {
  std::size_t used = 0;
  double value = 0;
  try {
    value = std::stod(s, &used);
  } catch (const std::invalid_argument&) {
    LOG_MSG((LM_ERROR, "Failed to convert '%s' to number: invalid value.\n", s.c_str()));
    return false;
  } catch (const std::out_of_range&) {
    LOG_MSG((LM_ERROR, "Failed to convert '%s' to number: out of range.\n", s.c_str()));
    return false;
  }
  out = value;
  if (used != s.size()) {
    LOG_MSG((LM_ERROR, "Failed to convert '%s' to number.\n", s.c_str()));
    return false;
  }
  return true;
}

template <class T>
bool try_natoi(T& out, const std::string& s, T default_value) {
  const char* end = s.c_str() + s.size();
  const char* stop = nullptr;
  T value = natoi<T>(s.c_str(), end, &stop);
  if (stop != end || errno != 0) {
    out = default_value;
    return false;
  }
  out = value;
  return true;
}

template bool try_natoi<int>(int&, const std::string&, int);
template bool try_natoi<unsigned int>(unsigned int&, const std::string&, unsigned int);
template bool try_natoi<unsigned long>(unsigned long&, const std::string&, unsigned long);

std::string size_to_str(unsigned long bytes) {
  std::string out;
  Pretty_Formatter(1).size_formatter(bytes, out);
  return out;
}

const char* bool_to_str(bool value) {
  return value ? "true" : "false";
}

Provisioning_Mode str_to_provision_mode(const char* code) {
  if (!code)
    return UNKNOWN;
  const Provision_Mode_Entry* e = s_provision_mode_table;
  for (; e->key; ++e)
    if (std::strcmp(e->key, code) == 0)
      break;
  return e->value;
}

const char* provision_mode_to_str(Provisioning_Mode mode) {
  for (const Provision_Mode_Entry* e = s_provision_mode_table; e->key; ++e)
    if (e->value == mode)
      return e->key;
  return "UNKNOWN";
}

No_CBT_Opts no_cbt_opts_from_str(const std::string& text) {
  if (text == "skip")
    return No_CBT_Opts::Skip;
  if (text == "skip_with_alert")
    return No_CBT_Opts::Skip_With_Alert;
  if (text == "full_backup")
    return No_CBT_Opts::Full_Backup;
  return No_CBT_Opts::None;
}

const char* no_cbt_opts_to_str(No_CBT_Opts opts) {
  switch (opts) {
    case No_CBT_Opts::Skip:
      return "skip";
    case No_CBT_Opts::Skip_With_Alert:
      return "skip_with_alert";
    case No_CBT_Opts::Full_Backup:
      return "full_backup";
    default:
      return "none";
  }
}

std::string unify_path(const std::string& path, bool is_rbd, const char* snapshot) {
  if (!is_rbd)
    return path;
  if (snapshot && *snapshot)
    return string_sprintf("rbd:%s@%s", path.c_str(), snapshot);
  return string_sprintf("rbd:%s", path.c_str());
}

std::string filenamify(const std::string& in) {
  std::string out;
  ::filenamify(in, out, '_');
  return out;
}

bool is_supported(const std::string& cvm_version) {
  if (boost::istarts_with(cvm_version, "E07"))
    return true;
  LOG_MSG((LM_ERROR, "Unsupported CVM version '%s'.\n", cvm_version.c_str()));
  return false;
}

bool CVM_Info::load(const JSON_Value& value, bool decrypt_password) {
  Secure_String password;
  try {
    json_extract(value, "host", host_);
    json_extract(value, "port", port_);
    json_extract(value, "ssl", ssl_);
    json_extract(value, "username", username_);
    json_extract(value, "password", password);
    json_extract_object(value, "extended_attrs", extended_attrs_, false);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid H3C CVM entry: %s.\n", e.what()));
    return false;
  }
  if (!decrypt_password) {
    password_ = std::move(password);
    return true;
  }
  if (!decrypt_string(std::string(password.data(), password.size()), password_, s_password_key,
                      s_password_key_length)) {
    LOG_MSG((LM_ERROR, "Failed to decrypt H3C CVM password.\n"));
    return false;
  }
  return true;
}

JSON_Value CVM_Info::dump() const {
  return {{"host", host_},
          {"port", port_},
          {"ssl", ssl_},
          {"username", username_},
          {"password", std::string(password_.data(), password_.size())}};
}

bool CVM_Info::load_from_server(const std::string& uuid) {
  HTTP_Request req(HTTP_Method::GET, server_api::cvm_route);
  // The server encrypts the password for the agent named by "with_password".
  HTTP_Query_String_Builder(req.query())
      .append("uuid", uuid)
      .append("with_password", std::string(Host_ID::instance()->c_str()));
  JSON_Value response;
  if (!Upstream_JSON_RESTful_Client::instance()->get(req, response) || response.is_null()) {
    LOG_MSG((LM_ERROR, "Failed to get CVM info from server.\n"));
    return false;
  }
  const JSON_Value* rows = response.is_object() ? json_find(response, "rows") : nullptr;
  if (!rows || !rows->is_array() || rows->empty()) {
    LOG_MSG((LM_ERROR, "H3C CVM not found, uuid = %s.\n", uuid.c_str()));
    return false;
  }
  return load(rows->front(), true);
}

bool CVK_Host::load(const JSON_Value& value) {
  try {
    read_host_i(value, *this);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CVK host entry: %s\n", e.what()));
    return false;
  }
  return true;
}

JSON_Value CVK_Host::dump() const {
  return {{"id", id_}, {"ip", ip_}, {"name", name_}, {"status", status_}};
}

bool CVK_Host_Detail::load(const JSON_Value& value) {
  try {
    read_host_i(value, basic_);
  } catch (const std::exception&) {
    LOG_MSG((LM_ERROR, "Invalid CAS CVK detailed info.\n"));
    return false;
  }
  std::string memory, count, cores;
  try {
    json_extract(value, "memorySize", memory);
    json_extract(value, "cpuCount", count);
    json_extract(value, "cpuCores", cores);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS CVK detailed info: %s.\n", e.what()));
    return false;
  }
  if (!try_natoi<unsigned>(cpu_count_, count, 0)) {
    LOG_MSG((LM_ERROR, "Invalid CAS CVK CPU count '%s'.\n", count.c_str()));
    return false;
  }
  if (!try_natoi<unsigned>(cpu_cores_, cores, 0)) {
    LOG_MSG((LM_ERROR, "Invalid CAS CVK CPU cores '%s'.\n", cores.c_str()));
    return false;
  }
  unsigned long mbytes = 0;
  if (!try_natoi<unsigned long>(mbytes, memory, 0)) {
    LOG_MSG((LM_ERROR, "Invalid CAS CVK memory size '%s'.\n", memory.c_str()));
    return false;
  }
  memory_mbytes_ = mbytes;
  return true;
}

JSON_Value CVK_Host_Detail::dump() const {
  JSON_Value out = basic_.dump();
  out["memory_mbytes"] = memory_mbytes_;
  out["cpu_count"] = cpu_count_;
  out["cpu_cores"] = cpu_cores_;
  return out;
}

bool VM_Info::load(const JSON_Value& value) {
  std::string status, cpu, memory;
  try {
    json_extract(value, "id", id_);
    json_extract(value, "name", name_);
    json_extract(value, "title", display_name_);
    json_extract(value, "vmStatus", status);
    json_extract(value, "hostId", host_id_);
    json_extract(value, "hostName", host_name_);
    json_extract(value, "osDesc", os_, false);
    json_extract(value, "cpu", cpu);
    json_extract(value, "memory", memory);
    json_extract(value, "uuid", uuid_);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS VM info entry: %s\n", e.what()));
    return false;
  }
  status_ = vm_status(status);
  // A VM with odd numbers is still listed, with a plausible default.
  if (!try_natoi<unsigned>(cpu_, cpu, 1))
    LOG_MSG(
        (LM_WARNING, "Invalid processors count '%s' of VM '%s'.\n", cpu.c_str(), name_.c_str()));
  if (!try_natoi<unsigned>(memory_mbytes_, memory, 1024))
    LOG_MSG((LM_WARNING, "Invalid memory size '%s' of VM '%s'.\n", memory.c_str(), name_.c_str()));
  return true;
}

JSON_Value VM_Info::dump() const {
  return {{"id", id_},         {"name", name_},       {"title", display_name_},
          {"status", status_}, {"host_id", host_id_}, {"host_name", host_name_},
          {"os", os_},         {"cpu", cpu_},         {"memory_mbytes", memory_mbytes_},
          {"uuid", uuid_}};
}

bool VM_Detail::load(const JSON_Value& value) {
  try {
    JSON_Value list;
    if (json_extract(value, "storage", list, false)) {
      JSON_Value::array_t storages;
      convert_to_array(list, storages);
      storages_ = std::move(storages);
    }
    if (json_extract(value, "network", list, false)) {
      JSON_Value::array_t networks;
      convert_to_array(list, networks);
      networks_ = std::move(networks);
    }
    json_extract(value, "status", status_, false);
    json_extract_object(value, "basic", basic_);
    json_extract_object(value, "cpu", cpu_);
    json_extract_object(value, "memory", memory_);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS VM detail: %s.\n", e.what()));
    return false;
  }
  return true;
}

JSON_Value VM_Detail::dump() const {
  return {{"basic", basic_},
          {"cpu", cpu_},
          {"memory", memory_},
          {"network", networks_},
          {"storage", storages_}};
}

bool VM_Detail::dump_cpu_mem(int& sockets, int& cores, unsigned& memory) const {
  try {
    std::string sockets_text, cores_text, memory_text;
    json_extract(cpu_, "cpuSockets", sockets_text);
    json_extract(cpu_, "cpuCores", cores_text);
    if (!try_natoi<int>(sockets, sockets_text, 0) || !try_natoi<int>(cores, cores_text, 0)) {
      LOG_MSG((LM_ERROR, "Invalid CAS VM CPU config '%s' or '%s'.\n", sockets_text.c_str(),
               cores_text.c_str()));
      return false;
    }
    json_extract(memory_, "size", memory_text);
    if (!try_natoi<unsigned>(memory, memory_text, 0)) {
      LOG_MSG((LM_ERROR, "Invalid CAS VM memory config '%s'.\n", memory_text.c_str()));
      return false;
    }
  } catch (const std::exception& e) {
    LOG_MSG((LM_WARNING, "Failed to get CPU or memory config of CAS VM: %s.\n", e.what()));
    return false;
  }
  return true;
}

const JSON_Value& operator>>(const JSON_Value& value, Snapshot_Info& info) {
  std::string mode;
  json_extract(value, "name", info.name);
  json_extract(value, "snapshotMode", mode);
  info.is_internal = mode == "1";
  const JSON_Value* snapshots = json_find(value, "snapshots");
  if (!snapshots || snapshots->is_null())
    return value;
  JSON_Value children;
  json_extract(*snapshots, "snapshot", children);
  // CAS sends a single child as the bare object.
  if (children.is_array()) {
    info.children.reserve(info.children.size() + children.size());
    for (const JSON_Value& child : children)
      child >> info.children.emplace_back();
  } else if (children.is_object()) {
    children >> info.children.emplace_back();
  }
  return value;
}

bool VM_Disk::load(const JSON_Value& value) {
  std::string size, allocation, mode, cluster_size, is_shared;
  bool has_mode = false, has_cluster_size = false, has_is_shared = false;
  try {
    json_extract(value, "device", device_);
    json_extract(value, "deviceName", device_name_);
    json_extract(value, "fileType", file_type_);
    json_extract(value, "path", path_);
    json_extract(value, "format", format_);
    json_extract(value, "targetBus", target_bus_);
    json_extract(value, "size", size);
    json_extract(value, "allocation", allocation);
    json_extract(value, "cacheType", cache_type_);
    // Required for image files, but its absence is reported below as an unknown mode.
    has_mode = json_extract(value, "mode", mode, false);
    has_cluster_size = json_extract(value, "clusterSize", cluster_size, false);
    json_extract(value, "backingFile", backing_file_, false);
    has_is_shared = json_extract(value, "isShareStorage", is_shared, false);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS VM storage info: %s.\n", e.what()));
    return false;
  }
  if (!mib_to_bytes(size, total_bytes_)) {
    LOG_MSG((LM_ERROR, "Invalid CAS VM disk size '%s'.\n", size.c_str()));
    return false;
  }
  if (!mib_to_bytes(allocation, alloc_bytes_)) {
    LOG_MSG((LM_ERROR, "Invalid CAS VM disk allocated size '%s'.\n", allocation.c_str()));
    return false;
  }
  if (has_cluster_size && !try_natoi<unsigned>(cluster_bytes_, cluster_size, 0)) {
    LOG_MSG((LM_ERROR, "Invalid CAS VM disk cluster size '%s'.\n", cluster_size.c_str()));
    return false;
  }
  if (has_mode)
    provisioning_mode_ = str_to_provision_mode(mode.c_str());
  if (provisioning_mode_ == UNKNOWN && file_type_ == "file") {
    LOG_MSG(
        (LM_ERROR, "Unknown CAS VM disk provision mode '%s'.\n", has_mode ? mode.c_str() : "null"));
    return false;
  }
  if (format_ != "raw" && format_ != "qcow2") {
    LOG_MSG((LM_ERROR, "Unknown CAS VM disk format '%s'.\n", format_.c_str()));
    return false;
  }
  is_shared_ = has_is_shared && is_shared == "1";
  return true;
}

bool VM_Disk::load_from_catalog(const JSON_Value& value) {
  try {
    std::string mode;
    json_extract(value, "device", device_);
    json_extract(value, "device_name", device_name_);
    json_extract(value, "file_type", file_type_);
    json_extract(value, "path", path_);
    json_extract(value, "format", format_);
    json_extract(value, "target_bus", target_bus_);
    json_extract(value, "size", total_bytes_);
    json_extract(value, "allocation", alloc_bytes_);
    json_extract(value, "cache_type", cache_type_);
    json_extract(value, "mode", mode);
    json_extract(value, "cluster_size", cluster_bytes_);
    json_extract(value, "backing_file", backing_file_);
    json_extract(value, "is_shared", is_shared_);
    json_extract(value, "pool_name", pool_name_);
    json_extract(value, "pool_path", pool_path_);
    json_extract(value, "pool_type", pool_type_);
    // Written by dump; "UNKNOWN" stands for a block device without a mode.
    provisioning_mode_ = str_to_provision_mode(mode.c_str());
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS VM disk info in catalog: %s.\n", e.what()));
    return false;
  }
  return true;
}

JSON_Value VM_Disk::dump() const {
  return {{"device", device_},
          {"device_name", device_name_},
          {"file_type", file_type_},
          {"path", path_},
          {"format", format_},
          {"target_bus", target_bus_},
          {"size", total_bytes_},
          {"allocation", alloc_bytes_},
          {"cache_type", cache_type_},
          {"mode", provision_mode_to_str(provisioning_mode_)},
          {"cluster_size", cluster_bytes_},
          {"backing_file", backing_file_},
          {"is_shared", is_shared_},
          {"pool_name", pool_name_},
          {"pool_path", pool_path_},
          {"pool_type", pool_type_}};
}

bool CAS_Storage_Pool::load(const JSON_Value& value) {
  std::string total, status, free;
  title_.clear();
  try {
    json_extract(value, "name", name_);
    json_extract(value, "title", title_, false);
    json_extract(value, "type", type_);
    json_extract(value, "path", path_);
    json_extract(value, "totalSize", total);
    json_extract(value, "status", status);
    json_extract(value, "freeSize", free);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS storage pool info: %s.\n", e.what()));
    return false;
  }
  if (!mib_to_bytes(total, total_bytes_)) {
    LOG_MSG((LM_ERROR, "Invalid CAS storage pool total size '%s'.\n", total.c_str()));
    return false;
  }
  if (!mib_to_bytes(free, free_bytes_)) {
    LOG_MSG((LM_ERROR, "Invalid CAS storage pool free size '%s'.\n", free.c_str()));
    return false;
  }
  is_active_ = status != "0";
  if (title_.empty())
    title_ = name_;
  return true;
}

JSON_Value CAS_Storage_Pool::dump() const {
  return {{"name", name_},
          {"title", title_},
          {"storage_type", type_},
          {"path", path_},
          {"total_size", total_bytes_},
          {"free_size", free_bytes_},
          {"is_active", is_active_}};
}

bool CAS_Storage_Volume::load(const JSON_Value& value) {
  std::string size;
  try {
    json_extract(value, "size", size);
    json_extract(value, "users", used_by_);
    json_extract(value, "name", name_);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS storage volume info: %s.\n", e.what()));
    return false;
  }
  if (!fractional_mib_to_bytes(size, total_bytes_)) {
    LOG_MSG(
        (LM_ERROR, "Invalid CAS size '%s' of storage volume '%s'.\n", size.c_str(), name_.c_str()));
    return false;
  }
  return true;
}

JSON_Value CAS_Storage_Volume::dump() const {
  return {{"total_bytes", total_bytes_}, {"name", name_}, {"used_by", used_by_}};
}

bool Virtual_Switch::load(const JSON_Value& value) {
  std::string status, types;
  try {
    json_extract(value, "id", id_);
    json_extract(value, "name", name_);
    json_extract(value, "pnic", physical_nic_name_, false);
    json_extract(value, "address", address_);
    json_extract(value, "gateway", gateway_);
    json_extract(value, "status", status);
    json_extract(value, "networkType", types);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS vSwitch info: %s.\n", e.what()));
    return false;
  }
  is_active_ = status != "0";
  if (!try_natoi<unsigned>(types_, types, VS_TYPE_NONE)) {
    LOG_MSG((LM_ERROR, "Invalid network type '%s' of CAS vSwitch.\n", types.c_str()));
    return false;
  }
  return true;
}

JSON_Value Virtual_Switch::dump() const {
  return {{"id", id_},
          {"name", name_},
          {"physical_nic_name", physical_nic_name_},
          {"address", address_},
          {"gateway", gateway_},
          {"is_active", is_active_},
          {"network_types", vs_network_types_array(types_)}};
}

JSON_Value vs_network_types_array(std::uint32_t types) {
  JSON_Value out = JSON_Value::array();
  for (const auto& [bit, name] : s_vs_type_names)
    if (types & bit)
      out.push_back(name);
  return out;
}

bool Port_Profile::load(const JSON_Value& value) {
  try {
    json_extract(value, "id", id_);
    json_extract(value, "name", name_);
    json_extract(value, "description", description_, false);
    json_extract(value, "vlanId", vlan_id_, false);
    json_extract(value, "aclName", acl_name_, false);
    json_extract(value, "netLimitTitle", net_limit_title_, false);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS port profile info: %s.\n", e.what()));
    return false;
  }
  return true;
}

JSON_Value Port_Profile::dump() const {
  return {{"id", id_},           {"name", name_},         {"description", description_},
          {"vlan_id", vlan_id_}, {"acl_name", acl_name_}, {"net_limit_title", net_limit_title_}};
}

bool Block::load(const JSON_Value& value) {
  std::string offset, length;
  try {
    json_extract(value, "offset", offset);
    json_extract(value, "length", length);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS disk block: %s.\n", e.what()));
    return false;
  }
  unsigned long o = 0, l = 0;
  if (!try_natoi<unsigned long>(o, offset, 0) || !try_natoi<unsigned long>(l, length, 0)) {
    LOG_MSG((LM_ERROR, "Invalid CAS disk block(offset=%s, length=%s).\n", offset.c_str(),
             length.c_str()));
    return false;
  }
  offset_ = o;
  length_ = l;
  return true;
}

bool is_cas_block_storage(const std::string& pool_type) {
  return pool_type == "iscsi" || pool_type == "fc" || pool_type == "rbd" || pool_type == "logical";
}

void convert_to_array(const JSON_Value& value, JSON_Value::array_t& out) {
  if (value.is_object()) {
    out.push_back(value);
  } else if (value.is_array()) {
    const auto& items = value.get_ref<const JSON_Value::array_t&>();
    out.reserve(out.size() + items.size());
    out.insert(out.end(), items.begin(), items.end());
  }
}

bool VM_Backup_Params::load(const JSON_Value& params) {
  JSON_Value cvm;
  JSON_Value io_opts;
  std::string backup_type;
  try {
    json_extract(params, "cvm", cvm);
    json_extract_object(params, "io_opts", io_opts);
    json_extract(params, "host_id", host_id_);
    json_extract(params, "host_name", host_name_);
    json_extract(params, "host_ip", host_ip_);
    json_extract(params, "vm_id", vm_id_);
    json_extract(params, "vm_name", vm_name_);
    json_extract(params, "def_id", def_id_);
    json_extract(params, "pool_url", pool_url_);
    json_extract(params, "backup_type", backup_type);
    json_extract(params, "parallel_disks_per_vm", opts_.parallel_disks_per_vm_);
    json_extract(params, "restart_vm", opts_.restart_vm_);
    // Unchecked: a policy this side does not know acts as None.
    int no_cbt = 0;
    json_extract(params, "no_cbt", no_cbt);
    opts_.no_cbt_ = static_cast<No_CBT_Opts>(no_cbt);
    json_extract(params, "resource_uuid", resource_uuid_);
    json_extract(params, "access_key", access_key_);
    json_extract(params, "vm_title", vm_title_);
    json_extract(params, "backupd_host", backupd_host_);
    std::int64_t port = 0;
    json_extract(params, "backupd_port", port);
    backupd_port_ = static_cast<std::uint16_t>(port);
    json_extract(params, "backupd_ssl", backupd_ssl_);
    json_extract(params, "retry_seconds", retry_seconds_);
    json_extract_object(params, "catalog", catalog_);
    json_extract(params, "read_buffer_size", opts_.read_buffer_size_);
    json_extract(params, "vm_uuid", vm_uuid_);
    json_extract(params, "storage_reserved_percent", opts_.storage_reserved_percent_);
    json_extract(params, "parallel_workers_per_disk", opts_.parallel_workers_per_disk_);
    json_extract(params, "storage_reserved_bytes", opts_.storage_reserved_bytes_);
    json_extract(params, "enable_cbt", opts_.enable_cbt_);
    json_extract(params, "cvd_target_addr", cvd_target_addr_);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS backup params: %s.\n", e.what()));
    return false;
  }
  // The agent sends the password in clear.
  if (!cvm_.load(cvm, false)) {
    LOG_MSG((LM_ERROR, "Invalid CAS backup params: invalid CVM.\n"));
    return false;
  }
  if (!(io_opts_ << io_opts)) {
    LOG_MSG((LM_ERROR, "Invalid CAS backup params: invalid I/O options.\n"));
    return false;
  }
  backup_type_ = job_def_subtype_from_string(backup_type.data(), backup_type.size());
  return true;
}

JSON_Value VM_Backup_Params::dump() const {
  JSON_Value io_opts = JSON_Value::object();
  io_opts_ >> io_opts;
  return {{"cvm", cvm_.dump()},
          {"io_opts", std::move(io_opts)},
          {"host_id", host_id_},
          {"host_name", host_name_},
          {"host_ip", host_ip_},
          {"vm_id", vm_id_},
          {"vm_name", vm_name_},
          {"vm_uuid", vm_uuid_},
          {"def_id", def_id_},
          {"pool_url", pool_url_},
          {"backup_type", job_def_subtype_to_string(backup_type_)},
          {"resource_uuid", resource_uuid_},
          {"access_key", access_key_},
          {"backupd_host", backupd_host_},
          {"backupd_port", backupd_port_},
          {"backupd_ssl", backupd_ssl_},
          {"retry_seconds", retry_seconds_},
          {"catalog", catalog_},
          {"vm_title", vm_title_},
          {"parallel_disks_per_vm", opts_.parallel_disks_per_vm_},
          {"parallel_workers_per_disk", opts_.parallel_workers_per_disk_},
          {"restart_vm", opts_.restart_vm_},
          {"no_cbt", static_cast<int>(opts_.no_cbt_)},
          {"enable_cbt", opts_.enable_cbt_},
          {"storage_reserved_percent", opts_.storage_reserved_percent_},
          {"storage_reserved_bytes", opts_.storage_reserved_bytes_},
          {"read_buffer_size", opts_.read_buffer_size_},
          {"cvd_target_addr", cvd_target_addr_}};
}

bool VM_Restore_Params::load(const JSON_Value& params) {
  JSON_Value cvm;
  JSON_Value io_opts;
  JSON_Value disks;
  JSON_Value nics;
  try {
    json_extract(params, "source_host_id", source_host_id_);
    json_extract(params, "source_host_name", source_host_name_);
    json_extract(params, "source_vm_id", source_vm_id_);
    json_extract(params, "source_vm_name", source_vm_name_);
    json_extract(params, "target_host_id", target_host_id_);
    json_extract(params, "target_host_ip", target_host_ip_);
    json_extract(params, "target_host_name_", target_host_name_);
    json_extract(params, "target_vm_name", target_vm_name_);
    json_extract(params, "existing_vm_id", existing_vm_id_);
    json_extract(params, "timepoint", timepoint_);
    json_extract(params, "bak_resource_uuid", bak_resource_uuid_);
    json_extract(params, "access_key", access_key_);
    json_extract(params, "backupd_host", backupd_host_);
    json_extract(params, "backupd_port", backupd_port_);
    json_extract(params, "backupd_ssl", backupd_ssl_);
    json_extract(params, "retry_seconds", retry_seconds_);
    json_extract(params, "cvm", cvm);
    json_extract_object(params, "io_opts", io_opts);
    json_extract_array(params, "disks", disks);
    json_extract(params, "catalog_uuid", catalog_uuid_);
    json_extract_array(params, "nics", nics);
    json_extract(params, "def_id", def_id_);
    json_extract(params, "cpu_count", cpu_count_);
    json_extract(params, "cpu_cores", cpu_cores_);
    json_extract(params, "memory_mbytes", memory_mbytes_);
    json_extract(params, "parallel_disks_per_vm", opts_.parallel_disks_per_vm_);
    json_extract(params, "start_vm", opts_.start_vm_);
    json_extract(params, "reserve_mac", opts_.reserve_mac_);
    json_extract(params, "write_buffer_size", opts_.write_buffer_size_);
    json_extract(params, "original_restore", opts_.original_restore_);
    json_extract(params, "overwrite_vm", opts_.overwrite_vm_);
    json_extract(params, "pool_uuid", opts_.pool_uuid_);
    json_extract(params, "cvd_target_addr", cvd_target_addr_);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS restore params: %s.\n", e.what()));
    return false;
  }
  if (!cvm_.load(cvm, false)) {
    LOG_MSG((LM_ERROR, "Invalid CAS restore params: invalid CVM.\n"));
    return false;
  }
  if (!(io_opts_ << io_opts)) {
    LOG_MSG((LM_ERROR, "Invalid CAS restore params: invalid I/O options.\n"));
    return false;
  }
  return load_disks(disks) && load_nics(nics);
}

bool VM_Restore_Params::load_disks(const JSON_Value& disks) {
  try {
    if (!disks.is_array())
      json_throw_type("disks", "array");
    disks_.reserve(disks_.size() + disks.size());
    for (const JSON_Value& item : disks) {
      const JSON_Value& d = json_object(item);
      Disk disk;
      json_extract(d, "source_path", disk.source_path_);
      json_extract(d, "target_pool_name", disk.pool_name_);
      json_extract(d, "target_pool_path", disk.pool_path_);
      json_extract(d, "target_pool_type", disk.pool_type_);
      bool block = is_cas_block_storage(disk.pool_type_);
      // The agent sends CAS's code string ("2" is thin); an integer names the mode itself
      // (2 is lazy-zeroed).
      if (const JSON_Value* mode = json_find(d, "provisioning_mode")) {
        if (mode->is_string()) {
          disk.provisioning_mode_ =
              str_to_provision_mode(mode->get_ref<const std::string&>().c_str());
        } else if (mode->is_number_integer()) {
          std::int64_t n = mode->get<std::int64_t>();
          disk.provisioning_mode_ =
              n >= THIN && n <= EAGER_ZEROED ? static_cast<Provisioning_Mode>(n) : UNKNOWN;
        } else {
          json_throw_type("provisioning_mode", "string or integer");
        }
      } else if (!block) {
        throw JSON_Error("missing key 'provisioning_mode'");
      }
      json_extract(d, "target_volume_name", disk.volume_name_, block);
      disks_.push_back(std::move(disk));
    }
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS VM restore params for disks: %s.\n", e.what()));
    return false;
  }
  return true;
}

bool VM_Restore_Params::load_nics(const JSON_Value& nics) {
  try {
    if (!nics.is_array())
      json_throw_type("nics", "array");
    nics_.reserve(nics_.size() + nics.size());
    for (const JSON_Value& item : nics) {
      NIC nic;
      json_extract(item, "virtual_switch_id", nic.virtual_switch_id_);
      json_extract(item, "virtual_switch_name", nic.virtual_switch_name_);
      json_extract(item, "network_profile_id", nic.network_profile_id_);
      json_extract(item, "network_profile_name", nic.network_profile_name_);
      nics_.push_back(std::move(nic));
    }
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS VM restore params for networks: %s.\n", e.what()));
    return false;
  }
  return true;
}

JSON_Value VM_Restore_Params::dump() const {
  JSON_Value io_opts = JSON_Value::object();
  io_opts_ >> io_opts;
  JSON_Value disks = JSON_Value::array();
  for (const Disk& d : disks_)
    disks.push_back({{"source_path", d.source_path_},
                     {"provisioning_mode", provision_mode_to_str(d.provisioning_mode_)},
                     {"target_pool_name", d.pool_name_},
                     {"target_pool_path", d.pool_path_},
                     {"target_pool_type", d.pool_type_},
                     {"target_volume_name", d.volume_name_}});
  JSON_Value nics = JSON_Value::array();
  for (const NIC& n : nics_)
    nics.push_back({{"virtual_switch_id", n.virtual_switch_id_},
                    {"virtual_switch_name", n.virtual_switch_name_},
                    {"network_profile_id", n.network_profile_id_},
                    {"network_profile_name", n.network_profile_name_}});
  return {{"cvm", cvm_.dump()},
          {"io_opts", std::move(io_opts)},
          {"disks", std::move(disks)},
          {"nics", std::move(nics)},
          {"source_host_id", source_host_id_},
          {"source_host_name", source_host_name_},
          {"source_vm_id", source_vm_id_},
          {"source_vm_name", source_vm_name_},
          {"target_host_id", target_host_id_},
          {"target_host_ip", target_host_ip_},
          {"target_host_name_", target_host_name_},
          {"target_vm_name", target_vm_name_},
          {"cvd_target_addr", cvd_target_addr_},
          {"existing_vm_id", existing_vm_id_},
          {"timepoint", timepoint_},
          {"bak_resource_uuid", bak_resource_uuid_},
          {"def_id", def_id_},
          {"catalog_uuid", catalog_uuid_},
          {"access_key", access_key_},
          {"backupd_host", backupd_host_},
          {"backupd_port", backupd_port_},
          {"backupd_ssl", backupd_ssl_},
          {"retry_seconds", retry_seconds_},
          {"cpu_count", cpu_count_},
          {"cpu_cores", cpu_cores_},
          {"memory_mbytes", memory_mbytes_},
          {"pool_uuid", opts_.pool_uuid_},
          {"parallel_disks_per_vm", opts_.parallel_disks_per_vm_},
          {"write_buffer_size", opts_.write_buffer_size_},
          {"start_vm", opts_.start_vm_},
          {"original_restore", opts_.original_restore_},
          {"reserve_mac", opts_.reserve_mac_},
          {"overwrite_vm", opts_.overwrite_vm_}};
}

JSON_Value VM_Histories::eject() {
  JSON_Value out = JSON_Value::array();
  for (auto& [uuid, h] : histories_) {
    JSON_Value entry = {
        {"uuid", uuid},          {"host", std::move(h.host)}, {"name", std::move(h.vm_name)},
        {"size", h.source_size}, {"set_size", h.set_size},    {"storaged_size", h.storage_size},
        {"succeed", h.succeeded}};
    out.push_back(std::move(entry));
  }
  histories_.clear();
  return out;
}

bool CVK_Target_Addr_Selector::set_preferred_network(const std::optional<std::string>& network) {
  preferred_.clear();
  if (!network)
    return true;
  if (*network == "backup")
    preferred_ = {Virtual_Switch::VS_TYPE_BACKUP};
  else if (*network == "storage")
    preferred_ = {Virtual_Switch::VS_TYPE_STORAGE};
  else if (*network == "management")
    preferred_ = {Virtual_Switch::VS_TYPE_MANAGEMENT};
  else
    preferred_ = {Virtual_Switch::VS_TYPE_BACKUP, Virtual_Switch::VS_TYPE_STORAGE,
                  Virtual_Switch::VS_TYPE_MANAGEMENT};
  return true;
}

bool CVK_Target_Addr_Selector::select(RESTful_Client& client, const std::string& cvk_name,
                                      const std::string& cvk_id, std::string& address) {
  address.clear();
  auto cached = cache_.find(cvk_id);
  if (cached != cache_.end()) {
    address = cached->second;
    return true;
  }
  std::vector<Virtual_Switch> switches;
  if (!client.list_virtual_switch(cvk_id, switches)) {
    LOG_MSG((LM_ERROR, "Failed to list virtual switches for CVK '%s'.\n", cvk_name.c_str()));
    switches.clear();
  }
  for (Virtual_Switch::VS_TYPE type : preferred_) {
    for (const Virtual_Switch& vs : switches) {
      if (!vs.is_active_ || !(vs.types_ & type) || vs.address_.empty())
        continue;
      address = vs.address_;
      cache_[cvk_id] = address;
      LOG_MSG((LM_INFO,
               "CVK '%s' selects '%s' as data transmission target address, network type(s): "
               "%s.\n",
               cvk_name.c_str(), address.c_str(),
               vs_network_types_array(vs.types_).dump().c_str()));
      return true;
    }
  }
  LOG_MSG((LM_INFO,
           "Failed to pick a target address for CVK '%s', defaults to its management network.\n",
           cvk_name.c_str()));
  return false;
}

}  // namespace h3ccas
