// A CVM with two hosts and two directory pools, a running VM web01 on two qcow2 disks of cvk01,
// brimlet-server, the agent and a file pool "nas": what the restore tests back up and restore.
#pragma once

#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

class Restore_World : public ::testing::Test {
 protected:
  static constexpr const char* disks[] = {"/vms/images/web01-vda", "/vms/images/web01-vdb"};

  void SetUp() override {
    write_text_file(stack_.dir().file("world.json"), R"({"knobs": {"task_duration_ms": 0},
  "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}],
  "pools": [{"name": "defaultpool", "type": "dir", "path": "/vms/images", "capacity_mib": 512000},
    {"name": "fastpool", "type": "dir", "path": "/vms/fast", "capacity_mib": 512000}],
  "port_profiles": [{"id": 1, "name": "Default", "vlan_id": 1}],
  "hosts": [{"id": 1, "name": "cvk01", "ip": "192.168.10.11", "vswitches": [{"id": 1, "name":
    "vswitch0", "pnic": "eth0", "address": "192.168.10.11", "types": ["management"]}], "vms": [
    {"id": 101, "uuid": "4d7f6c3a-0000-4000-8000-000000000101", "name": "web01", "status":
     "running", "networks": [{"mac": "0c:da:41:1d:00:01",
     "vswitch": "vswitch0", "profile": "Default"}], "disks": [
     {"device_name": "vda", "size_mib": 8, "pool": "defaultpool", "path": "/vms/images/web01-vda",
      "content": {"pattern": "random", "allocated_percent": 60, "seed": 1}},
     {"device_name": "vdb", "size_mib": 4, "pool": "defaultpool", "path": "/vms/images/web01-vdb",
      "content": {"pattern": "zeros_and_random", "allocated_percent": 50, "seed": 2}}]}]},
   {"id": 2, "name": "cvk02", "ip": "192.168.10.12", "vswitches": [{"id": 2, "name": "vswitch0",
    "pnic": "eth0", "address": "192.168.10.12", "types": ["management"]}]}]})");
    std::uint16_t port = stack_.start_sim("sim", stack_.dir().file("world.json"));
    ASSERT_NE(port, 0);
    ASSERT_TRUE(stack_.start_server_and_agent(
        {"CVD_SIM_ADDRESS_MAP=*=127.0.0.1:" + std::to_string(stack_.cvd_port("sim"))}));
    ASSERT_FALSE(stack_.add_cvm("lab", port, "admin", "Adm1n pass").empty());
    ASSERT_EQ(stack_.cli({"pool", "add", "--name", "nas", "--url", "file://" + pool_}).exit_code,
              0);
  }

  void backup(bool full) const {
    std::vector<std::string> args = {"backup", "lab", "--pool", "nas", "--interval", "0.1"};
    if (full)
      args.push_back("--full");
    args.push_back("web01");
    Run_Result r = stack_.cli(args);
    EXPECT_EQ(r.exit_code, 0) << r.err << r.out;
  }

  struct Guest_Write {
    int disk;
    std::uint64_t offset, length;
  };
  void guest_writes(const std::vector<Guest_Write>& writes) const {
    for (const Guest_Write& w : writes)
      EXPECT_TRUE(stack_
                      .sim_control("sim", "POST", "/sim/disks/write",
                                   {{"disk", disks[w.disk]},
                                    {"offset", w.offset},
                                    {"length", w.length},
                                    {"seed", w.offset + 7}})
                      .is_object());
  }

  // {"host": its host's name, "vm": the VM as the simulator shows it}, or null.
  JSON_Value find_vm(const std::string& name) const {
    const JSON_Value world = stack_.sim_control("sim", "GET", "/sim/world");
    for (const JSON_Value& host : world["hosts"])
      for (const JSON_Value& vm : host["vms"])
        if (vm["name"] == name)
          return {{"host", host["name"]}, {"vm", vm}};
    return nullptr;
  }

  // The SHA-256 of each disk of a VM, by device name.
  using Disk_Digests = std::vector<std::string>;
  Disk_Digests digests(const std::string& vm) const {
    Disk_Digests out;
    const JSON_Value found = find_vm(vm);
    if (found.is_null())
      return {"no VM " + vm};
    std::map<std::string, std::string> by_device;
    for (const JSON_Value& disk : found["vm"]["disks"])
      by_device[disk["device_name"]] =
          stack_
              .sim_control("sim", "GET",
                           "/sim/disks/digest?disk=" + disk["path"].get<std::string>())
              .value("sha256", "no digest of " + disk.dump());
    for (auto& [device, digest] : by_device)
      out.push_back(device + " " + digest);
    return out;
  }

  // The VM's backup sets, newest first.
  std::vector<std::string> set_uuids(const std::string& vm) const {
    Run_Result r = stack_.cli({"--json", "sets", "list", "--vm", vm});
    JSON_Value sets = JSON_Value::parse(r.out, nullptr, false);
    std::vector<std::string> out;
    if (sets.is_array())
      for (const JSON_Value& set : sets)
        out.push_back(set["uuid"]);
    return out;
  }

  // Each VM by host with its disks, and each volume by pool: what a failed restore must leave as
  // it was.
  std::string inventory() const {
    const JSON_Value world = stack_.sim_control("sim", "GET", "/sim/world");
    std::string out;
    for (const JSON_Value& host : world["hosts"])
      for (const JSON_Value& vm : host["vms"])
        out += host["name"].get<std::string>() + ": " + vm["name"].get<std::string>() + " " +
               vm["disks"].dump() + "\n";
    for (const JSON_Value& pool : world["pools"])
      for (const JSON_Value& volume : pool["volumes"])
        out += pool["name"].get<std::string>() + "/" + volume["name"].get<std::string>() + "\n";
    return out;
  }
  // Volumes in pools and disks of VMs.
  std::size_t disk_count() const {
    const JSON_Value world = stack_.sim_control("sim", "GET", "/sim/world");
    std::size_t n = 0;
    for (const JSON_Value& pool : world["pools"])
      n += pool["volumes"].size();
    for (const JSON_Value& host : world["hosts"])
      for (const JSON_Value& vm : host["vms"])
        n += vm["disks"].size();
    return n;
  }

  Test_Stack stack_;
  std::string pool_ = stack_.dir().path() + "/pool";
};
