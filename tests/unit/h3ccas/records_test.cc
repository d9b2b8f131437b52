// The CAS inventory records: loading CVM's camel-case JSON (with its quirks: numbers as strings,
// sizes in MiB, one-member lists as bare objects) and dumping the module's snake-case JSON.
#include "h3ccas/common.h"

#include "tests/unit/h3ccas/support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace h3ccas {
namespace {

// Exactly one line was logged, from this unit, at `priority`, ending with `message`.
::testing::AssertionResult logged_once(const Log_Capture& log, const std::string& priority,
                                       const std::string& message) {
  const std::string text = log.text();
  const std::string origin = " " + priority + " h3ccas/common.cc:";
  if (text.find('\n') + 1 != text.size() || text.find(origin) == std::string::npos ||
      text.size() < message.size() ||
      text.compare(text.size() - message.size(), message.size(), message) != 0)
    return ::testing::AssertionFailure() << "logged: " << text;
  return ::testing::AssertionSuccess();
}

template <class Record>
void expect_rejected(const JSON_Value& value, const std::string& message) {
  Log_Capture log;
  Record record;
  EXPECT_FALSE(record.load(value)) << value;
  EXPECT_TRUE(logged_once(log, "ERROR", message)) << value;
}

template <class Record>
Record loaded(const JSON_Value& value) {
  Log_Capture log;
  Record record;
  EXPECT_TRUE(record.load(value)) << value << ": " << log.text();
  return record;
}

JSON_Value without(JSON_Value value, const char* key) {
  value.erase(key);
  return value;
}

JSON_Value with(JSON_Value value, const char* key, JSON_Value member) {
  value[key] = std::move(member);
  return value;
}

// Every required key missing in turn, and each of them of the wrong type.
template <class Record>
void expect_required(const JSON_Value& good, std::initializer_list<const char*> keys,
                     const std::string& prefix, const std::string& suffix) {
  for (const char* key : keys) {
    expect_rejected<Record>(without(good, key), prefix + "missing key '" + key + "'" + suffix);
    expect_rejected<Record>(with(good, key, JSON_Value::array()),
                            prefix + "'" + key + "' is expected as string" + suffix);
  }
  expect_rejected<Record>(JSON_Value::array({good}),
                          prefix + "expected an object, got array" + suffix);
}

// CAS host -------------------------------------------------------------------------------------

const JSON_Value cas_host = {{"id", "3"}, {"ip", "10.0.0.3"}, {"name", "cvk-3"}, {"status", "1"}};

TEST(Cas_Host, MapsStatusAndDumps) {
  const std::pair<const char*, const char*> statuses[] = {{"0", "disconnected"},
                                                          {"1", "connected"},
                                                          {"2", "unresponsive"},
                                                          {"01", "unresponsive"},
                                                          {"", "unresponsive"}};
  for (const auto& [code, status] : statuses) {
    CVK_Host host = loaded<CVK_Host>(with(cas_host, "status", code));
    EXPECT_EQ(host.dump(),
              JSON_Value({{"id", "3"}, {"ip", "10.0.0.3"}, {"name", "cvk-3"}, {"status", status}}))
        << code;
  }
  expect_required<CVK_Host>(cas_host, {"id", "ip", "name", "status"},
                            "Invalid CVK host entry: ", "\n");
}

TEST(Cas_Host, DetailParsesCapacity) {
  JSON_Value good = cas_host;
  good.update({{"memorySize", "16384"}, {"cpuCount", "2"}, {"cpuCores", "16"}});
  EXPECT_EQ(loaded<CVK_Host_Detail>(good).dump(), JSON_Value({{"id", "3"},
                                                              {"ip", "10.0.0.3"},
                                                              {"name", "cvk-3"},
                                                              {"status", "connected"},
                                                              {"memory_mbytes", 16384},
                                                              {"cpu_count", 2},
                                                              {"cpu_cores", 16}}));

  const std::pair<JSON_Value, const char*> bad[] = {
      {with(good, "memorySize", "16384.5"), "Invalid CAS CVK memory size '16384.5'.\n"},
      {with(good, "memorySize", "18446744073709551616"),
       "Invalid CAS CVK memory size '18446744073709551616'.\n"},
      {with(good, "cpuCount", "two"), "Invalid CAS CVK CPU count 'two'.\n"},
      {with(good, "cpuCores", "-1"), "Invalid CAS CVK CPU cores '-1'.\n"},
      // Count is checked before cores, cores before memory.
      {with(with(good, "cpuCores", "x"), "cpuCount", ""), "Invalid CAS CVK CPU count ''.\n"},
      {with(with(good, "cpuCores", "x"), "memorySize", "y"), "Invalid CAS CVK CPU cores 'x'.\n"},
      // The host's own keys fail under the detail's message, once.
      {without(good, "ip"), "Invalid CAS CVK detailed info.\n"},
      {with(good, "status", 1), "Invalid CAS CVK detailed info.\n"},
      {without(good, "cpuCores"), "Invalid CAS CVK detailed info: missing key 'cpuCores'.\n"},
      {with(good, "memorySize", 16384),
       "Invalid CAS CVK detailed info: 'memorySize' is expected as string.\n"},
  };
  for (const auto& [value, message] : bad)
    expect_rejected<CVK_Host_Detail>(value, message);
}

// VM list entry --------------------------------------------------------------------------------

const JSON_Value cas_vm = {
    {"id", "12"},       {"name", "web-1"},     {"title", "Web 1"},  {"vmStatus", "running"},
    {"hostId", "3"},    {"hostName", "cvk-3"}, {"osDesc", "Linux"}, {"cpu", "4"},
    {"memory", "8192"}, {"uuid", "7f1c"}};

TEST(Cas_VM_Info, MapsStatusAndDumps) {
  EXPECT_EQ(loaded<VM_Info>(cas_vm).dump(), JSON_Value({{"id", "12"},
                                                        {"name", "web-1"},
                                                        {"title", "Web 1"},
                                                        {"status", "poweron"},
                                                        {"host_id", "3"},
                                                        {"host_name", "cvk-3"},
                                                        {"os", "Linux"},
                                                        {"cpu", 4},
                                                        {"memory_mbytes", 8192},
                                                        {"uuid", "7f1c"}}));
  const std::pair<const char*, const char*> statuses[] = {
      {"shutOff", "poweroff"}, {"running", "poweron"}, {"paused", "suspended"},
      {"shutoff", "unknown"},  {"Running", "unknown"}, {"", "unknown"}};
  for (const auto& [cas, status] : statuses)
    EXPECT_EQ(loaded<VM_Info>(with(cas_vm, "vmStatus", cas)).status_, status) << cas;
  EXPECT_EQ(loaded<VM_Info>(without(cas_vm, "osDesc")).os_, "");
}

TEST(Cas_VM_Info, ToleratesOddNumbers) {
  struct Case {
    const char* key;
    const char* text;
    std::uint32_t cpu, memory;
    const char* warning;
  };
  const Case cases[] = {
      {"memory", "", 4, 1024, "Invalid memory size '' of VM 'web-1'.\n"},
      {"memory", "8G", 4, 1024, "Invalid memory size '8G' of VM 'web-1'.\n"},
      {"cpu", "-1", 1, 8192, "Invalid processors count '-1' of VM 'web-1'.\n"},
      {"cpu", "4294967296", 1, 8192, "Invalid processors count '4294967296' of VM 'web-1'.\n"},
  };
  for (const Case& c : cases) {
    Log_Capture log;
    VM_Info vm;
    ASSERT_TRUE(vm.load(with(cas_vm, c.key, c.text))) << c.text;
    EXPECT_EQ(vm.cpu_, c.cpu) << c.text;
    EXPECT_EQ(vm.memory_mbytes_, c.memory) << c.text;
    EXPECT_TRUE(logged_once(log, "WARNING", c.warning));
  }
}

TEST(Cas_VM_Info, RejectsShapeErrors) {
  expect_required<VM_Info>(
      cas_vm, {"id", "name", "title", "vmStatus", "hostId", "hostName", "cpu", "memory", "uuid"},
      "Invalid CAS VM info entry: ", "\n");
  expect_rejected<VM_Info>(with(cas_vm, "osDesc", nullptr),
                           "Invalid CAS VM info entry: 'osDesc' is expected as string\n");
}

// VM configuration -----------------------------------------------------------------------------

const JSON_Value cas_vm_detail = {{"status", "running"},
                                  {"basic", {{"name", "web-1"}}},
                                  {"cpu", {{"cpuSockets", "2"}, {"cpuCores", "4"}}},
                                  {"memory", {{"size", "8192"}}}};

TEST(Cas_VM_Detail, ListsBecomeArrays) {
  const JSON_Value disk = {{"path", "/vms/a.qcow2"}};
  const JSON_Value nic = {{"mac", "0c:da:41:1d:00:01"}};
  // "network" and "storage" in CAS's form (null: absent), and as dumped.
  const std::pair<JSON_Value, JSON_Value> lists[] = {
      {nullptr, JSON_Value::array()},
      {nic, JSON_Value::array({nic})},
      {{nic, nic}, {nic, nic}},
      {"", JSON_Value::array()},
  };
  for (const auto& [cas, dumped] : lists) {
    JSON_Value value = cas_vm_detail;
    if (!cas.is_null()) {
      value["network"] = cas;
      value["storage"] = cas;
    }
    VM_Detail vm = loaded<VM_Detail>(value);
    EXPECT_EQ(vm.status_, "running");
    EXPECT_EQ(vm.dump(), JSON_Value({{"basic", cas_vm_detail["basic"]},
                                     {"cpu", cas_vm_detail["cpu"]},
                                     {"memory", cas_vm_detail["memory"]},
                                     {"network", dumped},
                                     {"storage", dumped}}))
        << cas;
  }
  VM_Detail vm = loaded<VM_Detail>(with(cas_vm_detail, "storage", {disk, disk}));
  EXPECT_EQ(vm.storages_, JSON_Value({disk, disk}));
  EXPECT_EQ(vm.networks_, JSON_Value::array());
}

TEST(Cas_VM_Detail, RejectsShapeErrors) {
  for (const char* key : {"basic", "cpu", "memory"}) {
    expect_rejected<VM_Detail>(without(cas_vm_detail, key),
                               std::string("Invalid CAS VM detail: missing key '") + key + "'.\n");
    expect_rejected<VM_Detail>(
        with(cas_vm_detail, key, JSON_Value::array()),
        std::string("Invalid CAS VM detail: '") + key + "' is expected as object.\n");
  }
  expect_rejected<VM_Detail>(with(cas_vm_detail, "status", 1),
                             "Invalid CAS VM detail: 'status' is expected as string.\n");
  EXPECT_EQ(loaded<VM_Detail>(without(cas_vm_detail, "status")).status_, "");
}

TEST(Cas_VM_Detail, CpuAndMemory) {
  int sockets = -1, cores = -1;
  unsigned memory = 0;
  ASSERT_TRUE(loaded<VM_Detail>(cas_vm_detail).dump_cpu_mem(sockets, cores, memory));
  EXPECT_EQ(sockets, 2);
  EXPECT_EQ(cores, 4);
  EXPECT_EQ(memory, 8192u);

  const JSON_Value cpu = cas_vm_detail["cpu"], mem = cas_vm_detail["memory"];
  struct Case {
    const char* part;
    JSON_Value value;
    const char* priority;
    const char* message;
  };
  const Case cases[] = {
      {"cpu", with(cpu, "cpuSockets", "two"), "ERROR", "Invalid CAS VM CPU config 'two' or '4'.\n"},
      {"cpu", with(cpu, "cpuCores", ""), "ERROR", "Invalid CAS VM CPU config '2' or ''.\n"},
      {"memory", with(mem, "size", "-1"), "ERROR", "Invalid CAS VM memory config '-1'.\n"},
      {"memory", with(mem, "size", "8192.0"), "ERROR", "Invalid CAS VM memory config '8192.0'.\n"},
      {"cpu", without(cpu, "cpuCores"), "WARNING",
       "Failed to get CPU or memory config of CAS VM: missing key 'cpuCores'.\n"},
      {"memory", with(mem, "size", 8192), "WARNING",
       "Failed to get CPU or memory config of CAS VM: 'size' is expected as string.\n"},
  };
  for (const Case& c : cases) {
    VM_Detail vm = loaded<VM_Detail>(with(cas_vm_detail, c.part, c.value));
    Log_Capture log;
    EXPECT_FALSE(vm.dump_cpu_mem(sockets, cores, memory)) << c.value;
    EXPECT_TRUE(logged_once(log, c.priority, c.message));
  }
}

// Snapshot tree --------------------------------------------------------------------------------

JSON_Value snapshot(const char* name, const char* mode, JSON_Value children = nullptr) {
  JSON_Value node = {{"name", name}, {"snapshotMode", mode}};
  if (!children.is_null())
    node["snapshots"] = {{"snapshot", std::move(children)}};
  return node;
}

TEST(Cas_Snapshot_Info, ReadsTheTree) {
  // root -> {a -> {a1 (a bare object)}, b (internal, "snapshots": null)}
  JSON_Value b = snapshot("b", "1");
  b["snapshots"] = nullptr;
  const JSON_Value tree = snapshot("root", "0", {snapshot("a", "0", snapshot("a1", "2")), b});
  Snapshot_Info root;
  EXPECT_EQ(&(tree >> root), &tree);
  EXPECT_EQ(root.name, "root");
  EXPECT_FALSE(root.is_internal);
  ASSERT_EQ(root.children.size(), 2u);
  const Snapshot_Info& a = root.children[0];
  EXPECT_EQ(a.name, "a");
  ASSERT_EQ(a.children.size(), 1u);
  EXPECT_EQ(a.children[0].name, "a1");
  EXPECT_FALSE(a.children[0].is_internal);
  EXPECT_TRUE(a.children[0].children.empty());
  EXPECT_EQ(root.children[1].name, "b");
  EXPECT_TRUE(root.children[1].is_internal);
  EXPECT_TRUE(root.children[1].children.empty());

  Snapshot_Info odd;
  snapshot("odd", "0", "text") >> odd;  // neither list nor object: no child
  EXPECT_TRUE(odd.children.empty());
}

TEST(Cas_Snapshot_Info, ShapeErrorsReachTheCaller) {
  JSON_Value no_member = snapshot("root", "0");
  no_member["snapshots"] = JSON_Value::object();
  const JSON_Value bad[] = {
      without(snapshot("root", "0"), "name"),
      with(snapshot("root", "0"), "snapshotMode", 1),
      no_member,
      with(snapshot("root", "0"), "snapshots", "x"),
      snapshot("root", "0", {snapshot("a", "0"), without(snapshot("b", "0"), "snapshotMode")}),
  };
  for (const JSON_Value& value : bad) {
    Snapshot_Info info;
    EXPECT_THROW(value >> info, JSON_Error) << value;
  }
}

// VM disk --------------------------------------------------------------------------------------

const JSON_Value cas_disk = {{"device", "disk"},          {"deviceName", "vda"},
                             {"fileType", "file"},        {"path", "/vms/web-1.qcow2"},
                             {"format", "qcow2"},         {"targetBus", "virtio"},
                             {"size", "10240"},           {"allocation", "3"},
                             {"cacheType", "directsync"}, {"mode", "2"},
                             {"clusterSize", "65536"},    {"backingFile", "/vms/base.qcow2"},
                             {"isShareStorage", "1"}};

TEST(Cas_VM_Disk, LoadsCasForm) {
  VM_Disk disk = loaded<VM_Disk>(cas_disk);
  EXPECT_EQ(disk.device_, "disk");
  EXPECT_EQ(disk.device_name_, "vda");
  EXPECT_EQ(disk.file_type_, "file");
  EXPECT_EQ(disk.path_, "/vms/web-1.qcow2");
  EXPECT_EQ(disk.format_, "qcow2");
  EXPECT_EQ(disk.target_bus_, "virtio");
  EXPECT_EQ(disk.total_bytes_, 10ull << 30);
  EXPECT_EQ(disk.alloc_bytes_, 3ull << 20);
  EXPECT_EQ(disk.cache_type_, "directsync");
  EXPECT_EQ(disk.provisioning_mode_, THIN);
  EXPECT_EQ(disk.cluster_bytes_, 65536u);
  EXPECT_EQ(disk.backing_file_, "/vms/base.qcow2");
  EXPECT_TRUE(disk.is_shared_);
  EXPECT_EQ(disk.pool_name_, "");  // the backup fills the pool in

  const JSON_Value optional_absent =
      without(without(without(cas_disk, "clusterSize"), "backingFile"), "isShareStorage");
  disk = loaded<VM_Disk>(optional_absent);
  EXPECT_EQ(disk.cluster_bytes_, 0u);
  EXPECT_EQ(disk.backing_file_, "");
  EXPECT_FALSE(disk.is_shared_);
  // A terabyte-scale size keeps all its bits through the shift.
  EXPECT_EQ(loaded<VM_Disk>(with(cas_disk, "size", "4194304")).total_bytes_, 1ull << 42);
}

TEST(Cas_VM_Disk, ModesAndSharing) {
  const JSON_Value block = with(with(cas_disk, "fileType", "block"), "format", "raw");
  struct Case {
    JSON_Value value;
    Provisioning_Mode mode;
  };
  const Case modes[] = {
      {with(cas_disk, "mode", "0"), LAZY_ZEROED},
      {with(cas_disk, "mode", "1"), EAGER_ZEROED},
      {with(cas_disk, "mode", "2"), THIN},
      {without(block, "mode"), UNKNOWN},  // block devices need no mode
      {with(block, "mode", "9"), UNKNOWN},
      {with(block, "mode", "1"), EAGER_ZEROED},
  };
  for (const Case& c : modes)
    EXPECT_EQ(loaded<VM_Disk>(c.value).provisioning_mode_, c.mode) << c.value;

  const std::pair<const char*, bool> shares[] = {
      {"1", true}, {"true", false}, {"0", false}, {"", false}, {"01", false}};
  for (const auto& [text, shared] : shares)
    EXPECT_EQ(loaded<VM_Disk>(with(cas_disk, "isShareStorage", text)).is_shared_, shared) << text;
}

TEST(Cas_VM_Disk, RejectsBadEntries) {
  const std::pair<JSON_Value, const char*> bad[] = {
      {without(cas_disk, "mode"), "Unknown CAS VM disk provision mode 'null'.\n"},
      {with(cas_disk, "mode", "3"), "Unknown CAS VM disk provision mode '3'.\n"},
      {with(cas_disk, "mode", "THIN"), "Unknown CAS VM disk provision mode 'THIN'.\n"},
      {with(cas_disk, "format", "vmdk"), "Unknown CAS VM disk format 'vmdk'.\n"},
      {with(cas_disk, "format", "RAW"), "Unknown CAS VM disk format 'RAW'.\n"},
      {with(with(cas_disk, "fileType", "block"), "format", "vmdk"),
       "Unknown CAS VM disk format 'vmdk'.\n"},
      {with(cas_disk, "size", "1.5"), "Invalid CAS VM disk size '1.5'.\n"},
      {with(cas_disk, "size", ""), "Invalid CAS VM disk size ''.\n"},
      {with(cas_disk, "allocation", "-3"), "Invalid CAS VM disk allocated size '-3'.\n"},
      {with(cas_disk, "clusterSize", "64k"), "Invalid CAS VM disk cluster size '64k'.\n"},
      {with(cas_disk, "clusterSize", "4294967296"),
       "Invalid CAS VM disk cluster size '4294967296'.\n"},
      // Each check in its turn: size before allocation before the mode before the format.
      {with(with(cas_disk, "allocation", "x"), "size", "y"), "Invalid CAS VM disk size 'y'.\n"},
      {with(with(cas_disk, "format", "vmdk"), "mode", "7"),
       "Unknown CAS VM disk provision mode '7'.\n"},
      {with(cas_disk, "mode", 2), "Invalid CAS VM storage info: 'mode' is expected as string.\n"},
      {with(cas_disk, "isShareStorage", true),
       "Invalid CAS VM storage info: 'isShareStorage' is expected as string.\n"},
  };
  for (const auto& [value, message] : bad)
    expect_rejected<VM_Disk>(value, message);
  expect_required<VM_Disk>(cas_disk,
                           {"device", "deviceName", "fileType", "path", "format", "targetBus",
                            "size", "allocation", "cacheType"},
                           "Invalid CAS VM storage info: ", ".\n");
}

VM_Disk catalog_disk(Provisioning_Mode mode) {
  VM_Disk disk;
  disk.device_ = "disk";
  disk.device_name_ = "vdb";
  disk.file_type_ = "block";
  disk.path_ = "/dev/vg0/data";
  disk.format_ = "raw";
  disk.target_bus_ = "scsi";
  disk.total_bytes_ = 0x8000000000000001ull;  // above the signed range
  disk.alloc_bytes_ = 1ull << 40;
  disk.cache_type_ = "none";
  disk.provisioning_mode_ = mode;
  disk.cluster_bytes_ = 4294967295u;
  disk.is_shared_ = true;
  disk.backing_file_ = "";
  disk.pool_name_ = "vg0";
  disk.pool_path_ = "/dev/vg0";
  disk.pool_type_ = "logical";
  return disk;
}

TEST(Cas_VM_Disk, CatalogRoundTrip) {
  const std::pair<Provisioning_Mode, const char*> modes[] = {
      {UNKNOWN, "UNKNOWN"}, {THIN, "2"}, {LAZY_ZEROED, "0"}, {EAGER_ZEROED, "1"}};
  for (const auto& [mode, code] : modes) {
    const VM_Disk disk = catalog_disk(mode);
    const JSON_Value dumped = disk.dump();
    EXPECT_EQ(dumped, JSON_Value({{"device", "disk"},
                                  {"device_name", "vdb"},
                                  {"file_type", "block"},
                                  {"path", "/dev/vg0/data"},
                                  {"format", "raw"},
                                  {"target_bus", "scsi"},
                                  {"size", 0x8000000000000001ull},
                                  {"allocation", 1ull << 40},
                                  {"cache_type", "none"},
                                  {"mode", code},
                                  {"cluster_size", 4294967295u},
                                  {"backing_file", ""},
                                  {"is_shared", true},
                                  {"pool_name", "vg0"},
                                  {"pool_path", "/dev/vg0"},
                                  {"pool_type", "logical"}}));
    Log_Capture log;
    VM_Disk from_catalog;
    // Through text, as the catalog keeps it.
    ASSERT_TRUE(from_catalog.load_from_catalog(JSON_Value::parse(dumped.dump())));
    EXPECT_EQ(from_catalog.provisioning_mode_, mode);
    EXPECT_EQ(from_catalog.total_bytes_, disk.total_bytes_);
    EXPECT_EQ(from_catalog.dump(), dumped);
    EXPECT_EQ(log.text(), "");
  }
}

TEST(Cas_VM_Disk, CatalogEntryChecks) {
  const JSON_Value good = catalog_disk(THIN).dump();
  // An unknown mode is not an error in the catalog.
  for (const char* mode : {"UNKNOWN", "7"}) {
    Log_Capture log;
    VM_Disk disk = catalog_disk(THIN);
    ASSERT_TRUE(disk.load_from_catalog(with(good, "mode", mode)));
    EXPECT_EQ(disk.provisioning_mode_, UNKNOWN);
    EXPECT_EQ(log.text(), "");
  }
  const std::string prefix = "Invalid CAS VM disk info in catalog: ";
  const std::pair<JSON_Value, std::string> bad[] = {
      {with(good, "size", "1024"), prefix + "'size' is expected as integer.\n"},
      {with(good, "size", -1), prefix + "'size' is expected as integer in range.\n"},
      {with(good, "allocation", 1.5), prefix + "'allocation' is expected as integer.\n"},
      {with(good, "cluster_size", 4294967296ull),
       prefix + "'cluster_size' is expected as integer in range.\n"},
      {with(good, "is_shared", "1"), prefix + "'is_shared' is expected as boolean.\n"},
      {with(good, "mode", 2), prefix + "'mode' is expected as string.\n"},
  };
  for (const auto& [value, message] : bad) {
    Log_Capture log;
    VM_Disk disk;
    EXPECT_FALSE(disk.load_from_catalog(value)) << value;
    EXPECT_TRUE(logged_once(log, "ERROR", message));
  }
  for (const auto& item : good.items()) {
    const std::string& key = item.key();
    Log_Capture log;
    VM_Disk disk;
    EXPECT_FALSE(disk.load_from_catalog(without(good, key.c_str()))) << key;
    EXPECT_TRUE(logged_once(log, "ERROR", prefix + "missing key '" + key + "'.\n"));
  }
}

// Storage pools and volumes --------------------------------------------------------------------

const JSON_Value cas_pool = {{"name", "defaultpool"}, {"title", "Default"},    {"type", "dir"},
                             {"path", "/vms/images"}, {"totalSize", "102400"}, {"status", "1"},
                             {"freeSize", "51200"}};

TEST(Cas_Storage_Pool, LoadsAndDumps) {
  EXPECT_EQ(loaded<CAS_Storage_Pool>(cas_pool).dump(), JSON_Value({{"name", "defaultpool"},
                                                                   {"title", "Default"},
                                                                   {"storage_type", "dir"},
                                                                   {"path", "/vms/images"},
                                                                   {"total_size", 100ull << 30},
                                                                   {"free_size", 50ull << 30},
                                                                   {"is_active", true}}));
  const std::pair<const char*, bool> statuses[] = {{"0", false},       {"1", true}, {"2", true},
                                                   {"inactive", true}, {"", true},  {"00", true}};
  for (const auto& [status, active] : statuses)
    EXPECT_EQ(loaded<CAS_Storage_Pool>(with(cas_pool, "status", status)).is_active_, active)
        << status;

  // Without a title the name stands in, also over a title an earlier entry left behind.
  CAS_Storage_Pool pool = loaded<CAS_Storage_Pool>(cas_pool);
  ASSERT_TRUE(pool.load(with(without(cas_pool, "title"), "name", "other")));
  EXPECT_EQ(pool.dump()["title"], "other");
  EXPECT_EQ(loaded<CAS_Storage_Pool>(with(cas_pool, "title", "")).title_, "defaultpool");
}

TEST(Cas_Storage_Pool, RejectsBadEntries) {
  const std::pair<JSON_Value, const char*> bad[] = {
      {with(cas_pool, "totalSize", "100G"), "Invalid CAS storage pool total size '100G'.\n"},
      {with(cas_pool, "freeSize", "-1"), "Invalid CAS storage pool free size '-1'.\n"},
      {with(cas_pool, "freeSize", "51200.5"), "Invalid CAS storage pool free size '51200.5'.\n"},
      {with(cas_pool, "title", 7),
       "Unrecognized CAS storage pool info: 'title' is expected as "
       "string.\n"},
  };
  for (const auto& [value, message] : bad)
    expect_rejected<CAS_Storage_Pool>(value, message);
  expect_required<CAS_Storage_Pool>(cas_pool,
                                    {"name", "type", "path", "totalSize", "status", "freeSize"},
                                    "Unrecognized CAS storage pool info: ", ".\n");
}

const JSON_Value cas_volume = {{"size", "1.5"}, {"users", "web-1"}, {"name", "vol1"}};

TEST(Cas_Storage_Volume, SizeInFractionalMebibytes) {
  EXPECT_EQ(loaded<CAS_Storage_Volume>(cas_volume).dump(),
            JSON_Value({{"total_bytes", 1572864}, {"name", "vol1"}, {"used_by", "web-1"}}));
  const std::pair<const char*, std::uint64_t> sizes[] = {
      {"0", 0},
      {"1024", 1ull << 30},
      {"0.25", 262144},
      {"8796093022208", 1ull << 63},  // beyond the signed range
      {"17592186044415", 0xFFFFFFFFFFF00000ull},
  };
  for (const auto& [text, bytes] : sizes)
    EXPECT_EQ(loaded<CAS_Storage_Volume>(with(cas_volume, "size", text)).total_bytes_, bytes)
        << text;

  // One line each, naming the volume.
  for (const char* text :
       {"", "abc", "1.5x", "1.5 ", "-1", "nan", "inf", "1e999", "17592186044416"})
    expect_rejected<CAS_Storage_Volume>(
        with(cas_volume, "size", text),
        std::string("Invalid CAS size '") + text + "' of storage volume 'vol1'.\n");
  expect_required<CAS_Storage_Volume>(cas_volume, {"size", "users", "name"},
                                      "Unrecognized CAS storage volume info: ", ".\n");
}

// Networks -------------------------------------------------------------------------------------

const JSON_Value cas_vswitch = {{"id", "1"},
                                {"name", "vswitch0"},
                                {"pnic", "eth0"},
                                {"address", "10.0.0.3"},
                                {"gateway", "10.0.0.1"},
                                {"status", "1"},
                                {"networkType", "9"}};

TEST(Cas_Virtual_Switch, LoadsAndDumps) {
  EXPECT_EQ(loaded<Virtual_Switch>(cas_vswitch).dump(),
            JSON_Value({{"id", "1"},
                        {"name", "vswitch0"},
                        {"physical_nic_name", "eth0"},
                        {"address", "10.0.0.3"},
                        {"gateway", "10.0.0.1"},
                        {"is_active", true},
                        {"network_types", {"management", "backup"}}}));
  Virtual_Switch vs = loaded<Virtual_Switch>(with(without(cas_vswitch, "pnic"), "status", "0"));
  EXPECT_EQ(vs.physical_nic_name_, "");
  EXPECT_FALSE(vs.is_active_);
  EXPECT_EQ(vs.types_, Virtual_Switch::VS_TYPE_MANAGEMENT | Virtual_Switch::VS_TYPE_BACKUP);

  for (const char* text : {"", "x", "-1", "9 ", "4294967296"})
    expect_rejected<Virtual_Switch>(
        with(cas_vswitch, "networkType", text),
        std::string("Invalid network type '") + text + "' of CAS vSwitch.\n");
  expect_required<Virtual_Switch>(cas_vswitch,
                                  {"id", "name", "address", "gateway", "status", "networkType"},
                                  "Unrecognized CAS vSwitch info: ", ".\n");
}

TEST(Cas_Virtual_Switch, NetworkTypeNames) {
  const std::pair<std::uint32_t, JSON_Value> cases[] = {
      {0, JSON_Value::array()},
      {2, {"service"}},
      {4 | 16, {"storage", "migration"}},
      {63, {"management", "service", "storage", "backup", "migration", "other"}},
      {64 | 32, {"other"}},  // bits without a name are left out
  };
  for (const auto& [types, names] : cases)
    EXPECT_EQ(vs_network_types_array(types), names) << types;
}

TEST(Cas_Port_Profile, LoadsAndDumps) {
  const JSON_Value full = {{"id", "5"},       {"name", "pp-web"},   {"description", "web"},
                           {"vlanId", "100"}, {"aclName", "acl-1"}, {"netLimitTitle", "1G"}};
  EXPECT_EQ(loaded<Port_Profile>(full).dump(), JSON_Value({{"id", "5"},
                                                           {"name", "pp-web"},
                                                           {"description", "web"},
                                                           {"vlan_id", "100"},
                                                           {"acl_name", "acl-1"},
                                                           {"net_limit_title", "1G"}}));
  const JSON_Value bare = {{"id", "5"}, {"name", "pp-web"}};
  EXPECT_EQ(loaded<Port_Profile>(bare).dump(), JSON_Value({{"id", "5"},
                                                           {"name", "pp-web"},
                                                           {"description", ""},
                                                           {"vlan_id", ""},
                                                           {"acl_name", ""},
                                                           {"net_limit_title", ""}}));
  expect_required<Port_Profile>(bare, {"id", "name"},
                                "Unrecognized CAS port profile info: ", ".\n");
  expect_rejected<Port_Profile>(
      with(bare, "vlanId", 100),
      "Unrecognized CAS port profile info: 'vlanId' is expected as string.\n");
}

// Blocks, pool kinds and lists -----------------------------------------------------------------

TEST(Cas_Block, OffsetAndLengthInBytes) {
  Block block = loaded<Block>({{"offset", "18446744073709551615"}, {"length", "65536"}});
  EXPECT_EQ(block.offset_, 18446744073709551615ull);
  EXPECT_EQ(block.length_, 65536u);

  const std::pair<const char*, const char*> bad[] = {
      {"-1", "0"}, {"0", "1.0"}, {"", "4096"}, {"4096", "18446744073709551616"}};
  for (const auto& [offset, length] : bad)
    expect_rejected<Block>(
        {{"offset", offset}, {"length", length}},
        std::string("Invalid CAS disk block(offset=") + offset + ", length=" + length + ").\n");
  expect_required<Block>({{"offset", "0"}, {"length", "1"}}, {"offset", "length"},
                         "Invalid CAS disk block: ", ".\n");
}

TEST(Cas_Pool_Types, BlockStorageKinds) {
  for (const char* type : {"iscsi", "fc", "rbd", "logical"})
    EXPECT_TRUE(is_cas_block_storage(type)) << type;
  for (const char* type : {"dir", "nfs", "netfs", "ISCSI", "", "iscsi "})
    EXPECT_FALSE(is_cas_block_storage(type)) << type;
}

TEST(Cas_Lists, ConvertToArrayAppends) {
  const JSON_Value one = {{"id", "1"}};
  const std::pair<JSON_Value, JSON_Value::array_t> cases[] = {
      {nullptr, {}}, {"text", {}},
      {42, {}},      {JSON_Value::array(), {}},
      {one, {one}},  {{one, 2, "three"}, {one, 2, "three"}},
  };
  for (const auto& [value, appended] : cases) {
    JSON_Value::array_t out = {"kept"};
    convert_to_array(value, out);
    JSON_Value::array_t expected = {"kept"};
    expected.insert(expected.end(), appended.begin(), appended.end());
    EXPECT_EQ(out, expected) << value;
  }
}

}  // namespace
}  // namespace h3ccas
