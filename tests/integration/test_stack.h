// The stack of one integration test: each failure of the stack fails the test.
#pragma once

#include "tests/integration/stack.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

class Test_Stack : public Stack {
 public:
  Test_Stack() : Stack([](const std::string& what) { ADD_FAILURE() << what; }) {}
};

// A CVM with two hosts of VMs, pools, switches and port profiles, and an administrator.
inline const char lab_world[] = R"({"version": "H3C CAS E0750",
  "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}],
  "pools": [{"name": "defaultpool", "title": "Default pool", "type": "dir", "path": "/vms/images",
    "capacity_mib": 512000, "free_mib": 256000, "volumes": [{"name": "ubuntu.iso", "size_mib": 1.5,
    "users": ""}]}, {"name": "san01", "type": "iscsi", "path": "/dev/san01", "capacity_mib":
    1048576, "active": false}],
  "port_profiles": [{"id": 1, "name": "Default", "description": "Untagged", "vlan_id": 1},
    {"id": 2, "name": "Storage", "vlan_id": 20, "acl_name": "san-only", "net_limit_title": "10G"}],
  "hosts": [{"id": 1, "name": "cvk01", "ip": "192.168.10.11", "status": "1", "cpu_count": 2,
    "cpu_cores": 16, "memory_mib": 262144, "vswitches": [{"id": 1, "name": "vswitch0", "pnic":
    "eth0", "address": "192.168.10.11", "gateway": "192.168.10.1", "types": ["management",
    "backup"]}],
    "vms": [{"id": 101, "uuid": "4d7f6c3a-0000-4000-8000-000000000101", "name": "web01", "title":
      "Web server", "status": "running", "os": "Ubuntu 22.04", "cpus": 2, "memory_mib": 2048},
    {"id": 102, "uuid": "4d7f6c3a-0000-4000-8000-000000000102", "name": "db01",
      "title": "数据库服务器", "status": "shutOff", "cpus": 4, "cpu_sockets": 2, "memory_mib": 8192}]},
   {"id": 2, "name": "cvk02", "ip": "192.168.10.12", "status": "0", "cpu_count": 1, "cpu_cores": 8,
    "memory_mib": 65536, "vms": [{"id": 201, "uuid": "4d7f6c3a-0000-4000-8000-000000000201", "name":
    "app01", "title": "Application", "status": "paused", "cpus": 1, "memory_mib": 1024}]},
   {"id": 3, "name": "edge", "ip": "10.1.0.3", "status": "2"},
   {"id": 4, "name": "edge", "ip": "10.1.0.4"}]})";

// The whole stack on lab_world, with its CVM registered as "lab".
class Lab_Test : public ::testing::Test {
 protected:
  void SetUp() override {
    write_text_file(stack_.dir().file("world.json"), lab_world);
    sim_port_ = stack_.start_sim("sim", stack_.dir().file("world.json"));
    ASSERT_NE(sim_port_, 0);
    ASSERT_TRUE(stack_.start_server_and_agent());
    uuid_ = stack_.add_cvm("lab", sim_port_, "admin", "Adm1n pass");
    ASSERT_FALSE(uuid_.empty());
  }
  Test_Stack stack_;
  std::uint16_t sim_port_ = 0;
  std::string uuid_;
};

// A command line split at blanks.
inline std::vector<std::string> words(const std::string& line) {
  std::istringstream in(line);
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}
