#include "tests/unit/h3ccas/support.h"

#include <algorithm>

namespace h3ccas {
namespace {
// What both kinds of parameters hold.
const S cvm_and_io_opts = R"({
  "cvm": {"host": "10.0.0.5", "port": 8443, "ssl": true, "username": "admin",
          "password": "clear-pass"},
  "io_opts": {"connect_timeout": 20, "io_timeout": 600, "retry_count": 5, "retry_interval": 15,
              "compression": "lz4", "compression_level": 1, "encryption": true,
              "encryption_key_id": "k1", "access_mode": "direct", "extra": {"a": 1}},)";

// Every key the agent sends for a backup, none at its default.
const S backup_params = cvm_and_io_opts + R"(
  "host_id": "3", "host_name": "cvk-b", "host_ip": "10.0.1.3", "vm_id": "42", "vm_name": "web01",
  "vm_uuid": "5f0c-uuid", "def_id": "def-9", "pool_url": "file:///pools/a",
  "backup_type": "incremental", "resource_uuid": "res-1", "access_key": "ak",
  "backupd_host": "backup.example", "backupd_port": 49443, "backupd_ssl": true,
  "retry_seconds": 30, "catalog": {"area": "h3ccas"}, "vm_title": "Web 01",
  "parallel_disks_per_vm": 2, "parallel_workers_per_disk": 4, "restart_vm": true, "no_cbt": 2,
  "enable_cbt": true, "storage_reserved_percent": 5, "storage_reserved_bytes": 5368709120,
  "read_buffer_size": 1048576, "cvd_target_addr": "10.1.1.3"})";

// Every key the agent sends for a restore, in the form dump() writes: a file disk and a block
// disk, each with the key the other kind needs.
const S restore_params = cvm_and_io_opts + R"(
  "disks": [{"source_path": "/vms/images/web01", "target_pool_name": "defaultpool",
             "target_pool_path": "/vms/images", "target_pool_type": "dir",
             "provisioning_mode": "2", "target_volume_name": ""},
            {"source_path": "/vms/images/web01-data", "target_pool_name": "san",
             "target_pool_path": "/dev/disk/by-path/san", "target_pool_type": "iscsi",
             "provisioning_mode": "UNKNOWN", "target_volume_name": "lun-7"}],
  "nics": [{"virtual_switch_id": "1", "virtual_switch_name": "vswitch0",
            "network_profile_id": "2", "network_profile_name": "Default"}],
  "source_host_id": "3", "source_host_name": "cvk-b", "source_vm_id": "42",
  "source_vm_name": "web01", "target_host_id": "4", "target_host_ip": "10.0.1.4",
  "target_host_name_": "cvk-c", "target_vm_name": "web01-restored",
  "cvd_target_addr": "10.1.1.4", "existing_vm_id": "77", "timepoint": "2024-05-01 10:00:00",
  "bak_resource_uuid": "res-1", "def_id": "def-10", "catalog_uuid": "set-3", "access_key": "ak",
  "backupd_host": "backup.example", "backupd_port": 9443, "backupd_ssl": true,
  "retry_seconds": 30, "cpu_count": 2, "cpu_cores": 4, "memory_mbytes": 8192,
  "pool_uuid": "pool-1", "parallel_disks_per_vm": 3, "write_buffer_size": 65536,
  "start_vm": true, "original_restore": true, "reserve_mac": true, "overwrite_vm": true})";

// `params` changed by `patch` (a merge patch) fails to load, the last line logged `message`.
template <class Params>
void expect_refused(const S& params, const char* patch, const S& message) {
  JSON_Value value = json(params);
  value.merge_patch(json(patch));
  Log_Capture log;
  EXPECT_FALSE(Params().load(value)) << patch;
  const S text = messages(log);
  EXPECT_EQ(text.substr(text.size() - std::min(text.size(), message.size() + 1)), message + "\n");
}

TEST(Backup_Params, LoadsDumpsAndRefuses) {
  VM_Backup_Params p;
  ASSERT_TRUE(p.load(json(backup_params)));
  EXPECT_EQ(p.io_opts_.compression_, Client_IO_Base::Compression::Lz4);
  EXPECT_EQ(p.backup_type_, Job_Definition_Subtype::Incremental);
  EXPECT_EQ(p.opts_.no_cbt_, No_CBT_Opts::Skip_With_Alert);
  EXPECT_EQ(std::tuple(p.host_id(), p.dump()), std::tuple("3", json(backup_params)));
  // The agent validated the numbers; the servant takes them as they come.
  JSON_Value odd = json(backup_params);
  odd.merge_patch(json(R"({"backupd_port":70000,"no_cbt":7,"backup_type":"Full"})"));
  ASSERT_TRUE(p.load(odd));
  EXPECT_EQ(p.backupd_port_, 70000 - 65536);
  EXPECT_STREQ(no_cbt_opts_to_str(p.opts_.no_cbt_), "none");
  EXPECT_EQ(p.dump()["no_cbt"], 7);
  EXPECT_EQ(p.backup_type_, Job_Definition_Subtype::Unknown);
  const S m = "Invalid CAS backup params: ";
  const std::pair<const char*, S> cases[] = {
      {R"({"vm_uuid":null})", m + "missing key 'vm_uuid'."},
      {R"({"restart_vm":1})", m + "'restart_vm' is expected as boolean."},
      {R"({"io_opts":"zstd"})", m + "'io_opts' is expected as object."},
      {R"({"storage_reserved_bytes":-1})",
       m + "'storage_reserved_bytes' is expected as integer in range."},
      {R"({"cvm":{"host":null}})", m + "invalid CVM."},
      {R"({"io_opts":{"compression_level":99}})", m + "invalid I/O options."},
      {"[]", m + "expected an object, got array."},
  };
  for (const auto& [patch, message] : cases)
    expect_refused<VM_Backup_Params>(backup_params, patch, message);
}

TEST(Restore_Params, LoadsDumpsAndRefusesDisksOnFileAndBlockStorage) {
  VM_Restore_Params p;
  ASSERT_TRUE(p.load(json(restore_params)));
  EXPECT_TRUE(p.io_opts_.encryption_);
  ASSERT_EQ(p.disks_.size(), 2u);
  EXPECT_EQ(std::tuple(p.disks_[0].provisioning_mode_, p.disks_[1].provisioning_mode_),
            std::tuple(THIN, UNKNOWN));
  EXPECT_EQ(p.dump(), json(restore_params));
  const S m = "Invalid CAS restore params: ";
  const std::pair<const char*, S> cases[] = {
      // The target host's name is the one key spelled with a trailing underscore.
      {R"({"target_host_name_":null,"target_host_name":"cvk-c"})",
       m + "missing key 'target_host_name_'."},
      // Unlike the backup's, the restore's port is not cut to 16 bits.
      {R"({"backupd_port":70000})", m + "'backupd_port' is expected as integer in range."},
      {R"({"disks":{}})", m + "'disks' is expected as array."},
      {R"({"cvm":"10.0.0.5"})", m + "invalid CVM."},
      {R"({"io_opts":{"access_mode":"tape"}})", m + "invalid I/O options."},
      {R"({"disks":["web01"]})",
       "Invalid CAS VM restore params for disks: expected an object, got string."},
      {R"({"nics":[{"virtual_switch_id":"1"}]})",
       "Invalid CAS VM restore params for networks: missing key 'virtual_switch_name'."},
  };
  for (const auto& [patch, message] : cases)
    expect_refused<VM_Restore_Params>(restore_params, patch, message);
  // Disk faults stop before the networks.
  JSON_Value params = json(restore_params);
  params["disks"][1].erase("target_volume_name");
  VM_Restore_Params failed;
  Log_Capture log;
  EXPECT_FALSE(failed.load(params));
  EXPECT_EQ(std::tuple(failed.disks_.size(), failed.nics_.size(), log.count()),
            std::tuple(1u, 0u, 1u));
  params["disks"] = JSON_Value::array();
  VM_Restore_Params empty;
  ASSERT_TRUE(empty.load(params));
  EXPECT_EQ(std::tuple(empty.disks_.size(), empty.nics_.size()), std::tuple(0u, 1u));
  const char dir[] = R"({"source_path":"/a","target_pool_name":"p","target_pool_path":"/p",
                         "target_pool_type":"dir")";
  const char iscsi[] = R"({"source_path":"/a","target_pool_name":"p","target_pool_path":"/p",
                           "target_pool_type":"iscsi")";
  // pool type, the rest of the entry, the mode loaded or the reason it is refused; each follows a
  // good entry, which stays when a bad one stops the reading
  const std::tuple<const char*, const char*, Provisioning_Mode, const char*> disk_cases[] = {
      // The code string names CAS's codes, an integer the mode itself.
      {dir, R"(,"provisioning_mode":"2"})", THIN, ""},
      {dir, R"(,"provisioning_mode":1})", THIN, ""},
      {dir, R"(,"provisioning_mode":2})", LAZY_ZEROED, ""},
      {dir, R"(,"provisioning_mode":3})", EAGER_ZEROED, ""},
      {dir, R"(,"provisioning_mode":9})", UNKNOWN, ""},
      {dir, R"(,"provisioning_mode":"thin"})", UNKNOWN, ""},
      {iscsi, R"(,"target_volume_name":"lun"})", UNKNOWN, ""},
      {dir, R"(,"provisioning_mode":true})", UNKNOWN,
       "'provisioning_mode' is expected as string or integer"},
      {dir, "}", UNKNOWN, "missing key 'provisioning_mode'"},
      {iscsi, R"(,"provisioning_mode":"2"})", UNKNOWN, "missing key 'target_volume_name'"},
      {dir, R"(,"provisioning_mode":"2","target_volume_name":5})", UNKNOWN,
       "'target_volume_name' is expected as string"},
  };
  for (const auto& [pool, rest, mode, message] : disk_cases) {
    const S disk = S(pool) + rest;
    SCOPED_TRACE(disk);
    VM_Restore_Params p;
    Log_Capture log;
    const JSON_Value disks = {json(R"({"source_path":"/b","target_pool_name":"p",
        "target_pool_path":"/p","target_pool_type":"fc","target_volume_name":"v"})"),
                              json(disk.c_str())};
    EXPECT_EQ(p.load_disks(disks), !*message);
    ASSERT_EQ(p.disks_.size(), *message ? 1u : 2u);
    EXPECT_EQ(*message ? mode : p.disks_.back().provisioning_mode_, mode);
    EXPECT_EQ(messages(log),
              *message ? S("Invalid CAS VM restore params for disks: ") + message + ".\n" : "");
  }
  VM_Restore_Params bare;
  Log_Capture log2;
  EXPECT_FALSE(bare.load_disks(json(R"({"source_path":"/a"})")) ||
               bare.load_nics(json(R"("vswitch0")")));
  EXPECT_EQ(messages(log2),
            "Invalid CAS VM restore params for disks: 'disks' is expected as array.\n"
            "Invalid CAS VM restore params for networks: 'nics' is expected as array.\n");
  EXPECT_TRUE(bare.load_nics(json(restore_params)["nics"]) &&
              bare.load_nics(json(restore_params)["nics"]));
  EXPECT_EQ(bare.nics_.size(), 2u);  // appended
}

TEST(VM_Histories, EjectEmptiesTheTable) {
  VM_Histories h;
  h.histories_["42"] = {"cvk-b", "web01", 100, 400, 90, true};
  h.histories_["43"] = {"cvk-c", "db01", 0, 0, 0, false};
  JSON_Value out = h.eject();
  std::sort(out.begin(), out.end(),
            [](const JSON_Value& a, const JSON_Value& b) { return a["uuid"] < b["uuid"]; });
  EXPECT_EQ(out, json(R"([{"uuid":"42","host":"cvk-b","name":"web01","size":400,"set_size":100,
                          "storaged_size":90,"succeed":true},
                         {"uuid":"43","host":"cvk-c","name":"db01","size":0,"set_size":0,
                          "storaged_size":0,"succeed":false}])"));
  EXPECT_TRUE(h.histories_.empty());
  EXPECT_EQ(h.eject(), JSON_Value::array());
}
}  // namespace
}  // namespace h3ccas
