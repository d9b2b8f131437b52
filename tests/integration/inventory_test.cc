// Browsing a CVM's inventory through the agent's "h3ccas.list" and the brimlet CLI, against
// cas-sim: every listing, search and name verification, parameter faults, CAS failures and the
// agent staying responsive.
#include "host/core/paths.h"
#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <clocale>
#include <cstdint>
#include <cwchar>
#include <set>
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
     "active": false}
  ],
  "port_profiles": [
    {"id": 1, "name": "Default", "description": "Untagged", "vlan_id": 1},
    {"id": 2, "name": "Storage", "vlan_id": 20, "acl_name": "san-only", "net_limit_title": "10G"}
  ],
  "hosts": [
    {"id": 1, "name": "cvk01", "ip": "192.168.10.11", "status": "1", "cpu_count": 2,
     "cpu_cores": 16, "memory_mib": 262144,
     "vswitches": [{"id": 1, "name": "vswitch0", "pnic": "eth0", "address": "192.168.10.11",
                    "gateway": "192.168.10.1", "types": ["management", "backup"]}],
     "vms": [
       {"id": 101, "uuid": "4d7f6c3a-0000-4000-8000-000000000101", "name": "web01",
        "title": "Web server", "status": "running", "os": "Ubuntu 22.04", "cpus": 2,
        "memory_mib": 2048},
       {"id": 102, "uuid": "4d7f6c3a-0000-4000-8000-000000000102", "name": "db01",
        "title": "数据库服务器", "status": "shutOff", "cpus": 4, "cpu_sockets": 2,
        "memory_mib": 8192}
     ]},
    {"id": 2, "name": "cvk02", "ip": "192.168.10.12", "status": "0", "cpu_count": 1,
     "cpu_cores": 8, "memory_mib": 65536,
     "vms": [
       {"id": 201, "uuid": "4d7f6c3a-0000-4000-8000-000000000201", "name": "app01",
        "title": "Application", "status": "paused", "cpus": 1, "memory_mib": 1024}
     ]},
    {"id": 3, "name": "edge", "ip": "10.1.0.3", "status": "2"},
    {"id": 4, "name": "edge", "ip": "10.1.0.4"}
  ]
})";

const char bare_world[] = R"({
  "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}]
})";

// A record as the agent answers it in a list of `subtype`.
JSON_Value tagged(JSON_Value record, const std::string& subtype) {
  record["has_children"] = subtype == "HostSystem";
  record["type"] = subtype;
  return record;
}

JSON_Value host(const char* id, const char* name, const char* ip, const char* status) {
  return tagged({{"id", id}, {"name", name}, {"ip", ip}, {"status", status}}, "HostSystem");
}

JSON_Value vm(const char* id, const char* name, const char* title, const char* status,
              const char* host_id, const char* host_name, const char* os, int cpu, int memory,
              const char* uuid) {
  return tagged({{"id", id},
                 {"name", name},
                 {"title", title},
                 {"status", status},
                 {"host_id", host_id},
                 {"host_name", host_name},
                 {"os", os},
                 {"cpu", cpu},
                 {"memory_mbytes", memory},
                 {"uuid", uuid}},
                "VirtualMachine");
}

const JSON_Value web01 = vm("101", "web01", "Web server", "poweron", "1", "cvk01", "Ubuntu 22.04",
                            2, 2048, "4d7f6c3a-0000-4000-8000-000000000101");
const JSON_Value db01 = vm("102", "db01", "数据库服务器", "poweroff", "1", "cvk01", "", 4, 8192,
                           "4d7f6c3a-0000-4000-8000-000000000102");
const JSON_Value app01 = vm("201", "app01", "Application", "suspended", "2", "cvk02", "", 1, 1024,
                            "4d7f6c3a-0000-4000-8000-000000000201");

// The names in a list answer, in order.
std::vector<std::string> names(const JSON_Value& answer) {
  std::vector<std::string> out;
  for (const auto& record : answer.value("result", JSON_Value::array()))
    out.push_back(record.value("name", "?"));
  return out;
}

using Row = std::vector<std::string>;

// A table the CLI printed, cut into cells at the terminal columns where the first line's cells
// start, so that a misaligned row reads wrong. The first line (the header) is the first row.
std::vector<Row> read_table(const std::string& out) {
  std::vector<std::string> lines;
  for (std::size_t at = 0, end; at < out.size(); at = end + 1) {
    end = out.find('\n', at);
    if (end == std::string::npos)
      end = out.size();
    lines.push_back(out.substr(at, end - at));
  }
  if (lines.empty())
    return {};
  std::vector<std::size_t> starts = {0};  // the first line is ASCII: bytes are columns
  for (std::size_t i = 2; i < lines[0].size(); ++i)
    if (lines[0][i] != ' ' && lines[0][i - 1] == ' ' && lines[0][i - 2] == ' ')
      starts.push_back(i);
  std::vector<Row> rows;
  for (const auto& line : lines) {
    Row row(starts.size());
    std::mbstate_t state{};
    std::size_t column = 0, cell = 0;
    for (std::size_t i = 0; i < line.size();) {
      wchar_t c;
      std::size_t n = std::mbrtowc(&c, line.data() + i, line.size() - i, &state);
      if (n == 0 || n > line.size() - i) {  // not UTF-8: a byte is a column
        n = 1;
        c = L'?';
        state = std::mbstate_t{};
      }
      while (cell + 1 < starts.size() && column >= starts[cell + 1])
        ++cell;
      row[cell] += line.substr(i, n);
      int width = wcwidth(c);
      column += width > 0 ? static_cast<std::size_t>(width) : 1;
      i += n;
    }
    for (auto& text : row)
      while (!text.empty() && text.back() == ' ')
        text.pop_back();
    rows.push_back(row);
  }
  return rows;
}

class Inventory : public ::testing::Test {
 protected:
  void SetUp() override {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    write_text_file(stack_.dir().file("world.json"), world);
    sim_port_ = stack_.start_sim("sim", stack_.dir().file("world.json"));
    ASSERT_NE(sim_port_, 0);
    ASSERT_TRUE(stack_.start_server_and_agent());
    uuid_ = stack_.add_cvm("lab", sim_port_, "admin", "Adm1n pass");
    ASSERT_FALSE(uuid_.empty());
  }

  // "h3ccas.list" on the registered CVM: the whole JSON-RPC answer.
  JSON_Value list(JSON_Value params, const std::string& uuid = "") {
    params["uuid"] = uuid.empty() ? uuid_ : uuid;
    return stack_.agent_call("h3ccas.list", params);
  }

  Test_Stack stack_;
  std::uint16_t sim_port_ = 0;
  std::string uuid_;
};

TEST_F(Inventory, EveryListingAnswersTheTaggedRecordsOfItsQuery) {
  struct Case {
    JSON_Value params;
    JSON_Value expected;
  } cases[] = {
      {{{"subtype", "HostSystem"}},
       {host("1", "cvk01", "192.168.10.11", "connected"),
        host("2", "cvk02", "192.168.10.12", "disconnected"),
        host("3", "edge", "10.1.0.3", "unresponsive"), host("4", "edge", "10.1.0.4", "connected")}},
      // One object, not a list, and not expandable.
      {{{"subtype", "HostSystemDetail"}, {"host_id", "1"}},
       tagged({{"id", "1"},
               {"name", "cvk01"},
               {"ip", "192.168.10.11"},
               {"status", "connected"},
               {"memory_mbytes", 262144},
               {"cpu_count", 2},
               {"cpu_cores", 16}},
              "HostSystemDetail")},
      {{{"subtype", "VirtualMachine"}, {"host_id", "1"}}, {web01, db01}},
      {{{"subtype", "VirtualMachine"}, {"host_id", "2"}}, JSON_Value::array({app01})},
      {{{"subtype", "VirtualMachine"}, {"host_id", "3"}}, JSON_Value::array()},
      {{{"subtype", "StoragePool"}, {"host_id", "1"}},
       {tagged({{"name", "defaultpool"},
                {"title", "Default pool"},
                {"storage_type", "dir"},
                {"path", "/vms/images"},
                {"total_size", std::uint64_t{512000} << 20},
                {"free_size", std::uint64_t{256000} << 20},
                {"is_active", true}},
               "StoragePool"),
        // Without a title of its own, a pool is titled by its name.
        tagged({{"name", "san01"},
                {"title", "san01"},
                {"storage_type", "iscsi"},
                {"path", "/dev/san01"},
                {"total_size", std::uint64_t{1048576} << 20},
                {"free_size", std::uint64_t{1048576} << 20},
                {"is_active", false}},
               "StoragePool")}},
      {{{"subtype", "StorageVolume"}, {"host_id", "1"}, {"pool_name", "defaultpool"}},
       JSON_Value::array({tagged(
           {{"name", "ubuntu.iso"}, {"total_bytes", 1572864}, {"used_by", ""}}, "StorageVolume")})},
      {{{"subtype", "VirtualSwitch"}, {"host_id", "1"}},
       JSON_Value::array({tagged({{"id", "1"},
                                  {"name", "vswitch0"},
                                  {"physical_nic_name", "eth0"},
                                  {"address", "192.168.10.11"},
                                  {"gateway", "192.168.10.1"},
                                  {"is_active", true},
                                  {"network_types", JSON_Value::array({"management", "backup"})}},
                                 "VirtualSwitch")})},
      {{{"subtype", "PortProfile"}},
       {tagged({{"id", "1"},
                {"name", "Default"},
                {"description", "Untagged"},
                {"vlan_id", "1"},
                {"acl_name", ""},
                {"net_limit_title", ""}},
               "PortProfile"),
        tagged({{"id", "2"},
                {"name", "Storage"},
                {"description", ""},
                {"vlan_id", "20"},
                {"acl_name", "san-only"},
                {"net_limit_title", "10G"}},
               "PortProfile")}},
  };
  for (const auto& c : cases) {
    JSON_Value answer = list(c.params);
    EXPECT_EQ(answer["result"], c.expected) << c.params << "\n" << answer.dump(2);
  }
}

TEST_F(Inventory, SearchMatchesNameOrAddressOrTitleIgnoringCase) {
  struct Case {
    const char* type;
    const char* text;
    bool by_ip;
    std::vector<std::string> expected;
  } cases[] = {
      {"HostSystem", "CVK0", false, {"cvk01", "cvk02"}},
      {"HostSystem", "10.1.0.", false, {"edge", "edge"}},  // by address too
      {"HostSystem", "192.168.10.12", true, {"cvk02"}},
      {"HostSystem", "cvk", true, {}},  // the address only
      {"HostSystem", "E", false, {"edge", "edge"}},
      {"VirtualMachine", "WEB", false, {"web01"}},
      {"VirtualMachine", "applic", false, {"app01"}},  // the title
      {"VirtualMachine", "数据库", false, {"db01"}},
      {"VirtualMachine", "nothing like it", false, {}},
      {"VirtualMachine", "", false, {"app01", "db01", "web01"}},  // everything contains ""
  };
  for (const auto& c : cases) {
    JSON_Value params = {{"subtype", "search"}, {"type", c.type}, {"search", c.text}};
    if (c.by_ip)
      params["search_type"] = "ip";
    JSON_Value answer = list(params);
    std::vector<std::string> found = names(answer);
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, c.expected) << params << "\n" << answer.dump(2);
  }
  // Found records are the listed records.
  JSON_Value answer = list({{"subtype", "search"}, {"type", "VirtualMachine"}, {"search", "web"}});
  ASSERT_EQ(answer["result"].size(), 1u) << answer;
  EXPECT_EQ(answer["result"][0]["uuid"], web01["uuid"]);
  EXPECT_EQ(answer["result"][0]["host_name"], "cvk01");
}

TEST_F(Inventory, VerifyAnswersEachExistingVmOnceWhateverTheCase) {
  JSON_Value answer = list(
      {{"subtype", "verify"}, {"vms", {"WEB01", "ghost", 7, nullptr, "app01", "web01", "App01"}}});
  std::vector<std::string> found = names(answer);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, (std::vector<std::string>{"app01", "web01"})) << answer.dump(2);
  for (const auto& record : answer.value("result", JSON_Value::array()))
    EXPECT_EQ(record["uuid"], record["name"] == "web01" ? web01["uuid"] : app01["uuid"]);

  answer = list({{"subtype", "verify"}, {"vms", JSON_Value::array()}});
  EXPECT_EQ(answer["result"], JSON_Value::array()) << answer;
}

TEST_F(Inventory, ParameterFaultsAreInvalidParams) {
  const char* type_message = "Invalid value of params 'subtype'";
  struct Case {
    JSON_Value params;
    int code;
    std::string message;
  } cases[] = {
      {{1, 2}, -32602, "Invalid params: params type must be object."},
      {{{"subtype", "HostSystem"}},
       -32602,
       "Invalid params: 'uuid' is expected as string in params."},
      {{{"uuid", 5}, {"subtype", "HostSystem"}},
       -32602,
       "Invalid params: 'uuid' is expected as string in params."},
      {{{"uuid", uuid_}}, -32602, "Invalid params: 'subtype' is expected as string in params."},
      {{{"uuid", uuid_}, {"subtype", true}},
       -32602,
       "Invalid params: 'subtype' is expected as string in params."},
      {{{"uuid", uuid_}, {"subtype", "hostsystem"}}, -32602, type_message},
      {{{"uuid", uuid_}, {"subtype", "Datastore"}}, -32602, type_message},
      {{{"uuid", uuid_}, {"subtype", "VirtualMachine"}},
       -32602,
       "Invalid params: 'host_id' is expected as string in params."},
      {{{"uuid", uuid_}, {"subtype", "HostSystemDetail"}, {"host_id", 1}},
       -32602,
       "Invalid params: 'host_id' is expected as string in params."},
      {{{"uuid", uuid_}, {"subtype", "StorageVolume"}, {"host_id", "1"}},
       -32602,
       "Invalid params: 'pool_name' is expected as string in params."},
      {{{"uuid", uuid_}, {"subtype", "search"}, {"search", "x"}},
       -32602,
       "Invalid params: 'type' is expected as string in params."},
      {{{"uuid", uuid_}, {"subtype", "search"}, {"type", "StoragePool"}, {"search", "x"}},
       -32602,
       "Invalid value of params 'type'."},
      {{{"uuid", uuid_}, {"subtype", "search"}, {"type", "HostSystem"}},
       -32602,
       "Invalid params: 'search' is expected as string in params."},
      {{{"uuid", uuid_}, {"subtype", "verify"}},
       -32602,
       "Invalid params: 'vms' is expected as array in params."},
      {{{"uuid", uuid_}, {"subtype", "verify"}, {"vms", "web01"}},
       -32602,
       "Invalid params: 'vms' is expected as array in params."},
      // An entry the backup server does not hold.
      {{{"uuid", "00000000-0000-0000-0000-000000000000"}, {"subtype", "HostSystem"}},
       -32603,
       "Failed to get CVM info from server."},
  };
  for (const auto& c : cases) {
    JSON_Value answer = stack_.agent_call("h3ccas.list", c.params);
    EXPECT_EQ(answer["error"]["code"], c.code) << c.params << "\n" << answer;
    EXPECT_EQ(answer["error"]["message"], c.message) << c.params << "\n" << answer;
    EXPECT_FALSE(answer.contains("result")) << c.params;
  }
}

TEST_F(Inventory, ACvmWithoutHostsAnswersEmptyLists) {
  write_text_file(stack_.dir().file("bare.json"), bare_world);
  std::uint16_t port = stack_.start_sim("bare", stack_.dir().file("bare.json"));
  std::string bare = stack_.add_cvm("bare", port, "admin", "Adm1n pass");
  ASSERT_FALSE(bare.empty());
  for (const JSON_Value& params :
       {JSON_Value{{"subtype", "HostSystem"}},
        JSON_Value{{"subtype", "search"}, {"type", "HostSystem"}, {"search", "c"}},
        JSON_Value{{"subtype", "search"}, {"type", "VirtualMachine"}, {"search", "w"}},
        JSON_Value{{"subtype", "verify"}, {"vms", {"web01"}}},
        JSON_Value{{"subtype", "PortProfile"}}}) {
    JSON_Value answer = list(params, bare);
    EXPECT_EQ(answer["result"], JSON_Value::array()) << params << "\n" << answer;
  }
  Run_Result r = stack_.cli({"ls", "bare"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(read_table(r.out), (std::vector<Row>{{"NAME", "ID", "IP", "STATUS"}}));
}

TEST_F(Inventory, CasFailuresAreInternalErrorsNamingTheOperation) {
  // Every CVM request fails once signed in.
  stack_.sim_control("sim", "POST", "/sim/faults",
                     {{"path", "/cas/casrs/"},
                      {"status", 500},
                      {"error_code", "500"},
                      {"error_message", "内部错误"}});
  struct Case {
    JSON_Value params;
    const char* message;
  } cases[] = {
      {{{"subtype", "HostSystem"}}, "Failed to list CAS hosts."},
      {{{"subtype", "HostSystemDetail"}, {"host_id", "1"}}, "Failed to get CAS CVK details."},
      {{{"subtype", "VirtualMachine"}, {"host_id", "1"}}, "Failed to list CAS virtual machines."},
      {{{"subtype", "StoragePool"}, {"host_id", "1"}}, "Failed to list CAS storage pools."},
      {{{"subtype", "StorageVolume"}, {"host_id", "1"}, {"pool_name", "defaultpool"}},
       "Failed to list CAS storage volumes."},
      {{{"subtype", "PortProfile"}}, "Failed to list CAS port profiles."},
      {{{"subtype", "VirtualSwitch"}, {"host_id", "1"}}, "Failed to list CAS virtual switches."},
      {{{"subtype", "search"}, {"type", "HostSystem"}, {"search", "cvk"}},
       "Failed to list CAS hosts."},
      {{{"subtype", "search"}, {"type", "VirtualMachine"}, {"search", "web"}},
       "Failed to list CAS VMs."},
      {{{"subtype", "verify"}, {"vms", {"web01"}}}, "Failed to list CAS VMs."},
  };
  for (const auto& c : cases) {
    JSON_Value answer = list(c.params);
    EXPECT_EQ(answer["error"]["code"], -32603) << c.params << "\n" << answer;
    EXPECT_EQ(answer["error"]["message"], c.message) << c.params << "\n" << answer;
  }
  // The CLI says the same in one line (naming a host, it asks for the hosts first).
  Run_Result r = stack_.cli({"ls", "lab", "vms", "1"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "brimlet: agent error -32603: Failed to list CAS hosts.\n");

  stack_.sim_control("sim", "DELETE", "/sim/faults");
  EXPECT_EQ(names(list({{"subtype", "VirtualMachine"}, {"host_id", "2"}})),
            std::vector<std::string>{"app01"});
}

TEST_F(Inventory, WrongShapedCasAnswersAreRefusedAndTheAgentKeepsServing) {
  struct Case {
    JSON_Value fault;
    JSON_Value params;
    const char* message;
  } cases[] = {
      {{{"status", 200}, {"body", R"({"host": "cvk01"})"}},
       {{"subtype", "HostSystem"}},
       "Failed to list CAS hosts."},
      {{{"status", 200}, {"body", R"({"host": [{"id": "1", "name": "cvk01"}]})"}},
       {{"subtype", "HostSystem"}},
       "Failed to list CAS hosts."},
      {{{"status", 200}, {"body", R"([1, 2])"}},
       {{"subtype", "search"}, {"type", "HostSystem"}, {"search", ""}},
       "Failed to list CAS hosts."},
      {{{"kind", "not_json"}}, {{"subtype", "HostSystem"}}, "Failed to list CAS hosts."},
      {{{"status", 200}, {"body", R"({"domain": {"id": "101", "name": "web01"}})"}},
       {{"subtype", "VirtualMachine"}, {"host_id", "1"}},
       "Failed to list CAS virtual machines."},
      {{{"status", 200},
        {"body", R"({"id": "1", "name": "cvk01", "ip": "192.168.10.11", "status": "1",)"
                 R"( "memorySize": "16384.5", "cpuCount": "2", "cpuCores": "16"})"}},
       {{"subtype", "HostSystemDetail"}, {"host_id", "1"}},
       "Failed to get CAS CVK details."},
  };
  for (const auto& c : cases) {
    JSON_Value fault = c.fault;
    fault["path"] = "/cas/casrs/";
    stack_.sim_control("sim", "POST", "/sim/faults", fault);
    JSON_Value answer = list(c.params);
    EXPECT_EQ(answer["error"]["code"], -32603) << fault << "\n" << answer;
    EXPECT_EQ(answer["error"]["message"], c.message) << fault << "\n" << answer;
    stack_.sim_control("sim", "DELETE", "/sim/faults");
    answer = list(c.params);
    EXPECT_TRUE(answer.contains("result")) << c.params << "\n" << answer;
  }
}

TEST_F(Inventory, UnfilteredVmListRefusedIsAskedHostByHost) {
  stack_.sim_control("sim", "PUT", "/sim/knobs", {{"vm_list_conflict", true}});
  stack_.sim_control("sim", "DELETE", "/sim/requests");
  JSON_Value answer = list({{"subtype", "verify"}, {"vms", {"web01", "APP01", "ghost"}}});
  std::vector<std::string> found = names(answer);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, (std::vector<std::string>{"app01", "web01"})) << answer.dump(2);

  answer = list({{"subtype", "search"}, {"type", "VirtualMachine"}, {"search", "0"}});
  found = names(answer);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, (std::vector<std::string>{"app01", "db01", "web01"})) << answer.dump(2);

  // The CVM did refuse, so the VMs came from the per-host lists.
  JSON_Value log = stack_.sim_control("sim", "GET", "/sim/requests");
  int refused = 0, per_host = 0;
  for (const auto& r : log.value("requests", JSON_Value::array())) {
    std::string target = r.value("target", "");
    if (target.rfind("/cas/casrs/vm/vmList", 0) != 0)
      continue;
    if (r.value("status", 0) == 409)
      ++refused;
    else if (r.value("status", 0) == 200 && target.find("hostId=") != std::string::npos)
      ++per_host;
  }
  EXPECT_EQ(refused, 2) << log.dump(1);
  EXPECT_GE(per_host, 8) << log.dump(1);  // four hosts, twice
}

TEST_F(Inventory, AgentAnswersWhileASlowListingIsInFlight) {
  stack_.sim_control("sim", "PUT", "/sim/knobs", {{"latency_ms", 1500}});
  stack_.sim_control("sim", "DELETE", "/sim/requests");
  std::atomic<int> finished{0};
  int list_order = 0, info_order = 0;
  JSON_Value listed;
  std::thread slow([&] {
    listed = list({{"subtype", "HostSystem"}});
    list_order = ++finished;
  });
  // Once the CVM has seen the listing's first request, the listing still needs a signed one.
  for (int i = 0; i < 600; ++i) {
    JSON_Value log = stack_.sim_control("sim", "GET", "/sim/requests");
    if (!log.value("requests", JSON_Value::array()).empty())
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  JSON_Value info = stack_.agent_call("agent.info", JSON_Value::object());
  info_order = ++finished;
  slow.join();
  EXPECT_EQ(info["result"]["host_id"], Stack::agent_host_id()) << info;
  EXPECT_EQ(names(listed).size(), 4u) << listed;
  EXPECT_EQ(info_order, 1);
  EXPECT_EQ(list_order, 2);
}

TEST_F(Inventory, CliListsAsAlignedTables) {
  struct Case {
    std::vector<std::string> args;
    std::vector<Row> table;
  } cases[] = {
      {{"ls", "lab"},
       {{"NAME", "ID", "IP", "STATUS"},
        {"cvk01", "1", "192.168.10.11", "connected"},
        {"cvk02", "2", "192.168.10.12", "disconnected"},
        {"edge", "3", "10.1.0.3", "unresponsive"},
        {"edge", "4", "10.1.0.4", "connected"}}},
      {{"ls", "lab", "host", "cvk01"},
       {{"Name:", "cvk01"},
        {"ID:", "1"},
        {"IP:", "192.168.10.11"},
        {"Status:", "connected"},
        {"CPUs:", "2"},
        {"Cores:", "16"},
        {"Memory:", "256.0 GiB"}}},
      // By name or by id, and a wide title keeps the columns aligned.
      {{"ls", uuid_, "vms", "cvk01"},
       {{"NAME", "TITLE", "STATUS", "OS", "CPUS", "MEMORY"},
        {"web01", "Web server", "poweron", "Ubuntu 22.04", "2", "2.0 GiB"},
        {"db01", "数据库服务器", "poweroff", "", "4", "8.0 GiB"}}},
      {{"ls", "lab", "vms", "2"},
       {{"NAME", "TITLE", "STATUS", "OS", "CPUS", "MEMORY"},
        {"app01", "Application", "suspended", "", "1", "1.0 GiB"}}},
      {{"ls", "lab", "pools", "cvk01"},
       {{"NAME", "TYPE", "TOTAL", "FREE", "ACTIVE", "PATH"},
        {"defaultpool", "dir", "500.0 GiB", "250.0 GiB", "yes", "/vms/images"},
        {"san01", "iscsi", "1.0 TiB", "1.0 TiB", "no", "/dev/san01"}}},
      {{"ls", "lab", "volumes", "cvk01", "defaultpool"},
       {{"NAME", "SIZE", "USED BY"}, {"ubuntu.iso", "1.5 MiB", ""}}},
      {{"ls", "lab", "vswitches", "cvk01"},
       {{"NAME", "NIC", "NETWORK TYPES", "ADDRESS", "GATEWAY", "ACTIVE"},
        {"vswitch0", "eth0", "management,backup", "192.168.10.11", "192.168.10.1", "yes"}}},
      {{"ls", "lab", "profiles"},
       {{"NAME", "VLAN", "ACL", "NET LIMIT", "DESCRIPTION"},
        {"Default", "1", "", "", "Untagged"},
        {"Storage", "20", "san-only", "10G", ""}}},
      {{"search", "lab", "hosts", "192.168.10.12", "--ip"},
       {{"NAME", "ID", "IP", "STATUS"}, {"cvk02", "2", "192.168.10.12", "disconnected"}}},
      {{"search", "lab", "vms", "APP"},
       {{"NAME", "TITLE", "STATUS", "OS", "CPUS", "MEMORY", "HOST"},
        {"app01", "Application", "suspended", "", "1", "1.0 GiB", "cvk02"}}},
      {{"verify", "lab", "WEB01"},
       {{"NAME", "TITLE", "STATUS", "OS", "CPUS", "MEMORY", "HOST"},
        {"web01", "Web server", "poweron", "Ubuntu 22.04", "2", "2.0 GiB", "cvk01"}}},
  };
  for (const auto& c : cases) {
    Run_Result r = stack_.cli(c.args);
    EXPECT_EQ(r.exit_code, 0) << c.args[0] << " " << c.args[2] << ": " << r.err;
    EXPECT_EQ(read_table(r.out), c.table) << r.out;
  }

  // --json is the agent's answer as is.
  Run_Result r = stack_.cli({"--json", "ls", "lab", "vms", "cvk01"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(JSON_Value::parse(r.out, nullptr, false),
            list({{"subtype", "VirtualMachine"}, {"host_id", "1"}})["result"]);
}

TEST_F(Inventory, CliNamesWhatIsMissingOrWrong) {
  // Missing VM names: the found ones are listed, the others named, and the status says so.
  Run_Result r = stack_.cli({"verify", "lab", "db01", "ghost", "App01", "phantom"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "brimlet: VMs not found: 'ghost', 'phantom'\n");
  std::vector<std::string> listed;
  for (const auto& row : read_table(r.out))
    listed.push_back(row.at(0));
  std::sort(listed.begin(), listed.end());
  EXPECT_EQ(listed, (std::vector<std::string>{"NAME", "app01", "db01"})) << r.out;
  r = stack_.cli({"--json", "verify", "lab", "ghost"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(JSON_Value::parse(r.out, nullptr, false), JSON_Value::array()) << r.out;

  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string error;
  } cases[] = {
      {{"ls", "lab", "vms", "cvk09"}, 1, "no host 'cvk09' on this CVM"},
      {{"ls", "lab", "pools", "edge"}, 1, "several hosts are named 'edge' (ids 3 4)"},
      {{"ls", "nowhere"}, 1, "no registered CVM 'nowhere'"},
      {{"ls"}, 2, "CVM is required"},
      {{"ls", "lab", "datastores"}, 2, "unknown listing"},
      {{"ls", "lab", "volumes", "cvk01"}, 2, "needs HOST POOL"},
      {{"ls", "lab", "vms"}, 2, "needs HOST"},
      {{"ls", "lab", "profiles", "extra"}, 2, "unexpected argument 'extra'"},
      {{"search", "lab", "vms", "web", "--ip"}, 2, "--ip applies to host searches only"},
      {{"search", "lab", "pools", "x"}, 2, "KIND: pools not in {hosts,vms}"},
      {{"verify", "lab"}, 2, "NAME is required"},
  };
  for (const auto& c : cases) {
    r = stack_.cli(c.args);
    EXPECT_EQ(r.exit_code, c.exit_code) << c.args.size() << " args: " << r.err;
    EXPECT_EQ(r.err.rfind("brimlet: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.error), std::string::npos) << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
    if (c.exit_code == 1) {
      EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
    }
  }
}

}  // namespace
