#include "programs/cli/restore.h"
#include "programs/cli/table.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

namespace {
JSON_Value json(const char* text) {
  return JSON_Value::parse(text);
}

const char* const set = R"({"uuid":"s2","host_uuid":"c1","host_id":"1","host_name":"cvk1",
  "vm_id":"7","vm_name":"web","start_time":1700,"resource_uuid":"c1","pool_uuid":"bp",
  "vm_disks":[{"path":"/vms/web.img","pool_name":"fast","mode":"1"},
              {"path":"/dev/vg/web-2","pool_name":"lun","mode":"UNKNOWN"}]})";

TEST(Restore_Command, EntryMapsDisksAndNetworksOntoTheHost) {
  Restore_Inventory inv{json(R"({"id":"2","name":"cvk2","ip":"10.0.0.2"})"),
                        json(R"([{"name":"fast","path":"/f","storage_type":"dir"},
                                 {"name":"lun","path":"/l","storage_type":"iscsi"}])"),
                        json(R"([{"id":"v1","name":"vsw0"},{"id":"v2","name":"vsw1"}])"),
                        json(R"([{"id":"p1","name":"web"},{"id":"p2","name":"Default"}])")};
  const std::tuple<const char*, const char*, const char*> rows[] = {
      // --pool, --network... ("-": --no-network), the entry's disks and networks, or the error
      {"", "",
       R"([["fast","/f","dir","1","web.img"],["lun","/l","iscsi","2","web-2"]])"
       R"([["v1","vsw0","p2","Default"]])"},
      {"fast", "vsw1/web vsw0",
       R"([["fast","/f","dir","1","web.img"],["fast","/f","dir","2","web-2"]])"
       R"([["v2","vsw1","p1","web"],["v1","vsw0","p2","Default"]])"},
      {"", "-", R"([["fast","/f","dir","1","web.img"],["lun","/l","iscsi","2","web-2"]][])"},
      {"slow", "", "no storage pool 'slow' on host 'cvk2'"},
      {"", "vsw9", "no virtual switch 'vsw9' on host 'cvk2'"},
      {"", "vsw0/db", "no port profile 'db' on this CVM"},
  };
  for (const auto& [pool, networks, expected] : rows) {
    Restore_Args args;
    std::istringstream words(networks);
    args.networks.assign(std::istream_iterator<std::string>(words), {});
    if ((args.no_network = args.networks == std::vector<std::string>{"-"}))
      args.networks.clear();
    args.name = "web2", args.pool = pool, args.cpus = 4;
    JSON_Value entry;
    std::string error, got;
    if (restore_entry(json(set), args, &inv, entry, error)) {
      JSON_Value disks = JSON_Value::array(), nics = JSON_Value::array();
      for (const auto& d : entry["disks"])
        disks.push_back({d["target_pool_name"], d["target_pool_path"], d["target_pool_type"],
                         d["provisioning_mode"], d["target_volume_name"]});
      for (const auto& n : entry["networks"])
        nics.push_back({n["virtual_switch_id"], n["virtual_switch_name"], n["network_profile_id"],
                        n["network_profile_name"]});
      got = disks.dump() + nics.dump();
      const JSON_Value target = {entry["target_host_id"], entry["target_host_ip"],
                                 entry["target_host_name"], entry["target_vm_name"],
                                 entry["cpu_count"]};
      EXPECT_EQ(target.dump(), R"(["2","10.0.0.2","cvk2","web2",4])");
    }
    EXPECT_EQ(error.empty() ? got : error, expected);
  }
  // Over the original, or verified: the source only.
  Restore_Args original;
  original.original = true, original.start = true;
  JSON_Value entry;
  std::string error;
  ASSERT_TRUE(restore_entry(json(set), original, &inv, entry, error));
  EXPECT_EQ(entry.dump(), R"({"bak_resource_uuid":"c1","catalog_uuid":"s2","source_host_id":"1",)"
                          R"("source_host_name":"cvk1","source_vm_id":"7","source_vm_name":"web",)"
                          R"("timepoint":")" +
                              time_text(1700) + R"("})");
  const JSON_Value def =
      restore_definition(json(set), {}, true, restore_options(original, json(R"({"x":1})")), "u");
  EXPECT_EQ(def["source"].dump() + def["options"].dump() + def["host_id"].dump(),
            R"({"entries":null,"verify":true})"
            R"({"cvd_sdk_log_level":"info","cvd_sdk_network_timeout":10,"original_restore":true,)"
            R"("overwrite_vm":false,"parallel_vms":1,"reserve_mac":false,"start_vm":true,)"
            R"("write_buffer_size":4194304,"x":1}"c1")");
}

TEST(Restore_Command, BadObjectsTable) {
  std::ostringstream out;  // a VM without bad objects has no row
  const JSON_Value status = json(R"({"vms":[{"uuid":"7","name":"web"},{"uuid":"8","name":"db"}],
    "result":{"h3c-cas":[{"uuid":"7","bad_objects":[{"object":"a/1","error":"truncated"},
    {"object":"a/2","error":"missing"}]},{"uuid":"8"}]}})");
  EXPECT_EQ(print_bad_objects(out, status, {{"7", "s2"}}), 2u);
  EXPECT_EQ(out.str(),
            "SET  VM   OBJECT  ERROR\ns2   web  a/1     truncated\ns2   web  a/2     missing\n");
}
}  // namespace
