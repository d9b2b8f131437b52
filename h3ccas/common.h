// Conversions of CAS strings into numbers, enumerations and paths, the connection record of one
// CVM, and the records of the CAS inventory. Each record loads from CVM's camel-case JSON (false
// after one log line; a record that failed to load is discarded) and dumps to the module's own
// snake-case JSON. Also the parameters of one VM's backup or restore, which the agent dumps and a
// servant loads, and the table of per-VM outcomes of a job.
#pragma once

#include "host/core/crypto.h"
#include "host/core/json.h"
#include "host/job/subtype.h"
#include "host/storage/options.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace h3ccas {

// Disk provisioning of a CAS volume.
enum Provisioning_Mode { UNKNOWN = 0, THIN = 1, LAZY_ZEROED = 2, EAGER_ZEROED = 3 };

// What a backup does with a VM whose changed-block tracking is not available.
enum class No_CBT_Opts { None = 0, Skip = 1, Skip_With_Alert = 2, Full_Backup = 3 };

// Whole string as a double (leading blanks allowed). False after one log line; trailing text
// still leaves the parsed value in `out`.
bool try_atod(double& out, const std::string& s);

// Whole string as a strict decimal integer. On any failure `out` takes `default_value`; nothing is
// logged, the caller decides whether a bad number matters.
template <class T>
bool try_natoi(T& out, const std::string& s, T default_value);
extern template bool try_natoi<int>(int&, const std::string&, int);
extern template bool try_natoi<unsigned int>(unsigned int&, const std::string&, unsigned int);
extern template bool try_natoi<unsigned long>(unsigned long&, const std::string&, unsigned long);

// "1.5 GiB", "512 B".
std::string size_to_str(unsigned long bytes);
const char* bool_to_str(bool value);

// CAS provisioning codes ("0", "1", "2"); anything else is UNKNOWN / "UNKNOWN".
Provisioning_Mode str_to_provision_mode(const char* code);
const char* provision_mode_to_str(Provisioning_Mode mode);

// "skip", "skip_with_alert", "full_backup"; anything else is None / "none". Case matters.
No_CBT_Opts no_cbt_opts_from_str(const std::string& text);
const char* no_cbt_opts_to_str(No_CBT_Opts opts);

// The path the disk-access SDK opens: "rbd:<path>[@<snapshot>]" for RBD, the path otherwise.
std::string unify_path(const std::string& path, bool is_rbd, const char* snapshot);

// Characters that may not stand in a file name become '_'.
std::string filenamify(const std::string& in);

// Only the E07 release line of CVM is supported. False after one log line.
bool is_supported(const std::string& cvm_version);

// Connection record of one CVM: JSON keys "host", "port", "ssl", "username", "password" and the
// optional "extended_attrs".
class CVM_Info {
 public:
  // `decrypt_password`: the entry comes from the backup server, its password encrypted for this
  // agent. False after one log line; fields read before the fault keep their new values.
  bool load(const JSON_Value& value, bool decrypt_password);
  // The five connection members with the password in clear (the servant's form);
  // "extended_attrs" is left out.
  JSON_Value dump() const;
  // Fetches the entry `uuid` from the backup server and loads it with decryption.
  bool load_from_server(const std::string& uuid);

  const JSON_Value& extended_attrs() const { return extended_attrs_; }
  const std::string& username() const { return username_; }
  const Secure_String& password() const { return password_; }
  const std::string& host() const { return host_; }
  const std::uint16_t& port() const { return port_; }
  const bool& ssl() const { return ssl_; }

 private:
  JSON_Value extended_attrs_ = JSON_Value::object();
  std::string username_;
  Secure_String password_;
  std::string host_;
  std::uint16_t port_ = 0;
  bool ssl_ = false;
};

// A CAS host (CVK). Status "0" is "disconnected", "1" "connected", anything else "unresponsive".
class CVK_Host {
 public:
  bool load(const JSON_Value& value);
  JSON_Value dump() const;

  std::string id_;
  std::string ip_;
  std::string name_;
  std::string status_;
};

// A host with its capacity; dumped as the host's four keys plus the three numbers.
class CVK_Host_Detail {
 public:
  bool load(const JSON_Value& value);
  JSON_Value dump() const;

  CVK_Host basic_;
  std::uint64_t memory_mbytes_ = 0;
  std::uint32_t cpu_count_ = 0;
  std::uint32_t cpu_cores_ = 0;
};

// One VM of a list. Odd processor or memory numbers are tolerated (1 processor, 1024 MiB).
class VM_Info {
 public:
  bool load(const JSON_Value& value);
  JSON_Value dump() const;

  std::string id_;
  std::string name_;
  std::string display_name_;  // CAS's "title"
  std::string status_;        // "poweroff", "poweron", "suspended" or "unknown"
  std::string host_id_;
  std::string host_name_;
  std::string os_;
  std::uint32_t cpu_ = 1;
  std::uint32_t memory_mbytes_ = 1024;
  std::string uuid_;
};

// The whole configuration of one VM, kept as CAS sends it: what a backup saves and a restore sends
// back when it re-creates the VM.
class VM_Detail {
 public:
  bool load(const JSON_Value& value);
  JSON_Value dump() const;
  // Sockets and cores of "cpu" and the size of "memory", all parsed from CAS's strings.
  bool dump_cpu_mem(int& sockets, int& cores, unsigned& memory) const;

  std::string status_;
  JSON_Value basic_ = JSON_Value::object();
  JSON_Value cpu_ = JSON_Value::object();
  JSON_Value memory_ = JSON_Value::object();
  JSON_Value networks_ = JSON_Value::array();
  JSON_Value storages_ = JSON_Value::array();
};

// A node of a VM's snapshot tree.
struct Snapshot_Info {
  std::string name;
  std::vector<Snapshot_Info> children;
  bool is_internal = false;
};

// Reads a node and its subtree; throws JSON_Error on a shape error (the caller reports it).
const JSON_Value& operator>>(const JSON_Value& value, Snapshot_Info& info);

struct VM_Capabilities {
  bool support_snapshot = false;
  bool support_cbt = false;
  bool support_external_snapshot = false;
  bool support_external_cbt = false;
};

// One virtual disk of a VM. Loads from a CAS storage entry; dumps to, and loads from, the form
// kept in the backup catalog.
class VM_Disk {
 public:
  bool load(const JSON_Value& value);
  bool load_from_catalog(const JSON_Value& value);
  JSON_Value dump() const;

  std::string device_;
  std::string device_name_;
  std::string file_type_;  // "file": an image file in a pool; otherwise a block device
  std::string path_;
  std::string format_;  // "raw" or "qcow2"
  std::string target_bus_;
  std::uint64_t total_bytes_ = 0;
  std::uint64_t alloc_bytes_ = 0;
  std::string cache_type_;
  Provisioning_Mode provisioning_mode_ = UNKNOWN;
  std::uint32_t cluster_bytes_ = 0;
  bool is_shared_ = false;
  std::string backing_file_;
  // The pool holding the disk; filled by the backup, not by load.
  std::string pool_name_;
  std::string pool_path_;
  std::string pool_type_;
};

class CAS_Storage_Pool {
 public:
  bool load(const JSON_Value& value);
  JSON_Value dump() const;

  std::string name_;
  std::string title_;  // the name when CAS gives none
  std::string type_;   // "dir", "iscsi", "logical", ...
  std::string path_;
  std::uint64_t total_bytes_ = 0;
  std::uint64_t free_bytes_ = 0;
  bool is_active_ = false;
};

class CAS_Storage_Volume {
 public:
  bool load(const JSON_Value& value);
  JSON_Value dump() const;

  std::uint64_t total_bytes_ = 0;
  std::string name_;
  std::string used_by_;
};

class Virtual_Switch {
 public:
  enum VS_TYPE : std::uint32_t {
    VS_TYPE_NONE = 0,
    VS_TYPE_MANAGEMENT = 1,
    VS_TYPE_SERVICE = 2,
    VS_TYPE_STORAGE = 4,
    VS_TYPE_BACKUP = 8,
    VS_TYPE_MIGRATION = 16,
    VS_TYPE_OTHER = 32,
  };

  bool load(const JSON_Value& value);
  JSON_Value dump() const;

  std::string id_;
  std::string name_;
  std::string physical_nic_name_;
  std::string address_;
  std::string gateway_;
  std::uint32_t types_ = VS_TYPE_NONE;  // bit set of VS_TYPE
  bool is_active_ = false;
};

// Names of the network types set in `types`, management first; empty for none.
JSON_Value vs_network_types_array(std::uint32_t types);

class RESTful_Client;

// Picks, once per CVK and job, the address of an active virtual switch of that CVK on the network
// the user prefers for disk data. Without a pick the data goes over the management network.
class CVK_Target_Addr_Selector {
 public:
  // "backup", "storage" or "management" alone; any other text, the empty one included, all three
  // in that order; none: nothing is ever picked. Always true.
  bool set_preferred_network(const std::optional<std::string>& network);
  // `address` is cleared, then receives the pick; false when there is none.
  bool select(RESTful_Client& client, const std::string& cvk_name, const std::string& cvk_id,
              std::string& address);

 private:
  std::vector<Virtual_Switch::VS_TYPE> preferred_;
  std::unordered_map<std::string, std::string> cache_;  // CVK id -> address
};

class Port_Profile {
 public:
  bool load(const JSON_Value& value);
  JSON_Value dump() const;

  std::string id_;
  std::string name_;
  std::string description_;
  std::string vlan_id_;
  std::string acl_name_;
  std::string net_limit_title_;
};

// One extent of a disk, in bytes.
class Block {
 public:
  bool load(const JSON_Value& value);

  std::uint64_t offset_ = 0;
  std::uint64_t length_ = 0;
};

// Pools of these types hold disks as block devices; the others hold image files.
bool is_cas_block_storage(const std::string& pool_type);

// CAS sends a one-member list as the bare member: appends the members of an array, or the object
// itself, to `out` (not cleared); anything else appends nothing.
void convert_to_array(const JSON_Value& value, JSON_Value::array_t& out);

// Everything a servant needs to back up one VM. The agent fills it and sends dump() as the
// parameters of "h3ccas.exec"; the servant rebuilds it with load(). Every key is required.
class VM_Backup_Params {
 public:
  struct Options {
    bool restart_vm_ = false;  // after an offline backup stopped the VM
    No_CBT_Opts no_cbt_ = No_CBT_Opts::None;
    // Free space that must stay in a CAS storage pool, in bytes and in percent.
    std::uint64_t storage_reserved_bytes_ = 100ull << 30;
    int storage_reserved_percent_ = 10;
    int parallel_disks_per_vm_ = 1;
    int parallel_workers_per_disk_ = 1;
    int read_buffer_size_ = 0;  // bytes of one disk read
    bool enable_cbt_ = false;
  };

  // False after one log line; the values read before the fault stay. Numbers are taken as they
  // are (the agent validated them), except "backupd_port", which is cut to 16 bits.
  bool load(const JSON_Value& params);
  // The 28 keys, the CVM password in clear.
  JSON_Value dump() const;
  const std::string& host_id() const { return host_id_; }

  CVM_Info cvm_;
  Client_IO_Base::Options io_opts_;
  Options opts_;
  std::string host_id_;  // the CVK running the VM
  std::string host_name_;
  std::string host_ip_;
  std::string cvd_target_addr_;  // where the CVK's disk service is reached
  std::string vm_id_;
  std::string vm_name_;
  std::string vm_title_;
  std::string vm_uuid_;
  std::string def_id_;
  std::string pool_url_;  // the storage pool receiving the data
  std::string resource_uuid_;
  std::string access_key_;
  std::string backupd_host_;
  std::uint16_t backupd_port_ = 0;
  bool backupd_ssl_ = false;
  Job_Definition_Subtype backup_type_ = Job_Definition_Subtype::Unknown;  // carried as its name
  int retry_seconds_ = 0;
  JSON_Value catalog_ = JSON_Value::object();  // handed to the catalog client unchanged
};

// Everything a servant needs to restore one VM; written and read like VM_Backup_Params.
class VM_Restore_Params {
 public:
  struct Options {
    std::string pool_uuid_;
    int parallel_disks_per_vm_ = 1;
    int write_buffer_size_ = 0;
    bool start_vm_ = false;
    bool original_restore_ = false;
    bool reserve_mac_ = false;
    bool overwrite_vm_ = false;
  };

  // Where one source disk goes. File storage needs a provisioning mode, block storage a volume.
  struct Disk {
    std::string source_path_;  // as in the backed-up VM and its catalog entry
    std::string pool_name_;
    std::string pool_path_;
    std::string pool_type_;
    std::string volume_name_;
    Provisioning_Mode provisioning_mode_ = UNKNOWN;
  };

  // The network a card of the new VM joins.
  struct NIC {
    std::string virtual_switch_id_;
    std::string virtual_switch_name_;
    std::string network_profile_id_;
    std::string network_profile_name_;
  };

  // False after one log line; the values read before the fault stay.
  bool load(const JSON_Value& params);
  // Append the entries of a JSON array to disks_ / nics_ (the restore job reads its own entries
  // with them); false after one log line, the entries read before the fault stay.
  bool load_disks(const JSON_Value& disks);
  bool load_nics(const JSON_Value& nics);
  JSON_Value dump() const;

  CVM_Info cvm_;
  Client_IO_Base::Options io_opts_;
  Options opts_;
  std::vector<Disk> disks_;
  std::vector<NIC> nics_;
  std::string source_host_id_;
  std::string source_host_name_;
  std::string source_vm_id_;
  std::string source_vm_name_;
  std::string target_host_id_;
  std::string target_host_ip_;
  std::string target_host_name_;  // key "target_host_name_", underscore included
  std::string target_vm_name_;
  std::string cvd_target_addr_;
  std::string existing_vm_id_;  // a VM of the target name, deleted when overwriting
  std::string timepoint_;
  std::string bak_resource_uuid_;
  std::string def_id_;
  std::string catalog_uuid_;  // the backup set to restore
  std::string access_key_;
  std::string backupd_host_;
  std::uint16_t backupd_port_ = 0;
  bool backupd_ssl_ = false;
  int retry_seconds_ = 0;
  // 0 keeps the source VM's value.
  int cpu_count_ = 0;
  int cpu_cores_ = 0;
  std::uint64_t memory_mbytes_ = 0;
};

// The outcome of one VM of a job.
struct VM_History {
  std::string host;
  std::string vm_name;
  std::uint64_t set_size = 0;
  std::uint64_t source_size = 0;
  std::uint64_t storage_size = 0;
  bool succeeded = false;
};

// Outcomes by VM id.
class VM_Histories {
 public:
  // One object per VM ("uuid", "host", "name", "size", "set_size", "storaged_size", "succeed"),
  // in no particular order; the table is left empty.
  JSON_Value eject();

  std::unordered_map<std::string, VM_History> histories_;
};

}  // namespace h3ccas
