// Browsing a CVM's inventory through the agent's "h3ccas.list" and the brimlet CLI, against
// cas-sim: every listing as JSON and as the table a user reads, search and name verification,
// parameter faults, CAS failures and the agent staying responsive.
#include "host/core/paths.h"
#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

const char world[] = R"({
  "version": "H3C CAS E0750",
  "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}],
  "pools": [
    {"name": "defaultpool", "title": "Default pool", "type": "dir", "path": "/vms/images",
     "capacity_mib": 512000, "free_mib": 256000,
     "volumes": [{"name": "ubuntu.iso", "size_mib": 1.5, "users": ""}]},
    {"name": "san01", "type": "iscsi", "path": "/dev/san01", "capacity_mib": 1048576,
     "active": false}],
  "port_profiles": [
    {"id": 1, "name": "Default", "description": "Untagged", "vlan_id": 1},
    {"id": 2, "name": "Storage", "vlan_id": 20, "acl_name": "san-only", "net_limit_title": "10G"}],
  "hosts": [
    {"id": 1, "name": "cvk01", "ip": "192.168.10.11", "status": "1", "cpu_count": 2,
     "cpu_cores": 16, "memory_mib": 262144,
     "vswitches": [{"id": 1, "name": "vswitch0", "pnic": "eth0", "address": "192.168.10.11",
                    "gateway": "192.168.10.1", "types": ["management", "backup"]}],
     "vms": [{"id": 101, "uuid": "4d7f6c3a-0000-4000-8000-000000000101", "name": "web01",
              "title": "Web server", "status": "running", "os": "Ubuntu 22.04", "cpus": 2,
              "memory_mib": 2048},
             {"id": 102, "uuid": "4d7f6c3a-0000-4000-8000-000000000102", "name": "db01",
              "title": "数据库服务器", "status": "shutOff", "cpus": 4, "cpu_sockets": 2,
              "memory_mib": 8192}]},
    {"id": 2, "name": "cvk02", "ip": "192.168.10.12", "status": "0", "cpu_count": 1,
     "cpu_cores": 8, "memory_mib": 65536,
     "vms": [{"id": 201, "uuid": "4d7f6c3a-0000-4000-8000-000000000201", "name": "app01",
              "title": "Application", "status": "paused", "cpus": 1, "memory_mib": 1024}]},
    {"id": 3, "name": "edge", "ip": "10.1.0.3", "status": "2"},
    {"id": 4, "name": "edge", "ip": "10.1.0.4"}]
})";

const std::string web01 = R"({"id": "101", "name": "web01", "title": "Web server",
  "status": "poweron", "host_id": "1", "host_name": "cvk01", "os": "Ubuntu 22.04", "cpu": 2,
  "memory_mbytes": 2048, "uuid": "4d7f6c3a-0000-4000-8000-000000000101"})";
const std::string db01 = R"({"id": "102", "name": "db01", "title": "数据库服务器",
  "status": "poweroff", "host_id": "1", "host_name": "cvk01", "os": "", "cpu": 4,
  "memory_mbytes": 8192, "uuid": "4d7f6c3a-0000-4000-8000-000000000102"})";
const std::string app01 = R"({"id": "201", "name": "app01", "title": "Application",
  "status": "suspended", "host_id": "2", "host_name": "cvk02", "os": "", "cpu": 1,
  "memory_mbytes": 1024, "uuid": "4d7f6c3a-0000-4000-8000-000000000201"})";

// Records (or one record) as the agent answers them: tagged with their subtype, and hosts of a
// listing expandable.
JSON_Value tagged(const std::string& subtype, const std::string& records, bool expandable) {
  JSON_Value out = JSON_Value::parse(records);
  auto tag = [&](JSON_Value& r) {
    r["has_children"] = expandable;
    r["type"] = subtype;
  };
  if (out.is_object())
    tag(out);
  else
    for (auto& r : out)
      tag(r);
  return out;
}

// The names in a list answer, sorted.
std::vector<std::string> names(const JSON_Value& answer) {
  std::vector<std::string> out;
  for (const auto& record : answer.value("result", JSON_Value::array()))
    out.push_back(record.value("name", "?"));
  std::sort(out.begin(), out.end());
  return out;
}

JSON_Value error(int code, const std::string& message) {
  return {{"code", code}, {"message", message}};
}

JSON_Value invalid(const char* key, const char* type = "string") {
  return error(-32602,
               std::string("Invalid params: '") + key + "' is expected as " + type + " in params.");
}

std::vector<std::string> words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> out;
  for (std::string word; in >> word;)
    out.push_back(word);
  return out;
}

class Inventory : public ::testing::Test {
 protected:
  void SetUp() override {
    write_text_file(stack_.dir().file("world.json"), world);
    sim_port_ = stack_.start_sim("sim", stack_.dir().file("world.json"));
    ASSERT_NE(sim_port_, 0);
    ASSERT_TRUE(stack_.start_server_and_agent());
    uuid_ = stack_.add_cvm("lab", sim_port_, "admin", "Adm1n pass");
    ASSERT_FALSE(uuid_.empty());
  }

  // "h3ccas.list" on a registered CVM: the whole JSON-RPC answer.
  JSON_Value list(JSON_Value params, const std::string& uuid = "") {
    params["uuid"] = uuid.empty() ? uuid_ : uuid;
    return stack_.agent_call("h3ccas.list", params);
  }

  // "h3ccas.list" with each exchange's params (on the registered CVM unless they name a uuid):
  // the sorted names of the records answered, or the error's code and message.
  struct Exchange {
    std::string params;
    JSON_Value expected;
  };
  void expect_answers(const std::vector<Exchange>& exchanges) {
    for (const auto& e : exchanges) {
      JSON_Value params = JSON_Value::parse(e.params);
      if (params.is_object() && !params.contains("uuid"))
        params["uuid"] = uuid_;
      JSON_Value answer = stack_.agent_call("h3ccas.list", params);
      JSON_Value got = names(answer);
      if (answer.contains("error"))
        got = error(answer["error"].value("code", 0), answer["error"].value("message", ""));
      EXPECT_EQ(got, e.expected) << e.params << "\n" << answer;
    }
  }

  Test_Stack stack_;
  std::uint16_t sim_port_ = 0;
  std::string uuid_;
};

TEST_F(Inventory, EveryListingAsJsonAndAsATable) {
  struct Case {
    std::string args, subtype, records, table;
  } cases[] = {
      {"ls lab", "HostSystem",
       R"([{"id": "1", "name": "cvk01", "ip": "192.168.10.11", "status": "connected"},
           {"id": "2", "name": "cvk02", "ip": "192.168.10.12", "status": "disconnected"},
           {"id": "3", "name": "edge", "ip": "10.1.0.3", "status": "unresponsive"},
           {"id": "4", "name": "edge", "ip": "10.1.0.4", "status": "connected"}])",
       R"(NAME   ID  IP             STATUS
cvk01  1   192.168.10.11  connected
cvk02  2   192.168.10.12  disconnected
edge   3   10.1.0.3       unresponsive
edge   4   10.1.0.4       connected
)"},
      // One object, not a list, and not expandable.
      {"ls lab host cvk01", "HostSystemDetail",
       R"({"id": "1", "name": "cvk01", "ip": "192.168.10.11", "status": "connected",
           "memory_mbytes": 262144, "cpu_count": 2, "cpu_cores": 16})",
       R"(Name:    cvk01
ID:      1
IP:      192.168.10.11
Status:  connected
CPUs:    2
Cores:   16
Memory:  256.0 GiB
)"},
      // By CVM uuid and host name, or host id; a wide title keeps the columns aligned.
      {"ls UUID vms cvk01", "VirtualMachine", "[" + web01 + "," + db01 + "]",
       R"(NAME   TITLE         STATUS    OS            CPUS  MEMORY
web01  Web server    poweron   Ubuntu 22.04  2     2.0 GiB
db01   数据库服务器  poweroff                4     8.0 GiB
)"},
      {"ls lab vms 2", "VirtualMachine", "[" + app01 + "]",
       R"(NAME   TITLE        STATUS     OS  CPUS  MEMORY
app01  Application  suspended      1     1.0 GiB
)"},
      {"ls lab vms 3", "VirtualMachine", "[]", R"(NAME  TITLE  STATUS  OS  CPUS  MEMORY
)"},
      // Without a title of its own, a pool is titled by its name.
      {"ls lab pools cvk01", "StoragePool",
       R"([{"name": "defaultpool", "title": "Default pool", "storage_type": "dir",
            "path": "/vms/images", "total_size": 536870912000, "free_size": 268435456000,
            "is_active": true},
           {"name": "san01", "title": "san01", "storage_type": "iscsi", "path": "/dev/san01",
            "total_size": 1099511627776, "free_size": 1099511627776, "is_active": false}])",
       R"(NAME         TYPE   TOTAL      FREE       ACTIVE  PATH
defaultpool  dir    500.0 GiB  250.0 GiB  yes     /vms/images
san01        iscsi  1.0 TiB    1.0 TiB    no      /dev/san01
)"},
      {"ls lab volumes cvk01 defaultpool", "StorageVolume",
       R"([{"name": "ubuntu.iso", "total_bytes": 1572864, "used_by": ""}])",
       R"(NAME        SIZE     USED BY
ubuntu.iso  1.5 MiB
)"},
      {"ls lab vswitches cvk01", "VirtualSwitch",
       R"([{"id": "1", "name": "vswitch0", "physical_nic_name": "eth0", "is_active": true,
            "address": "192.168.10.11", "gateway": "192.168.10.1",
            "network_types": ["management", "backup"]}])",
       R"(NAME      NIC   NETWORK TYPES      ADDRESS        GATEWAY       ACTIVE
vswitch0  eth0  management,backup  192.168.10.11  192.168.10.1  yes
)"},
      {"ls lab profiles", "PortProfile",
       R"([{"id": "1", "name": "Default", "description": "Untagged", "vlan_id": "1",
            "acl_name": "", "net_limit_title": ""},
           {"id": "2", "name": "Storage", "description": "", "vlan_id": "20",
            "acl_name": "san-only", "net_limit_title": "10G"}])",
       R"(NAME     VLAN  ACL       NET LIMIT  DESCRIPTION
Default  1                          Untagged
Storage  20    san-only  10G
)"},
      // Found records are the listed ones; found hosts are not expandable.
      {"search lab hosts 192.168.10.12 --ip", "HostSystem",
       R"([{"id": "2", "name": "cvk02", "ip": "192.168.10.12", "status": "disconnected"}])",
       R"(NAME   ID  IP             STATUS
cvk02  2   192.168.10.12  disconnected
)"},
      {"search lab vms APP", "VirtualMachine", "[" + app01 + "]",
       R"(NAME   TITLE        STATUS     OS  CPUS  MEMORY   HOST
app01  Application  suspended      1     1.0 GiB  cvk02
)"},
      {"verify lab WEB01", "VirtualMachine", "[" + web01 + "]",
       R"(NAME   TITLE       STATUS   OS            CPUS  MEMORY   HOST
web01  Web server  poweron  Ubuntu 22.04  2     2.0 GiB  cvk01
)"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = words(c.args);
    std::replace(args.begin(), args.end(), std::string("UUID"), uuid_);
    Run_Result r = stack_.cli(args);
    EXPECT_EQ(r.exit_code, 0) << c.args << ": " << r.err;
    EXPECT_EQ(r.out, c.table) << c.args;
    args.insert(args.begin(), "--json");
    r = stack_.cli(args);
    EXPECT_EQ(JSON_Value::parse(r.out, nullptr, false),
              tagged(c.subtype, c.records, c.args == "ls lab"))
        << c.args << "\n"
        << r.out;
  }
}

TEST_F(Inventory, SearchVerifyAndFaultyParameters) {
  const std::vector<Exchange> exchanges = {
      {R"({"subtype": "search", "type": "HostSystem", "search": "CVK0"})", {"cvk01", "cvk02"}},
      // By address too, or by address only.
      {R"({"subtype": "search", "type": "HostSystem", "search": "10.1.0."})", {"edge", "edge"}},
      {R"({"subtype": "search", "type": "HostSystem", "search": "cvk", "search_type": "ip"})",
       JSON_Value::array()},
      {R"({"subtype": "search", "type": "VirtualMachine", "search": "applic"})", {"app01"}},
      {R"({"subtype": "search", "type": "VirtualMachine", "search": "数据库"})", {"db01"}},
      {R"({"subtype": "search", "type": "VirtualMachine", "search": "nothing like it"})",
       JSON_Value::array()},
      {R"({"subtype": "search", "type": "VirtualMachine", "search": ""})",
       {"app01", "db01", "web01"}},
      // Each existing VM once, whatever the case; names that are not strings are skipped.
      {R"({"subtype": "verify", "vms": ["WEB01", "ghost", 7, null, "app01", "web01", "App01"]})",
       {"app01", "web01"}},
      {R"({"subtype": "verify", "vms": []})", JSON_Value::array()},
      {"[1, 2]", error(-32602, "Invalid params: params type must be object.")},
      {R"({"uuid": 5, "subtype": "HostSystem"})", invalid("uuid")},
      {R"({"subtype": true})", invalid("subtype")},
      {R"({"subtype": "hostsystem"})", error(-32602, "Invalid value of params 'subtype'")},
      {R"({"subtype": "VirtualMachine"})", invalid("host_id")},
      {R"({"subtype": "HostSystemDetail", "host_id": 1})", invalid("host_id")},
      {R"({"subtype": "StorageVolume", "host_id": "1"})", invalid("pool_name")},
      {R"({"subtype": "search", "search": "x"})", invalid("type")},
      {R"({"subtype": "search", "type": "StoragePool", "search": "x"})",
       error(-32602, "Invalid value of params 'type'.")},
      {R"({"subtype": "search", "type": "HostSystem"})", invalid("search")},
      {R"({"subtype": "verify"})", invalid("vms", "array")},
      {R"({"subtype": "verify", "vms": "web01"})", invalid("vms", "array")},
      // An entry the backup server does not hold.
      {R"({"uuid": "00000000-0000-0000-0000-000000000000", "subtype": "HostSystem"})",
       error(-32603, "Failed to get CVM info from server.")},
  };
  expect_answers(exchanges);
}

TEST_F(Inventory, CasFailuresAreInternalErrorsNamingTheOperation) {
  // Every CVM request fails once signed in.
  stack_.sim_control("sim", "POST", "/sim/faults",
                     {{"path", "/cas/casrs/"},
                      {"status", 500},
                      {"error_code", "500"},
                      {"error_message", "内部错误"}});
  auto failed = [](const char* what) { return error(-32603, std::string("Failed to ") + what); };
  expect_answers({
      {R"({"subtype": "HostSystem"})", failed("list CAS hosts.")},
      {R"({"subtype": "HostSystemDetail", "host_id": "1"})", failed("get CAS CVK details.")},
      {R"({"subtype": "VirtualMachine", "host_id": "1"})", failed("list CAS virtual machines.")},
      {R"({"subtype": "StoragePool", "host_id": "1"})", failed("list CAS storage pools.")},
      {R"({"subtype": "StorageVolume", "host_id": "1", "pool_name": "defaultpool"})",
       failed("list CAS storage volumes.")},
      {R"({"subtype": "PortProfile"})", failed("list CAS port profiles.")},
      {R"({"subtype": "VirtualSwitch", "host_id": "1"})", failed("list CAS virtual switches.")},
      {R"({"subtype": "search", "type": "HostSystem", "search": "cvk"})",
       failed("list CAS hosts.")},
      {R"({"subtype": "search", "type": "VirtualMachine", "search": "web"})",
       failed("list CAS VMs.")},
      {R"({"subtype": "verify", "vms": ["web01"]})", failed("list CAS VMs.")},
  });
  // The CLI says the same in one line (naming a host, it asks for the hosts first).
  Run_Result r = stack_.cli({"ls", "lab", "vms", "1"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "brimlet: agent error -32603: Failed to list CAS hosts.\n");
}

TEST_F(Inventory, WrongShapedCasAnswersAreRefusedAndTheAgentKeepsServing) {
  const char* hosts = R"({"subtype": "HostSystem"})";
  struct Case {
    std::string body, params, message;  // body "": not JSON at all
  } cases[] = {
      {R"({"host": "cvk01"})", hosts, "Failed to list CAS hosts."},
      {R"({"host": [{"id": "1", "name": "cvk01"}]})", hosts, "Failed to list CAS hosts."},
      {"[1, 2]", R"({"subtype": "search", "type": "HostSystem", "search": ""})",
       "Failed to list CAS hosts."},
      {"", hosts, "Failed to list CAS hosts."},
      {R"({"domain": {"id": "101", "name": "web01"}})",
       R"({"subtype": "VirtualMachine", "host_id": "1"})", "Failed to list CAS virtual machines."},
      {R"({"id": "1", "name": "cvk01", "ip": "192.168.10.11", "status": "1",
           "memorySize": "16384.5", "cpuCount": "2", "cpuCores": "16"})",
       R"({"subtype": "HostSystemDetail", "host_id": "1"})", "Failed to get CAS CVK details."},
  };
  for (const auto& c : cases) {
    JSON_Value fault = {{"path", "/cas/casrs/"}, {"status", 200}, {"body", c.body}};
    if (c.body.empty())
      fault = {{"path", "/cas/casrs/"}, {"kind", "not_json"}};
    JSON_Value params = JSON_Value::parse(c.params);
    stack_.sim_control("sim", "POST", "/sim/faults", fault);
    JSON_Value answer = list(params);
    EXPECT_EQ(answer["error"]["code"], -32603) << fault << "\n" << answer;
    EXPECT_EQ(answer["error"]["message"], c.message) << fault << "\n" << answer;
    stack_.sim_control("sim", "DELETE", "/sim/faults");
    EXPECT_TRUE(list(params).contains("result")) << c.params;
  }
}

TEST_F(Inventory, UnfilteredVmListRefusedIsAskedHostByHost) {
  stack_.sim_control("sim", "PUT", "/sim/knobs", {{"vm_list_conflict", true}});
  stack_.sim_control("sim", "DELETE", "/sim/requests");
  JSON_Value answer = list({{"subtype", "verify"}, {"vms", {"web01", "APP01", "ghost"}}});
  EXPECT_EQ(names(answer), (std::vector<std::string>{"app01", "web01"})) << answer.dump(2);
  answer = list({{"subtype", "search"}, {"type", "VirtualMachine"}, {"search", "0"}});
  EXPECT_EQ(names(answer), (std::vector<std::string>{"app01", "db01", "web01"})) << answer;

  // The CVM did refuse, so the VMs came from the per-host lists.
  JSON_Value log = stack_.sim_control("sim", "GET", "/sim/requests");
  int refused = 0, per_host = 0;
  for (const auto& r : log.value("requests", JSON_Value::array())) {
    std::string target = r.value("target", "");
    if (target.rfind("/cas/casrs/vm/vmList", 0) != 0)
      continue;
    refused += r.value("status", 0) == 409;
    per_host += r.value("status", 0) == 200 && target.find("hostId=") != std::string::npos;
  }
  EXPECT_EQ(refused, 2) << log.dump(1);
  EXPECT_GE(per_host, 8) << log.dump(1);  // four hosts, twice
}

TEST_F(Inventory, AgentAnswersWhileASlowListingIsInFlight) {
  stack_.sim_control("sim", "PUT", "/sim/knobs", {{"latency_ms", 1500}});
  stack_.sim_control("sim", "DELETE", "/sim/requests");
  std::atomic<int> finished{0};
  int list_order = 0;
  JSON_Value listed;
  std::thread slow([&] {
    listed = list({{"subtype", "HostSystem"}});
    list_order = ++finished;
  });
  // Once the CVM has answered the listing's first request, the listing still needs a signed one.
  for (int i = 0; i < 100000; ++i)
    if (!stack_.sim_control("sim", "GET", "/sim/requests")["requests"].empty())
      break;
  JSON_Value info = stack_.agent_call("agent.info", JSON_Value::object());
  int info_order = ++finished;
  slow.join();
  EXPECT_EQ(info["result"]["host_id"], Stack::agent_host_id()) << info;
  EXPECT_EQ(listed["result"].size(), 4u) << listed;
  EXPECT_EQ(info_order, 1);
  EXPECT_EQ(list_order, 2);
}

TEST_F(Inventory, CliNamesWhatIsMissingOrWrong) {
  struct Case {
    std::string args;
    int exit_code;
    std::string out, err;  // a usage error's line, then a pointer to the command's --help
  } cases[] = {
      // The found VMs are listed, the missing ones named, and the status says so.
      {"verify lab ghost App01 phantom", 1,
       R"(NAME   TITLE        STATUS     OS  CPUS  MEMORY   HOST
app01  Application  suspended      1     1.0 GiB  cvk02
)",
       "VMs not found: 'ghost', 'phantom'"},
      {"--json verify lab ghost", 1, "[]\n", "VMs not found: 'ghost'"},
      {"ls bare", 1, "", "no registered CVM 'bare'"},
      {"ls lab vms cvk09", 1, "", "no host 'cvk09' on this CVM"},
      {"ls lab pools edge", 1, "", "several hosts are named 'edge' (ids 3 4); give the host id"},
      {"ls", 2, "", "CVM is required"},
      {"ls lab datastores", 2, "", "unknown listing 'ls CVM datastores'"},
      {"ls lab volumes cvk01", 2, "", "'ls CVM volumes' needs HOST POOL"},
      {"ls lab vms", 2, "", "'ls CVM vms' needs HOST"},
      {"ls lab profiles extra", 2, "", "unexpected argument 'extra'"},
      {"search lab vms web --ip", 2, "", "--ip applies to host searches only"},
      {"search lab pools x", 2, "", "KIND: pools not in {hosts,vms}"},
      {"verify lab", 2, "", "NAME is required"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = words(c.args);
    Run_Result r = stack_.cli(args);
    EXPECT_EQ(r.exit_code, c.exit_code) << c.args;
    EXPECT_EQ(r.out, c.out) << c.args;
    std::string hint = "Run 'brimlet " + args.at(0) + " --help' for usage.\n";
    EXPECT_EQ(r.err, "brimlet: " + c.err + "\n" + (c.exit_code == 2 ? hint : "")) << c.args;
  }
}

}  // namespace
