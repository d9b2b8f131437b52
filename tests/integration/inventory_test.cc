// Browsing a CVM's inventory through the agent's "h3ccas.list" and the brimlet CLI, on cas-sim.
#include "tests/integration/test_stack.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {
const std::string web01 = R"({"id": "101", "name": "web01", "title": "Web server",
  "status": "poweron", "host_id": "1", "host_name": "cvk01", "os": "Ubuntu 22.04", "cpu": 2,
  "memory_mbytes": 2048, "uuid": "4d7f6c3a-0000-4000-8000-000000000101"})";
const std::string db01 = R"({"id": "102", "name": "db01", "title": "数据库服务器",
  "status": "poweroff", "host_id": "1", "host_name": "cvk01", "os": "", "cpu": 4,
  "memory_mbytes": 8192, "uuid": "4d7f6c3a-0000-4000-8000-000000000102"})";
const std::string app01 = R"({"id": "201", "name": "app01", "title": "Application",
  "status": "suspended", "host_id": "2", "host_name": "cvk02", "os": "", "cpu": 1,
  "memory_mbytes": 1024, "uuid": "4d7f6c3a-0000-4000-8000-000000000201"})";

// Records (or one) as the agent answers: tagged with their subtype, a listing's hosts expandable.
JSON_Value tagged(const std::string& subtype, const std::string& records, bool expandable) {
  JSON_Value out = JSON_Value::parse(records);
  for (auto& r : out.is_array() ? out : (out = JSON_Value::array({out})))
    r.update({{"has_children", expandable}, {"type", subtype}});
  return records[0] == '[' ? out : out[0];
}

JSON_Value error(int code, const std::string& message) {
  return {{"code", code}, {"message", message}};
}
JSON_Value invalid(const char* key, const char* type = "string") {
  return error(-32602,
               std::string("Invalid params: '") + key + "' is expected as " + type + " in params.");
}
using Inventory = Lab_Test;

TEST_F(Inventory, CliAndAgentListSearchVerifyAndNameWhatIsWrongOrFailed) {
  const std::string cases[][4] = {
      // arguments, subtype and records as JSON, table
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
      {"ls lab vms 3", "VirtualMachine", "[]", "NAME  TITLE  STATUS  OS  CPUS  MEMORY\n"},
      {"ls lab pools cvk01", "", "",
       R"(NAME         TYPE   TOTAL      FREE       ACTIVE  PATH
defaultpool  dir    500.0 GiB  250.0 GiB  yes     /vms/images
san01        iscsi  1.0 TiB    1.0 TiB    no      /dev/san01
)"},
      {"ls lab volumes cvk01 defaultpool", "", "",
       R"(NAME        SIZE     USED BY
ubuntu.iso  1.5 MiB
)"},
      {"ls lab vswitches cvk01", "", "",
       R"(NAME      NIC   NETWORK TYPES      ADDRESS        GATEWAY       ACTIVE
vswitch0  eth0  management,backup  192.168.10.11  192.168.10.1  yes
)"},
      {"ls lab profiles", "", "",
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
  for (const auto& [line, subtype, records, table] : cases) {
    std::vector<std::string> args = words(line);
    std::replace(args.begin(), args.end(), std::string("UUID"), uuid_);
    Run_Result r = stack_.cli(args);
    EXPECT_EQ(r.exit_code, 0) << line << ": " << r.err;
    EXPECT_EQ(r.out, table) << line;
    if (records.empty())  // these records' JSON form is checked where they are made
      continue;
    args.insert(args.begin(), "--json");
    JSON_Value listed = JSON_Value::parse(stack_.cli(args).out, nullptr, false);
    EXPECT_EQ(listed, tagged(subtype, records, line == "ls lab")) << line;
  }
  // arguments, error, output; usage errors (exit status 2) point at their command's --help
  const std::tuple<std::string, std::string, std::string, std::string> failures[] = {
      // The found VMs are listed, the missing ones named, and the status says so.
      {"verify lab ghost App01 phantom", "VMs not found: 'ghost', 'phantom'", "",
       R"(NAME   TITLE        STATUS     OS  CPUS  MEMORY   HOST
app01  Application  suspended      1     1.0 GiB  cvk02
)"},
      {"--json verify lab ghost", "VMs not found: 'ghost'", "", "[]\n"},
      {"ls lab vms cvk09", "no host 'cvk09' on this CVM", "", ""},
      {"ls lab pools edge", "several hosts are named 'edge' (ids 3 4); give the host id", "", ""},
      {"cvm add --host h --username u --password-stdin", "no password given", "", ""},
      {"cvm test wrong-password", "login to 127.0.0.1 failed: Invalid CVM username or password", "",
       ""},
      {"", "A subcommand is required", " ", ""},
      {"--json cvm frobnicate", "unknown command 'cvm frobnicate'", " cvm ", ""},
      {"cvm add --host h --username u --password x",
       "passwords are never taken from the command line; use the prompt or --password-stdin",
       " cvm add ", ""},
      {"cvm add --host h --username u --port 0", "--port: Value 0 not in range 1 to 65535",
       " cvm add ", ""},
      {"ls", "CVM is required", " ls ", ""},
      {"ls lab datastores", "unknown listing 'ls CVM datastores'", " ls ", ""},
      {"ls lab volumes cvk01", "'ls CVM volumes' needs HOST POOL", " ls ", ""},
      {"ls lab vms", "'ls CVM vms' needs HOST", " ls ", ""},
      {"ls lab profiles extra", "unexpected argument 'extra'", " ls ", ""},
      {"search lab vms web --ip", "--ip applies to host searches only", " search ", ""},
      {"search lab pools x", "KIND: pools not in {hosts,vms}", " search ", ""},
      {"verify lab", "NAME is required", " verify ", ""},
  };
  stack_.add_cvm("wrong-password", sim_port_, "intruder", "not it");
  for (const auto& [args, err, command, out] : failures) {
    Run_Result r = stack_.cli(words(args));
    EXPECT_EQ(std::tuple(r.exit_code, r.out), std::tuple(command.empty() ? 1 : 2, out)) << args;
    std::string hint = "Run 'brimlet" + command + "--help' for usage.\n";
    EXPECT_EQ(r.err, "brimlet: " + err + "\n" + (command.empty() ? "" : hint)) << args;
  }
  // Every CVM request failing once signed in.
  const JSON_Value e500 = {{"status", 500}, {"error_code", "500"}, {"error_message", "内部错误"}};
  auto failed = [](const char* what) { return error(-32603, std::string("Failed to ") + what); };
  auto on1 = [](const char* subtype) {
    return std::string(R"({"host_id": "1", "subtype": ")") + subtype + "\"}";
  };
  auto search = [](const char* type, const char* text, const char* more = "") {
    return std::string(R"({"subtype": "search", "type": ")") + type + R"(", "search": ")" + text +
           "\"" + more + "}";
  };
  const char* hs = R"({"subtype": "HostSystem"})";
  const JSON_Value none = JSON_Value::array();
  // The sorted names of the records or the error, with the CVM answering `fault` if given.
  const std::tuple<std::string, JSON_Value, JSON_Value> exchanges[] = {
      {search("HostSystem", "CVK0"), {"cvk01", "cvk02"}, nullptr},
      {search("HostSystem", "10.1.0."), {"edge", "edge"}, nullptr},              // by address too
      {search("HostSystem", "cvk", R"(, "search_type": "ip")"), none, nullptr},  // by address only
      {search("VirtualMachine", "applic"), {"app01"}, nullptr},                  // by title
      {search("VirtualMachine", "数据库"), {"db01"}, nullptr},
      {search("VirtualMachine", ""), {"app01", "db01", "web01"}, nullptr},
      // Each existing VM once, whatever the case; names that are not strings are skipped.
      {R"({"subtype": "verify", "vms": ["WEB01", "ghost", 7, null, "app01", "web01", "App01"]})",
       {"app01", "web01"},
       nullptr},
      {R"({"subtype": "verify", "vms": []})", none, nullptr},
      {"[1, 2]", error(-32602, "Invalid params: params type must be object."), nullptr},
      {R"({"uuid": 5, "subtype": "HostSystem"})", invalid("uuid"), nullptr},
      {R"({"subtype": true})", invalid("subtype"), nullptr},
      {R"({"subtype": "hostsystem"})", error(-32602, "Invalid value of params 'subtype'"), nullptr},
      {R"({"subtype": "VirtualMachine"})", invalid("host_id"), nullptr},
      {R"({"subtype": "HostSystemDetail", "host_id": 1})", invalid("host_id"), nullptr},
      {R"({"subtype": "StorageVolume", "host_id": "1"})", invalid("pool_name"), nullptr},
      {R"({"subtype": "search", "search": "x"})", invalid("type"), nullptr},
      {search("StoragePool", "x"), error(-32602, "Invalid value of params 'type'."), nullptr},
      {R"({"subtype": "search", "type": "HostSystem"})", invalid("search"), nullptr},
      {R"({"subtype": "verify"})", invalid("vms", "array"), nullptr},
      {R"({"subtype": "verify", "vms": "web01"})", invalid("vms", "array"), nullptr},
      // An entry the backup server does not hold.
      {R"({"uuid": "00000000-0000-0000-0000-000000000000", "subtype": "HostSystem"})",
       error(-32603, "Failed to get CVM info from server."), nullptr},
      {hs, failed("list CAS hosts."), e500},
      {on1("HostSystemDetail"), failed("get CAS CVK details."), e500},
      {on1("VirtualMachine"), failed("list CAS virtual machines."), e500},
      {on1("StoragePool"), failed("list CAS storage pools."), e500},
      {R"({"subtype": "StorageVolume", "host_id": "1", "pool_name": "defaultpool"})",
       failed("list CAS storage volumes."), e500},
      {R"({"subtype": "PortProfile"})", failed("list CAS port profiles."), e500},
      {on1("VirtualSwitch"), failed("list CAS virtual switches."), e500},
      {search("HostSystem", "cvk"), failed("list CAS hosts."), e500},
      {search("VirtualMachine", "web"), failed("list CAS VMs."), e500},
      {R"({"subtype": "verify", "vms": ["web01"]})", failed("list CAS VMs."), e500},
      // A CVM answer of the wrong shape (the records' own checks are tested with them).
      {hs, failed("list CAS hosts."), {{"kind", "not_json"}}},
  };
  for (const auto& [text, expected, fault_json] : exchanges) {
    JSON_Value params = JSON_Value::parse(text), fault = fault_json;
    if (params.is_object() && !params.contains("uuid"))
      params["uuid"] = uuid_;
    if (!fault.is_null()) {
      fault["path"] = "/cas/casrs/";
      stack_.sim_control("sim", "POST", "/sim/faults", fault);
    }
    JSON_Value answer = stack_.agent_call("h3ccas.list", params), got = JSON_Value::array();
    for (const auto& record : answer.value("result", JSON_Value::array()))
      got.push_back(record.value("name", "?"));
    std::sort(got.begin(), got.end());
    if (answer.contains("error"))
      got = error(answer["error"].value("code", 0), answer["error"].value("message", ""));
    EXPECT_EQ(got, expected) << fault << text << "\n" << answer;
    // Without the fault, it answers again.
    if (!fault.is_null()) {
      stack_.sim_control("sim", "DELETE", "/sim/faults");
      EXPECT_TRUE(stack_.agent_call("h3ccas.list", params).contains("result")) << text;
    }
  }
  // The CLI says the same in one line (naming a host, it asks for the hosts first).
  stack_.sim_control("sim", "POST", "/sim/faults", {{"path", "/cas/casrs/"}, {"status", 500}});
  Run_Result r = stack_.cli({"ls", "lab", "vms", "1"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "brimlet: agent error -32603: Failed to list CAS hosts.\n");
  stack_.sim_control("sim", "DELETE", "/sim/faults");
  // The agent answers while a slow listing is in flight.
  stack_.sim_control("sim", "PUT", "/sim/knobs", {{"latency_ms", 1500}});
  stack_.sim_control("sim", "DELETE", "/sim/requests");
  std::atomic<bool> listed{false};
  JSON_Value hosts;
  std::thread slow([&] {
    hosts = stack_.agent_call("h3ccas.list", {{"uuid", uuid_}, {"subtype", "HostSystem"}});
    listed = true;
  });
  // Once the CVM has answered the listing's first request, the listing still needs a signed one.
  for (int i = 0; i < 100000; ++i)
    if (!stack_.sim_control("sim", "GET", "/sim/requests")["requests"].empty())
      break;
  JSON_Value info = stack_.agent_call("agent.info", JSON_Value::object());
  EXPECT_FALSE(listed);
  slow.join();
  EXPECT_EQ(info["result"]["host_id"], Stack::agent_host_id()) << info;
  EXPECT_EQ(hosts["result"].size(), 4u) << hosts;
}
}  // namespace
