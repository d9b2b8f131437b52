#include "h3ccas/common.h"

#include "tests/unit/h3ccas/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace h3ccas {
namespace {

const JSON_Value cvm_entry = {{"host", "10.0.0.5"},
                              {"port", 8443},
                              {"ssl", true},
                              {"username", "admin"},
                              {"password", "clear-pass"}};

const JSON_Value io_opts_entry = JSON_Value::parse(R"({
    "connect_timeout": 20, "io_timeout": 600, "retry_count": 5, "retry_interval": 15,
    "compression": "lz4", "compression_level": 1, "encryption": true,
    "encryption_key_id": "k1", "access_mode": "direct", "extra": {"a": 1}})");

// Every key the agent sends for a backup, none at its default.
JSON_Value backup_params() {
  return {{"cvm", cvm_entry},
          {"io_opts", io_opts_entry},
          {"host_id", "3"},
          {"host_name", "cvk-b"},
          {"host_ip", "10.0.1.3"},
          {"vm_id", "42"},
          {"vm_name", "web01"},
          {"vm_uuid", "5f0c-uuid"},
          {"def_id", "def-9"},
          {"pool_url", "file:///pools/a"},
          {"backup_type", "incremental"},
          {"resource_uuid", "res-1"},
          {"access_key", "ak"},
          {"backupd_host", "backup.example"},
          {"backupd_port", 9443},
          {"backupd_ssl", true},
          {"retry_seconds", 30},
          {"catalog", {{"area", "h3ccas"}}},
          {"vm_title", "Web 01"},
          {"parallel_disks_per_vm", 2},
          {"parallel_workers_per_disk", 4},
          {"restart_vm", true},
          {"no_cbt", 2},
          {"enable_cbt", true},
          {"storage_reserved_percent", 5},
          {"storage_reserved_bytes", 5368709120ull},
          {"read_buffer_size", 1048576},
          {"cvd_target_addr", "10.1.1.3"}};
}

// Every key the agent sends for a restore, in the form dump() writes: a file disk and a block
// disk, each with the key the other kind needs.
JSON_Value restore_params() {
  JSON_Value disks = JSON_Value::parse(R"([
      {"source_path": "/vms/images/web01", "target_pool_name": "defaultpool",
       "target_pool_path": "/vms/images", "target_pool_type": "dir",
       "provisioning_mode": "2", "target_volume_name": ""},
      {"source_path": "/vms/images/web01-data", "target_pool_name": "san",
       "target_pool_path": "/dev/disk/by-path/san", "target_pool_type": "iscsi",
       "provisioning_mode": "UNKNOWN", "target_volume_name": "lun-7"}])");
  JSON_Value nics = JSON_Value::parse(R"([
      {"virtual_switch_id": "1", "virtual_switch_name": "vswitch0",
       "network_profile_id": "2", "network_profile_name": "Default"}])");
  return {{"cvm", cvm_entry},
          {"io_opts", io_opts_entry},
          {"disks", disks},
          {"nics", nics},
          {"source_host_id", "3"},
          {"source_host_name", "cvk-b"},
          {"source_vm_id", "42"},
          {"source_vm_name", "web01"},
          {"target_host_id", "4"},
          {"target_host_ip", "10.0.1.4"},
          {"target_host_name_", "cvk-c"},
          {"target_vm_name", "web01-restored"},
          {"cvd_target_addr", "10.1.1.4"},
          {"existing_vm_id", "77"},
          {"timepoint", "2024-05-01 10:00:00"},
          {"bak_resource_uuid", "res-1"},
          {"def_id", "def-10"},
          {"catalog_uuid", "set-3"},
          {"access_key", "ak"},
          {"backupd_host", "backup.example"},
          {"backupd_port", 9443},
          {"backupd_ssl", true},
          {"retry_seconds", 30},
          {"cpu_count", 2},
          {"cpu_cores", 4},
          {"memory_mbytes", 8192},
          {"pool_uuid", "pool-1"},
          {"parallel_disks_per_vm", 3},
          {"write_buffer_size", 65536},
          {"start_vm", true},
          {"original_restore", true},
          {"reserve_mac", true},
          {"overwrite_vm", true}};
}

TEST(Backup_Params, LoadsEveryKeyAndDumpsTheSameObject) {
  const JSON_Value params = backup_params();
  VM_Backup_Params p;
  ASSERT_TRUE(p.load(params));
  EXPECT_EQ(p.cvm_.host(), "10.0.0.5");
  EXPECT_EQ(std::string(p.cvm_.password().c_str()), "clear-pass");
  EXPECT_EQ(p.io_opts_.compression_, Client_IO_Base::Compression::Lz4);
  EXPECT_EQ(p.host_id(), "3");
  EXPECT_EQ(p.vm_uuid_, "5f0c-uuid");
  EXPECT_EQ(p.backup_type_, Job_Definition_Subtype::Incremental);
  EXPECT_EQ(p.backupd_port_, 9443);
  EXPECT_EQ(p.catalog_, JSON_Value({{"area", "h3ccas"}}));
  EXPECT_EQ(p.opts_.no_cbt_, No_CBT_Opts::Skip_With_Alert);
  EXPECT_EQ(p.opts_.storage_reserved_bytes_, 5368709120ull);
  EXPECT_EQ(p.opts_.parallel_workers_per_disk_, 4);
  EXPECT_TRUE(p.opts_.restart_vm_ && p.opts_.enable_cbt_);
  EXPECT_EQ(p.cvd_target_addr_, "10.1.1.3");

  EXPECT_EQ(p.dump(), params);
  VM_Backup_Params moved(std::move(p));
  EXPECT_EQ(moved.dump(), params);
}

TEST(Backup_Params, DefaultRecord) {
  JSON_Value d = VM_Backup_Params().dump();
  EXPECT_EQ(d.size(), 28u);
  EXPECT_EQ(d["storage_reserved_bytes"], 107374182400ull);
  EXPECT_EQ(d["storage_reserved_percent"], 10);
  EXPECT_EQ(d["parallel_disks_per_vm"], 1);
  EXPECT_EQ(d["parallel_workers_per_disk"], 1);
  EXPECT_EQ(d["no_cbt"], 0);
  EXPECT_EQ(d["backup_type"], "unknown");
  EXPECT_EQ(d["catalog"], JSON_Value::object());
  // A default record is a valid one.
  EXPECT_TRUE(VM_Backup_Params().load(d));
}

TEST(Backup_Params, EveryKeyIsRequired) {
  const JSON_Value params = backup_params();
  for (const auto& [key, value] : params.items()) {
    JSON_Value without = params;
    without.erase(key);
    Log_Capture log;
    EXPECT_FALSE(VM_Backup_Params().load(without)) << key;
    EXPECT_TRUE(log.contains("Invalid CAS backup params: missing key '" + key + "'.\n"))
        << log.text();
  }
}

TEST(Backup_Params, RefusedValues) {
  const std::pair<JSON_Value, const char*> cases[] = {
      {{{"restart_vm", 1}}, "Invalid CAS backup params: 'restart_vm' is expected as boolean.\n"},
      {{{"io_opts", "zstd"}}, "Invalid CAS backup params: 'io_opts' is expected as object.\n"},
      {{{"catalog", JSON_Value::array()}},
       "Invalid CAS backup params: 'catalog' is expected as object.\n"},
      {{{"storage_reserved_bytes", -1}},
       "Invalid CAS backup params: 'storage_reserved_bytes' is expected as integer in range.\n"},
      {{{"cvm", {{"host", "h"}}}}, "Invalid CAS backup params: invalid CVM.\n"},
      {{{"io_opts", {{"compression_level", 99}}}},
       "Invalid CAS backup params: invalid I/O options.\n"},
  };
  for (const auto& [change, message] : cases) {
    JSON_Value params = backup_params();
    params.update(change);
    Log_Capture log;
    EXPECT_FALSE(VM_Backup_Params().load(params)) << change;
    EXPECT_TRUE(log.contains(message)) << log.text();
  }
  Log_Capture log;
  EXPECT_FALSE(VM_Backup_Params().load(JSON_Value::array()));
  EXPECT_TRUE(log.contains("Invalid CAS backup params: expected an object, got array.\n"));
}

// The agent validated the numbers; the servant takes them as they come.
TEST(Backup_Params, TakesNumbersAsTheyCome) {
  JSON_Value params = backup_params();
  params["backupd_port"] = 70000;
  params["no_cbt"] = 7;
  params["backup_type"] = "Full";
  params["parallel_disks_per_vm"] = 0;
  VM_Backup_Params p;
  ASSERT_TRUE(p.load(params));
  EXPECT_EQ(p.backupd_port_, 70000 - 65536);
  EXPECT_STREQ(no_cbt_opts_to_str(p.opts_.no_cbt_), "none");
  EXPECT_EQ(p.dump()["no_cbt"], 7);
  EXPECT_EQ(p.backup_type_, Job_Definition_Subtype::Unknown);
  EXPECT_EQ(p.opts_.parallel_disks_per_vm_, 0);
}

TEST(Restore_Params, LoadsEveryKeyAndDumpsTheSameObject) {
  const JSON_Value params = restore_params();
  VM_Restore_Params p;
  ASSERT_TRUE(p.load(params));
  EXPECT_EQ(p.cvm_.port(), 8443);
  EXPECT_TRUE(p.io_opts_.encryption_);
  EXPECT_EQ(p.target_host_name_, "cvk-c");
  EXPECT_EQ(p.memory_mbytes_, 8192u);
  EXPECT_EQ(p.opts_.pool_uuid_, "pool-1");
  EXPECT_EQ(p.opts_.write_buffer_size_, 65536);
  EXPECT_TRUE(p.opts_.start_vm_ && p.opts_.original_restore_ && p.opts_.reserve_mac_ &&
              p.opts_.overwrite_vm_);
  ASSERT_EQ(p.disks_.size(), 2u);
  EXPECT_EQ(p.disks_[0].provisioning_mode_, THIN);
  EXPECT_EQ(p.disks_[0].pool_path_, "/vms/images");
  EXPECT_EQ(p.disks_[1].volume_name_, "lun-7");
  EXPECT_EQ(p.disks_[1].provisioning_mode_, UNKNOWN);
  ASSERT_EQ(p.nics_.size(), 1u);
  EXPECT_EQ(p.nics_[0].network_profile_name_, "Default");

  EXPECT_EQ(p.dump(), params);
  VM_Restore_Params moved(std::move(p));
  EXPECT_EQ(moved.dump(), params);
}

TEST(Restore_Params, EveryKeyIsRequired) {
  const JSON_Value params = restore_params();
  for (const auto& [key, value] : params.items()) {
    JSON_Value without = params;
    without.erase(key);
    Log_Capture log;
    EXPECT_FALSE(VM_Restore_Params().load(without)) << key;
    EXPECT_TRUE(log.contains("Invalid CAS restore params: missing key '" + key + "'.\n"))
        << log.text();
  }
  // The target host's name is the one key spelled with a trailing underscore.
  JSON_Value plain = params;
  plain["target_host_name"] = plain["target_host_name_"];
  plain.erase("target_host_name_");
  Log_Capture log;
  EXPECT_FALSE(VM_Restore_Params().load(plain));
  EXPECT_TRUE(log.contains("Invalid CAS restore params: missing key 'target_host_name_'.\n"));
}

TEST(Restore_Params, RefusedValues) {
  const std::pair<JSON_Value, const char*> cases[] = {
      // Unlike the backup's, the restore's port is not cut to 16 bits.
      {{{"backupd_port", 70000}},
       "Invalid CAS restore params: 'backupd_port' is expected as integer in range.\n"},
      {{{"disks", JSON_Value::object()}},
       "Invalid CAS restore params: 'disks' is expected as array.\n"},
      {{{"nics", nullptr}}, "Invalid CAS restore params: 'nics' is expected as array.\n"},
      {{{"cvm", "10.0.0.5"}}, "Invalid CAS restore params: invalid CVM.\n"},
      {{{"io_opts", {{"access_mode", "tape"}}}},
       "Invalid CAS restore params: invalid I/O options.\n"},
      {{{"disks", JSON_Value::array({"web01"})}},
       "Invalid CAS VM restore params for disks: expected an object, got string.\n"},
      {{{"nics", JSON_Value::array({JSON_Value{{"virtual_switch_id", "1"}}})}},
       "Invalid CAS VM restore params for networks: missing key 'virtual_switch_name'.\n"},
  };
  for (const auto& [change, message] : cases) {
    JSON_Value params = restore_params();
    params.update(change);
    Log_Capture log;
    EXPECT_FALSE(VM_Restore_Params().load(params)) << change;
    EXPECT_TRUE(log.contains(message)) << log.text();
  }
}

// A disk as the agent may write it, on a file ("dir") or block ("iscsi") pool.
JSON_Value disk(const char* pool_type) {
  return {{"source_path", "/vms/images/web01"},
          {"target_pool_name", "p"},
          {"target_pool_path", "/p"},
          {"target_pool_type", pool_type}};
}

TEST(Restore_Params, DisksOnFileAndBlockStorage) {
  struct Case {
    JSON_Value disk;
    bool ok;
    Provisioning_Mode mode;
    const char* message;
  };
  auto with = [](JSON_Value d, const char* key, JSON_Value value) {
    d[key] = std::move(value);
    return d;
  };
  const Case cases[] = {
      // The code string names CAS's codes, an integer the mode itself.
      {with(disk("dir"), "provisioning_mode", "2"), true, THIN, ""},
      {with(disk("dir"), "provisioning_mode", 1), true, THIN, ""},
      {with(disk("dir"), "provisioning_mode", 2), true, LAZY_ZEROED, ""},
      {with(disk("dir"), "provisioning_mode", 3), true, EAGER_ZEROED, ""},
      {with(disk("dir"), "provisioning_mode", 9), true, UNKNOWN, ""},
      {with(disk("dir"), "provisioning_mode", "thin"), true, UNKNOWN, ""},
      {with(disk("iscsi"), "target_volume_name", "lun"), true, UNKNOWN, ""},
      {with(disk("dir"), "provisioning_mode", true), false, UNKNOWN,
       "'provisioning_mode' is expected as string or integer"},
      {disk("dir"), false, UNKNOWN, "missing key 'provisioning_mode'"},
      {with(disk("iscsi"), "provisioning_mode", "2"), false, UNKNOWN,
       "missing key 'target_volume_name'"},
      {with(with(disk("dir"), "provisioning_mode", "2"), "target_volume_name", 5), false, UNKNOWN,
       "'target_volume_name' is expected as string"},
  };
  for (const auto& c : cases) {
    JSON_Value params = restore_params();
    params["disks"] = {c.disk};
    VM_Restore_Params p;
    Log_Capture log;
    EXPECT_EQ(p.load(params), c.ok) << c.disk;
    if (c.ok) {
      ASSERT_EQ(p.disks_.size(), 1u);
      EXPECT_EQ(p.disks_[0].provisioning_mode_, c.mode) << c.disk;
    } else {
      EXPECT_TRUE(log.contains(std::string("Invalid CAS VM restore params for disks: ") +
                               c.message + ".\n"))
          << log.text();
    }
  }
}

TEST(Restore_Params, DiskFaultsStopBeforeTheNetworks) {
  JSON_Value params = restore_params();
  params["disks"][1].erase("target_volume_name");
  VM_Restore_Params p;
  Log_Capture log;
  EXPECT_FALSE(p.load(params));
  // The disk read before the fault stays; the NICs are never read.
  EXPECT_EQ(p.disks_.size(), 1u);
  EXPECT_TRUE(p.nics_.empty());
  EXPECT_FALSE(log.contains("networks"));

  params = restore_params();
  params["disks"] = JSON_Value::array();
  VM_Restore_Params empty;
  ASSERT_TRUE(empty.load(params));
  EXPECT_TRUE(empty.disks_.empty());
  EXPECT_EQ(empty.nics_.size(), 1u);
}

TEST(VM_Histories, EjectEmptiesTheTable) {
  VM_Histories h;
  EXPECT_EQ(h.eject(), JSON_Value::array());
  h.histories_["42"] = {"cvk-b", "web01", 100, 400, 90, true};
  h.histories_["43"] = {"cvk-c", "db01", 0, 0, 0, false};
  JSON_Value out = h.eject();
  ASSERT_TRUE(out.is_array());
  ASSERT_EQ(out.size(), 2u);
  std::sort(out.begin(), out.end(),
            [](const JSON_Value& a, const JSON_Value& b) { return a["uuid"] < b["uuid"]; });
  EXPECT_EQ(out[0], JSON_Value({{"uuid", "42"},
                                {"host", "cvk-b"},
                                {"name", "web01"},
                                {"size", 400},
                                {"set_size", 100},
                                {"storaged_size", 90},
                                {"succeed", true}}));
  EXPECT_EQ(out[1]["name"], "db01");
  EXPECT_EQ(out[1]["succeed"], false);
  EXPECT_TRUE(h.histories_.empty());
  EXPECT_EQ(h.eject(), JSON_Value::array());
}

}  // namespace
}  // namespace h3ccas
