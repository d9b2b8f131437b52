#include "tests/unit/h3ccas/support.h"

namespace h3ccas {
namespace {
// One entry of CVM's: `patch` is merged into the table's entry (a JSON merge patch: null drops a
// key, a non-object replaces the entry). A load that succeeds must dump the table's dump merged
// with `dumped`; one that fails has a null `dumped`. `log` is the one line logged (an error when
// the load fails, a warning otherwise) or nothing.
struct Row {
  S patch;
  const char* dumped;
  S log = "";
};

template <class Record>
void check_rows(const char* entry, const char* dump, std::vector<Row> rows,
                std::function<JSON_Value(const Record&)> view = &Record::dump) {
  rows.insert(rows.begin(), Row{"{}", "{}"});  // the entry as it is
  for (const Row& row : rows) {
    SCOPED_TRACE(row.patch);
    JSON_Value value = json(entry);
    value.merge_patch(json(row.patch.c_str()));
    Log_Capture log;
    Record record;
    const bool ok = record.load(value);
    EXPECT_EQ(ok, row.dumped != nullptr) << log.text();
    if (ok && row.dumped) {
      JSON_Value expected = json(dump);
      expected.merge_patch(json(row.dumped));
      EXPECT_EQ(view(record), expected);
    }
    EXPECT_EQ(messages(log), row.log.empty() ? "" : row.log + "\n");
    EXPECT_EQ(log.count(ok ? LM_WARNING : LM_ERROR), row.log.empty() ? 0u : 1u);
    EXPECT_TRUE(row.log.empty() || log.contains(" h3ccas/common.cc:")) << log.text();
  }
}

TEST(Cas_Records, Hosts) {
  const char host[] = R"({"id":"3","ip":"10.0.0.3","name":"cvk-3","status":"1"})";
  check_rows<CVK_Host>(host, R"({"id":"3","ip":"10.0.0.3","name":"cvk-3","status":"connected"})",
                       {{R"({"status":"0"})", R"({"status":"disconnected"})"},
                        {R"({"status":"2"})", R"({"status":"unresponsive"})"},
                        {R"({"status":"01"})", R"({"status":"unresponsive"})"},
                        {R"({"ip":null})", nullptr, "Invalid CVK host entry: missing key 'ip'"},
                        {"[]", nullptr, "Invalid CVK host entry: expected an object, got array"}});
  const char detail[] = R"({"id":"3","ip":"10.0.0.3","name":"cvk-3","status":"1",
      "memorySize":"16384","cpuCount":"2","cpuCores":"16"})";
  const S d = "Invalid CAS CVK ";
  check_rows<CVK_Host_Detail>(
      detail,
      R"({"id":"3","ip":"10.0.0.3","name":"cvk-3","status":"connected","memory_mbytes":16384,
          "cpu_count":2,"cpu_cores":16})",
      {{R"({"memorySize":"16384.5"})", nullptr, d + "memory size '16384.5'."},
       {R"({"cpuCount":"two"})", nullptr, d + "CPU count 'two'."},
       {R"({"cpuCores":"-1"})", nullptr, d + "CPU cores '-1'."},
       // Count is checked before cores, cores before memory.
       {R"({"cpuCores":"x","cpuCount":""})", nullptr, d + "CPU count ''."},
       {R"({"cpuCores":"x","memorySize":"y"})", nullptr, d + "CPU cores 'x'."},
       // The host's own keys fail under the detail's message, without the reason.
       {R"({"ip":null})", nullptr, d + "detailed info."},
       {R"({"cpuCores":null})", nullptr, d + "detailed info: missing key 'cpuCores'."},
       {R"({"memorySize":16384})", nullptr,
        d + "detailed info: 'memorySize' is expected as string."}});
}

TEST(Cas_Records, VMs) {
  const char vm[] = R"({"id":"12","name":"web-1","title":"Web 1","vmStatus":"running",
      "hostId":"3","hostName":"cvk-3","osDesc":"Linux","cpu":"4","memory":"8192","uuid":"7f1c"})";
  check_rows<VM_Info>(
      vm,
      R"({"id":"12","name":"web-1","title":"Web 1","status":"poweron","host_id":"3",
          "host_name":"cvk-3","os":"Linux","cpu":4,"memory_mbytes":8192,"uuid":"7f1c"})",
      {{R"({"vmStatus":"shutOff"})", R"({"status":"poweroff"})"},
       {R"({"vmStatus":"paused"})", R"({"status":"suspended"})"},
       {R"({"vmStatus":"shutoff"})", R"({"status":"unknown"})"},
       {R"({"osDesc":null})", R"({"os":""})"},
       // Odd numbers are tolerated with a plausible default.
       {R"({"memory":"8G"})", R"({"memory_mbytes":1024})",
        "Invalid memory size '8G' of VM 'web-1'."},
       {R"({"cpu":"-1"})", R"({"cpu":1})", "Invalid processors count '-1' of VM 'web-1'."},
       {R"({"uuid":null})", nullptr, "Invalid CAS VM info entry: missing key 'uuid'"}});
  // The configuration is kept as CAS sends it, its one-member lists made arrays.
  const char detail[] = R"({"status":"running","basic":{"name":"web-1"},
      "cpu":{"cpuSockets":"2","cpuCores":"4"},"memory":{"size":"8192"}})";
  auto with_status = [](const VM_Detail& vm) {
    JSON_Value out = vm.dump();
    out["status"] = vm.status_;
    return out;
  };
  const S d = "Invalid CAS VM detail: ";
  const std::vector<Row> rows = {
      {R"({"network":{"mac":"m"},"storage":[{"path":"a"},{"path":"b"}]})",
       R"({"network":[{"mac":"m"}],"storage":[{"path":"a"},{"path":"b"}]})"},
      {R"({"network":"","status":null})", R"({"status":""})"},
      {R"({"basic":null})", nullptr, d + "missing key 'basic'."},
      {R"({"cpu":[]})", nullptr, d + "'cpu' is expected as object."}};
  check_rows<VM_Detail>(detail, R"({"basic":{"name":"web-1"},"cpu":{"cpuSockets":"2",
      "cpuCores":"4"},"memory":{"size":"8192"},"network":[],"storage":[],"status":"running"})",
                        rows, with_status);
  // part, its replacement, the priority and text of the line logged
  const S f = "Failed to get CPU or memory config of CAS VM: ";
  const std::tuple<const char*, const char*, ACE_Log_Priority, S> bad[] = {
      {"cpu", R"({"cpuSockets":"two","cpuCores":"4"})", LM_ERROR,
       "Invalid CAS VM CPU config 'two' or '4'.\n"},
      {"memory", R"({"size":"-1"})", LM_ERROR, "Invalid CAS VM memory config '-1'.\n"},
      {"cpu", R"({"cpuSockets":"2"})", LM_WARNING, f + "missing key 'cpuCores'.\n"},
  };
  int sockets = -1, cores = -1;
  unsigned memory = 0;
  VM_Detail config;
  ASSERT_TRUE(config.load(json(detail)) && config.dump_cpu_mem(sockets, cores, memory));
  EXPECT_EQ(std::to_string(sockets) + " " + std::to_string(cores) + " " + std::to_string(memory),
            "2 4 8192");
  for (const auto& [part, value, priority, message] : bad) {
    JSON_Value entry = json(detail);
    entry[part] = json(value);
    ASSERT_TRUE(config.load(entry));
    Log_Capture log;
    EXPECT_FALSE(config.dump_cpu_mem(sockets, cores, memory)) << value;
    EXPECT_EQ(std::tuple(messages(log), log.count(priority)), std::tuple(message, 1u));
  }
}

// name, "*" when internal, and the children in brackets.
S tree(const Snapshot_Info& node) {
  S out = node.name + (node.is_internal ? "*" : "");
  for (std::size_t i = 0; i < node.children.size(); ++i)
    out += (i ? "," : "(") + tree(node.children[i]) + (i + 1 == node.children.size() ? ")" : "");
  return out;
}

TEST(Cas_Records, SnapshotTree) {
  // One child comes as a bare object; "snapshots" may be null, or hold neither list nor object.
  const JSON_Value good = json(R"({"name":"root","snapshotMode":"0","snapshots":{"snapshot":[
      {"name":"a","snapshotMode":"0","snapshots":{"snapshot":{"name":"a1","snapshotMode":"2"}}},
      {"name":"b","snapshotMode":"1","snapshots":null},
      {"name":"c","snapshotMode":"0","snapshots":{"snapshot":"text"}}]}})");
  Snapshot_Info root;
  EXPECT_EQ(&(good >> root), &good);
  EXPECT_EQ(tree(root), "root(a(a1),b*,c)");
  for (const char* bad : {R"({"snapshotMode":"0"})", R"({"name":"r","snapshotMode":1})",
                          R"({"name":"r","snapshotMode":"0","snapshots":{}})",
                          R"({"name":"r","snapshotMode":"0","snapshots":"x"})",
                          R"({"name":"r","snapshotMode":"0","snapshots":{"snapshot":[
                               {"name":"a","snapshotMode":"0"},{"name":"b"}]}})"}) {
    Snapshot_Info info;
    EXPECT_THROW(json(bad) >> info, JSON_Error) << bad;
  }
}

const char cas_disk[] = R"({"device":"disk","deviceName":"vda","fileType":"file",
    "path":"/vms/web-1.qcow2","format":"qcow2","targetBus":"virtio","size":"10240",
    "allocation":"3","cacheType":"directsync","mode":"2","clusterSize":"65536",
    "backingFile":"/vms/base.qcow2","isShareStorage":"1"})";
const char dumped_disk[] = R"({"device":"disk","device_name":"vda","file_type":"file",
    "path":"/vms/web-1.qcow2","format":"qcow2","target_bus":"virtio","size":10737418240,
    "allocation":3145728,"cache_type":"directsync","mode":"2","cluster_size":65536,
    "backing_file":"/vms/base.qcow2","is_shared":true,"pool_name":"","pool_path":"",
    "pool_type":""})";

TEST(Cas_Records, DisksFromCasAndInTheCatalog) {
  const S d = "Invalid CAS VM disk ", u = "Unknown CAS VM disk ";
  check_rows<VM_Disk>(
      cas_disk, dumped_disk,
      {{R"({"mode":"0"})", R"({"mode":"0"})"},
       {R"({"mode":"1"})", R"({"mode":"1"})"},
       // Block devices need no mode.
       {R"({"fileType":"block","format":"raw","mode":null})",
        R"({"file_type":"block","format":"raw","mode":"UNKNOWN"})"},
       {R"({"fileType":"block","mode":"9"})", R"({"file_type":"block","mode":"UNKNOWN"})"},
       {R"({"clusterSize":null,"backingFile":null,"isShareStorage":null})",
        R"({"cluster_size":0,"backing_file":"","is_shared":false})"},
       {R"({"isShareStorage":"true"})", R"({"is_shared":false})"},
       {R"({"size":"4194304"})", R"({"size":4398046511104})"},  // all bits through the shift
       {R"({"mode":null})", nullptr, u + "provision mode 'null'."},
       {R"({"mode":"3"})", nullptr, u + "provision mode '3'."},
       {R"({"format":"RAW"})", nullptr, u + "format 'RAW'."},
       {R"({"fileType":"block","format":"vmdk"})", nullptr, u + "format 'vmdk'."},
       {R"({"size":"1.5"})", nullptr, d + "size '1.5'."},
       {R"({"allocation":"-3"})", nullptr, d + "allocated size '-3'."},
       {R"({"clusterSize":"64k"})", nullptr, d + "cluster size '64k'."},
       // Each check in its turn: size, allocation, cluster size, mode, format.
       {R"({"allocation":"x","size":"y"})", nullptr, d + "size 'y'."},
       {R"({"clusterSize":"x","allocation":"y"})", nullptr, d + "allocated size 'y'."},
       {R"({"mode":"7","clusterSize":"z"})", nullptr, d + "cluster size 'z'."},
       {R"({"format":"vmdk","mode":"7"})", nullptr, u + "provision mode '7'."},
       {R"({"mode":2})", nullptr, "Invalid CAS VM storage info: 'mode' is expected as string."},
       {R"({"cacheType":null})", nullptr,
        "Invalid CAS VM storage info: missing key 'cacheType'."}});
  // Every mode, and sizes beyond the signed range, through text as the catalog keeps them.
  for (const char* mode : {"UNKNOWN", "0", "1", "2"}) {
    JSON_Value dumped = json(dumped_disk);
    dumped.merge_patch({{"mode", mode}, {"size", 0x8000000000000001ull}});
    Log_Capture log;
    VM_Disk disk;
    ASSERT_TRUE(disk.load_from_catalog(json(dumped.dump().c_str())));
    EXPECT_EQ(std::tuple(disk.dump(), log.text()), std::tuple(dumped, ""));
  }
  const S c = "Invalid CAS VM disk info in catalog: ";
  const std::pair<const char*, S> cases[] = {
      {R"({"mode":"7"})", ""},  // an unknown mode is no error here
      {R"({"size":"1024"})", c + "'size' is expected as integer.\n"},
      {R"({"size":-1})", c + "'size' is expected as integer in range.\n"},
      {R"({"cluster_size":4294967296})", c + "'cluster_size' is expected as integer in range.\n"},
      {R"({"mode":2})", c + "'mode' is expected as string.\n"},
      {R"({"pool_type":null})", c + "missing key 'pool_type'.\n"},
  };
  for (const auto& [patch, message] : cases) {
    JSON_Value value = json(dumped_disk);
    value.merge_patch(json(patch));
    Log_Capture log;
    VM_Disk disk;
    EXPECT_EQ(disk.load_from_catalog(value), message.empty()) << patch;
    EXPECT_EQ(messages(log), message);
    EXPECT_TRUE(!message.empty() || disk.provisioning_mode_ == UNKNOWN);
  }
}

TEST(Cas_Records, StoragePoolsAndVolumes) {
  const char pool[] = R"({"name":"defaultpool","title":"Default","type":"dir","path":"/vms/images",
      "totalSize":"102400","status":"1","freeSize":"51200"})";
  const S u = "Unrecognized CAS storage pool info: ";
  check_rows<CAS_Storage_Pool>(
      pool,
      R"({"name":"defaultpool","title":"Default","storage_type":"dir","path":"/vms/images",
          "total_size":107374182400,"free_size":53687091200,"is_active":true})",
      {{R"({"status":"0"})", R"({"is_active":false})"},
       {R"({"status":"00"})", "{}"},
       {R"({"title":""})", R"({"title":"defaultpool"})"},
       {R"({"totalSize":"100G"})", nullptr, "Invalid CAS storage pool total size '100G'."},
       {R"({"freeSize":"5.5"})", nullptr, "Invalid CAS storage pool free size '5.5'."},
       {R"({"freeSize":null})", nullptr, u + "missing key 'freeSize'."}});
  // Without a title the name stands in, also over a title an earlier entry left behind.
  CAS_Storage_Pool reused;
  ASSERT_TRUE(reused.load(json(pool)));
  ASSERT_TRUE(reused.load(json(R"({"name":"other","type":"dir","path":"/p","totalSize":"1",
                                   "status":"1","freeSize":"1"})")));
  EXPECT_EQ(reused.title_, "other");
  const S v = "Invalid CAS size '";
  std::vector<Row> volumes = {
      {R"({"size":"0"})", R"({"total_bytes":0})"},
      {R"({"size":"0.25"})", R"({"total_bytes":262144})"},
      {R"({"size":"8796093022208"})", R"({"total_bytes":9223372036854775808})"},
      {R"({"size":"17592186044415"})", R"({"total_bytes":18446744073708503040})"},
      {R"({"name":null})", nullptr, "Unrecognized CAS storage volume info: missing key 'name'."}};
  for (const char* text : {"", "1.5x", "1.5 ", "-1", "nan", "inf", "17592186044416"})
    volumes.push_back(
        {JSON_Value({{"size", text}}).dump(), nullptr, v + text + "' of storage volume 'vol1'."});
  check_rows<CAS_Storage_Volume>(R"({"size":"1.5","users":"web-1","name":"vol1"})",
                                 R"({"total_bytes":1572864,"name":"vol1","used_by":"web-1"})",
                                 volumes);
}

TEST(Cas_Records, Networks) {
  const char vswitch[] = R"({"id":"1","name":"vswitch0","pnic":"eth0","address":"10.0.0.3",
      "gateway":"10.0.0.1","status":"1","networkType":"9"})";
  const S n = "Invalid network type '";
  check_rows<Virtual_Switch>(
      vswitch,
      R"({"id":"1","name":"vswitch0","physical_nic_name":"eth0","address":"10.0.0.3",
          "gateway":"10.0.0.1","is_active":true,"network_types":["management","backup"]})",
      {{R"({"pnic":null,"status":"0","networkType":"0"})",
        R"({"physical_nic_name":"","is_active":false,"network_types":[]})"},
       {R"({"networkType":"63"})", R"({"network_types":["management","service","storage",
                                     "backup","migration","other"]})"},
       {R"({"networkType":"96","status":"2"})",
        R"({"network_types":["other"]})"},  // unnamed bits left out
       {R"({"networkType":"x"})", nullptr, n + "x' of CAS vSwitch."},
       {R"({"networkType":"4294967296"})", nullptr, n + "4294967296' of CAS vSwitch."},
       {R"({"gateway":null})", nullptr, "Unrecognized CAS vSwitch info: missing key 'gateway'."}});
  const S p = "Unrecognized CAS port profile info: ";
  check_rows<Port_Profile>(
      R"({"id":"5","name":"pp-web","description":"web","vlanId":"100","aclName":"acl-1",
          "netLimitTitle":"1G"})",
      R"({"id":"5","name":"pp-web","description":"web","vlan_id":"100","acl_name":"acl-1",
          "net_limit_title":"1G"})",
      {{R"({"description":null,"vlanId":null,"aclName":null,"netLimitTitle":null})",
        R"({"description":"","vlan_id":"","acl_name":"","net_limit_title":""})"},
       {R"({"name":null})", nullptr, p + "missing key 'name'."}});
}

TEST(Cas_Records, BlocksPoolKindsAndLists) {
  auto extent = [](const Block& b) { return JSON_Value({{"at", b.offset_}, {"n", b.length_}}); };
  const S b = "Invalid CAS disk block";
  check_rows<Block>(R"({"offset":"18446744073709551615","length":"65536"})",
                    R"({"at":18446744073709551615,"n":65536})",
                    {{R"({"offset":"-1","length":"0"})", nullptr, b + "(offset=-1, length=0)."},
                     {R"({"offset":"0","length":"1.0"})", nullptr, b + "(offset=0, length=1.0)."},
                     {R"({"length":null})", nullptr, b + ": missing key 'length'."}},
                    extent);
  for (const char* type : {"iscsi", "fc", "rbd", "logical"})
    EXPECT_TRUE(is_cas_block_storage(type)) << type;
  for (const char* type : {"dir", "nfs", "ISCSI", "iscsi "})
    EXPECT_FALSE(is_cas_block_storage(type)) << type;
  // value, then what it appends to ["kept"]
  for (const char* row : {"null []", "42 []", "[] []", R"({"id":"1"} [{"id":"1"}])",
                          R"([{"id":"1"},2,"three"] [{"id":"1"},2,"three"])"}) {
    const S text = row, value = text.substr(0, text.find(' '));
    JSON_Value::array_t out = {"kept"};
    convert_to_array(json(value), out);
    JSON_Value expected = json(text.substr(value.size() + 1));
    expected.insert(expected.begin(), "kept");
    EXPECT_EQ(JSON_Value(out), expected) << value;
  }
}
}  // namespace
}  // namespace h3ccas
