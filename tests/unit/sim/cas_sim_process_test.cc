// The real cas-sim on loopback, driven by curl as a digest client and by its control API.
#include "host/core/json.h"
#include "host/core/paths.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char kWorld[] = R"({"operators": [
    {"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1},
    {"id": 2, "login_name": "auditor", "password": "aud", "group_id": 3}], "hosts": []})";
// Three hosts: one with a single VM, one with two, one with none.
const char kInventory[] = R"({
  "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}],
  "pools": [{"name": "p1", "path": "/vms/p1", "capacity_mib": 1000, "free_mib": 600,
             "volumes": [{"name": "a.iso", "size_mib": 1.5}]}],
  "port_profiles": [{"id": 5, "name": "Default", "vlan_id": 10}],
  "hosts": [
    {"id": 1, "name": "cvk1", "ip": "10.0.0.1",
     "vswitches": [{"id": 1, "name": "vs0", "address": "10.0.0.1", "types": ["management", "backup"]}],
     "vms": [{"id": 11, "uuid": "u11", "name": "solo", "title": "mid",
              "disks": [{"device_name": "vda", "size_mib": 10240, "allocation_mib": 1024,
                         "pool": "p1", "path": "/vms/p1/solo-vda", "cluster_size": 65536}],
              "networks": [{"mac": "0c:da:41:00:00:01", "vswitch": "vs0", "profile": "Default"}],
              "snapshots": [{"name": "s1", "internal": true,
                             "snapshots": [{"name": "s2"}, {"name": "s3"}]}]}]},
    {"id": 2, "name": "cvk2", "ip": "10.0.0.2", "status": "2", "memory_mib": 65536,
     "vms": [{"id": 21, "uuid": "u21", "name": "b", "title": "zeta", "status": "shutOff",
              "os": "Linux", "cpus": 4, "cpu_sockets": 2,
              "disks": [{"device_name": "vda", "size_mib": 20, "pool": "p1", "path": "/vms/p1/b-vda"},
                        {"device_name": "sda", "size_mib": 30, "file_type": "block",
                         "format": "raw", "path": "/dev/sdb"}]},
             {"id": 22, "uuid": "u22", "name": "c", "title": "alpha", "status": "paused"}]},
    {"id": 3, "name": "cvk3", "ip": "10.0.0.3"}]})";
const char kAdmin[] = "admin:Adm1n pass";
const char kChallenge[] = "Digest realm=\"VMC RESTful Web Services\", qop=\"auth\", nonce=\"";
const char kList[] = "/cas/casrs/operator/operatorInfoList";
const std::string kVersion = "/cas/casrs/datacenter/casVersion";

std::string slurp(const std::string& path) {
  std::string text;
  read_file(path, text);
  return text;
}

struct Reply {
  int curl_exit = -1;
  int status = 0;  // of the last answer; 0 when none came
  // Headers of the last answer (a digest exchange holds the 401 first); "" when absent.
  std::string error_code, error_message, challenge;
  std::string body, err;

  JSON_Value json() const { return JSON_Value::parse(body, nullptr, false); }
};

class Cas_Sim_Test : public ::testing::Test {
 protected:
  void start(std::vector<std::string> argv = {}) {
    write_text_file(dir_.file("world.json"), world_);
    argv.insert(argv.begin(), {"cas-sim", "--world", dir_.file("world.json"), "--ready-file",
                               dir_.file("ready.json"), "--cvd-listen", "127.0.0.1:0"});
    ASSERT_TRUE(sim_.start(argv, {}, dir_.file("sim.out")));
    JSON_Value ready;
    ASSERT_TRUE(sim_.wait_ready(dir_.file("ready.json"), ready)) << slurp(dir_.file("sim.out"));
    ASSERT_EQ(ready.value("host", ""), "127.0.0.1");
    ASSERT_GT(ready.value("cvd_port", 0), 0);
    base_ = "127.0.0.1:" + std::to_string(ready.value("http_port", 0));
  }

  // `credentials` ("user:password") sign the request with digest; empty: none.
  Reply curl(const std::string& target, const std::string& credentials = kAdmin,
             std::vector<std::string> args = {}) {
    std::string body = dir_.file("body" + std::to_string(++calls_));
    args.insert(args.begin(), {"/usr/bin/env", "curl", "-sS", "--max-time", "30", "-o", body, "-w",
                               "%{http_code}\n%header{error-code}\n%header{error-message}\n"
                               "%header{www-authenticate}\n"});
    if (!credentials.empty())
      args.insert(args.end(), {"--digest", "-u", credentials});
    if (tls_)
      args.push_back("-k");
    args.push_back((tls_ ? "https://" : "http://") + base_ + target);
    Run_Result run = run_program(args, "", {}, 60);
    std::istringstream out(run.out);
    std::string lines[4];
    for (std::string& line : lines)
      std::getline(out, line);
    return {run.exit_code, atoi(lines[0].c_str()), lines[1], lines[2], lines[3], slurp(body),
            run.err};
  }

  Reply control(const std::string& method, const std::string& target,
                const std::string& body = "") {
    std::vector<std::string> args = {"-X", method};
    if (!body.empty())
      args.insert(args.end(), {"-H", "Content-Type: application/json", "--data-binary", body});
    return curl(target, "", args);
  }

  // The answer of a signed GET that must succeed.
  JSON_Value get(const std::string& target) {
    Reply reply = curl(target);
    EXPECT_EQ(reply.status, 200) << target << " " << reply.error_message << reply.err;
    return reply.body.empty() ? JSON_Value() : reply.json();
  }

  std::string world_ = kWorld;
  Temp_Dir dir_;
  Test_Process sim_;
  std::string base_;
  bool tls_ = false;
  int calls_ = 0;
};

TEST_F(Cas_Sim_Test, DigestLoginServesTheCvmFollowsKnobsAndLogsEachRequest) {
  start();
  Reply list = curl(kList);
  ASSERT_EQ(list.status, 200) << list.err;
  JSON_Value operators = list.json()["operator"];
  ASSERT_TRUE(operators.is_array()) << list.body;
  ASSERT_EQ(operators.size(), 2u);
  EXPECT_EQ(
      operators[0],
      JSON_Value::parse(R"({"id": "1", "loginName": "admin", "name": "admin", "groupId": "1"})"));
  EXPECT_EQ(list.body.find("Adm1n"), std::string::npos);
  // The query string is part of the signed uri.
  Reply version = curl(kVersion + "?lang=zh_CN");
  EXPECT_EQ(version.json(), JSON_Value({{"data", "H3C CAS E0750"}})) << version.status;

  // Each curl run is challenged first, then signed.
  const JSON_Value records = control("GET", "/sim/requests").json()["requests"];
  ASSERT_EQ(records.size(), 4u);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(records[i]["status"], i % 2 ? 200 : 401) << i;
    EXPECT_EQ(records[i]["user"], i % 2 ? "admin" : "") << i;
  }
  EXPECT_EQ(records[3]["target"], kVersion + "?lang=zh_CN");
  EXPECT_EQ(control("DELETE", "/sim/requests").json()["cleared"], 4);

  Reply changed = control("PUT", "/sim/knobs", R"({"version": "H3C CAS E0810",
      "operators": [{"id": 7, "login_name": "admin", "password": "new", "group_id": 1}]})");
  EXPECT_EQ(changed.json()["version"], "H3C CAS E0810") << changed.body;
  EXPECT_EQ(curl(kList).status, 401);  // the old password
  // CAS's one-member list: a bare object under the key.
  list = curl(kList, "admin:new");
  ASSERT_TRUE(list.json()["operator"].is_object()) << list.body;
  EXPECT_EQ(list.json()["operator"]["id"], "7");

  int status = sim_.stop();  // SIGTERM
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(slurp(dir_.file("sim.out")).find("Stopping on signal"), std::string::npos);
}

// The values of `key` in each member of a CAS list (a bare object counts as one member).
std::vector<std::string> column(const JSON_Value& list, const char* key) {
  std::vector<std::string> out;
  if (list.is_object())
    out.push_back(list.value(key, ""));
  else
    for (const JSON_Value& member : list)
      out.push_back(member.value(key, ""));
  return out;
}

using Column = std::vector<std::string>;

TEST_F(Cas_Sim_Test, ListsTheInventoryWithCasShapes) {
  world_ = kInventory;
  start();
  EXPECT_EQ(column(get("/cas/casrs/host")["host"], "id"), Column({"1", "2", "3"}));
  EXPECT_EQ(get("/cas/casrs/host/id/2"), JSON_Value::parse(R"({"id": "2", "name": "cvk2",
      "ip": "10.0.0.2", "status": "2", "cpuCount": "2", "cpuCores": "8", "memorySize": "65536"})"));

  // One member: a bare object; none: 200 without a body.
  JSON_Value solo = get("/cas/casrs/vm/vmList?hostId=1&sortField=title")["domain"];
  EXPECT_EQ(solo, JSON_Value::parse(R"({"id": "11", "uuid": "u11", "name": "solo", "title": "mid",
      "vmStatus": "running", "hostId": "1", "hostName": "cvk1", "cpu": "1", "memory": "1024"})"));
  Reply none = curl("/cas/casrs/vm/vmList?hostId=3&sortField=title");
  EXPECT_EQ(none.status, 200);
  EXPECT_TRUE(none.body.empty()) << none.body;
  JSON_Value two = get("/cas/casrs/vm/vmList?hostId=2&sortField=title")["domain"];
  EXPECT_EQ(column(two, "title"), Column({"alpha", "zeta"}));
  EXPECT_EQ(column(two, "osDesc"), Column({"", "Linux"}));
  EXPECT_EQ(column(two, "vmStatus"), Column({"paused", "shutOff"}));
  EXPECT_EQ(column(get("/cas/casrs/vm/vmList?sortField=title")["domain"], "title"),
            Column({"alpha", "mid", "zeta"}));
  EXPECT_EQ(column(get("/cas/casrs/vm/vmList")["domain"], "title"),
            Column({"mid", "zeta", "alpha"}));

  JSON_Value detail = get("/cas/casrs/vm/detail/11");
  EXPECT_EQ(detail["storage"], JSON_Value::parse(R"({"device": "disk", "deviceName": "vda",
      "fileType": "file", "path": "/vms/p1/solo-vda", "format": "qcow2", "targetBus": "virtio",
      "size": "10240", "allocation": "1024", "cacheType": "directsync", "mode": "2",
      "clusterSize": "65536", "isShareStorage": "0", "storagePool": "p1"})"));
  EXPECT_EQ(detail["network"]["vsName"], "vs0");
  EXPECT_EQ(detail["basic"]["uuid"], "u11");
  detail = get("/cas/casrs/vm/detail/21");
  EXPECT_EQ(detail["cpu"], JSON_Value::parse(R"({"cpuSockets": "2", "cpuCores": "2"})"));
  EXPECT_EQ(detail["memory"]["size"], "1024");
  ASSERT_EQ(column(detail["storage"], "deviceName"), Column({"vda", "sda"}));
  EXPECT_FALSE(detail["storage"][1].contains("mode"));  // a block device has none
  EXPECT_FALSE(get("/cas/casrs/vm/detail/22").contains("storage"));

  EXPECT_EQ(get("/cas/casrs/vm/snapshot/11"), JSON_Value::parse(R"({"snapshot":
      {"name": "solo", "snapshotMode": "0", "snapshots": {"snapshot":
      {"name": "s1", "snapshotMode": "1", "snapshots": {"snapshot":
      [{"name": "s2", "snapshotMode": "0"}, {"name": "s3", "snapshotMode": "0"}]}}}}})"));
  EXPECT_FALSE(get("/cas/casrs/vm/snapshot/22")["snapshot"].contains("snapshots"));
  EXPECT_EQ(get("/cas/casrs/vm/11/capabilities")["supportCbt"], "true");

  JSON_Value vswitch = get("/cas/casrs/host/id/1/vswitch")["vSwitch"];
  EXPECT_EQ(vswitch.value("networkType", ""), "9");
  EXPECT_EQ(vswitch.value("address", ""), "10.0.0.1");
  JSON_Value pool = get("/cas/casrs/storage/pool?hostId=2")["storagePool"];
  EXPECT_EQ(pool.value("totalSize", "") + " " + pool.value("freeSize", ""), "1000 600");
  JSON_Value volumes = get("/cas/casrs/storage/volume?hostId=1&poolName=p1")["storageVolume"];
  EXPECT_EQ(column(volumes, "name"), Column({"a.iso", "solo-vda", "b-vda"}));
  EXPECT_EQ(column(volumes, "size"), Column({"1.5", "10240", "20"}));
  EXPECT_EQ(get("/cas/casrs/profile")["portProfile"]["vlanId"], "10");
}

TEST_F(Cas_Sim_Test, RefusesUnknownIdsAndTheUnfilteredListOnDemand) {
  world_ = kInventory;
  start();
  struct Case {
    const char* target;
    int status;
    const char* error_message;
  };
  const Case cases[] = {
      {"/cas/casrs/host/id/9", 404, "主机不存在"},
      {"/cas/casrs/host/id/x/vswitch", 404, "主机不存在"},
      {"/cas/casrs/vm/vmList?hostId=9", 404, "主机不存在"},
      {"/cas/casrs/vm/vmList?sortField=size", 400, "不支持的排序字段"},
      {"/cas/casrs/vm/detail/12", 404, "虚拟机不存在"},
      {"/cas/casrs/vm/1/capabilities", 404, "虚拟机不存在"},
      {"/cas/casrs/vm/snapshot/-11", 404, "虚拟机不存在"},
      {"/cas/casrs/storage/pool", 400, "缺少参数hostId"},
      {"/cas/casrs/storage/volume?hostId=1", 400, "缺少参数poolName"},
      {"/cas/casrs/storage/volume?hostId=1&poolName=p2", 404, "存储池不存在"},
      {"/cas/casrs/message/1", 404, "消息不存在"},
  };
  for (const Case& c : cases) {
    Reply reply = curl(c.target);
    EXPECT_EQ(reply.status, c.status) << c.target;
    EXPECT_EQ(reply.error_code, std::to_string(c.status)) << c.target;
    EXPECT_EQ(reply.error_message, c.error_message) << c.target;
    EXPECT_TRUE(reply.body.empty()) << c.target << " " << reply.body;
  }

  ASSERT_EQ(control("PUT", "/sim/knobs", R"({"vm_list_conflict": true})").status, 200);
  Reply conflict = curl("/cas/casrs/vm/vmList?sortField=title");
  EXPECT_EQ(conflict.status, 409);
  EXPECT_EQ(conflict.error_code, "409");
  EXPECT_FALSE(conflict.error_message.empty());
  EXPECT_TRUE(conflict.body.empty()) << conflict.body;
  EXPECT_EQ(get("/cas/casrs/vm/vmList?hostId=1&sortField=title")["domain"]["id"], "11");
}

TEST_F(Cas_Sim_Test, TasksReportProgressUntilTheirOutcome) {
  start();
  // A task far from its end shows no outcome yet.
  Reply started = control("POST", "/sim/tasks", R"({"duration_ms": 600000})");
  ASSERT_EQ(started.status, 200) << started.body;
  JSON_Value progress = get("/cas/casrs/message/" + started.json().value("msgId", ""));
  EXPECT_EQ(progress["completed"], "false");
  EXPECT_FALSE(progress.contains("result"));

  started = control("POST", "/sim/tasks",
                    R"({"duration_ms": 0, "result": "1", "fail_msg": "存储空间不足"})");
  ASSERT_EQ(started.status, 200) << started.body;
  progress = get("/cas/casrs/message/" + started.json().value("msgId", ""));
  EXPECT_EQ(progress, JSON_Value::parse(R"({"msgId": ")" + started.json().value("msgId", "") +
                                        R"(", "completed": "true", "progress": "100",
      "result": "1", "failMsg": "存储空间不足"})"));

  // Without a duration the knob decides.
  ASSERT_EQ(control("PUT", "/sim/knobs", R"({"task_duration_ms": 0})").status, 200);
  started = control("POST", "/sim/tasks", R"({"target_id": "33"})");
  progress = get("/cas/casrs/message/" + started.json().value("msgId", ""));
  EXPECT_EQ(progress.value("completed", "") + progress.value("result", "") +
                progress.value("targetId", ""),
            "true033");
}

TEST_F(Cas_Sim_Test, RefusesTheCasWayWithoutData) {
  start();
  struct Case {
    const char *target, *credentials, *method;
    int status;
    const char *error_code, *error_message;  // "" for none
  };
  const Case cases[] = {
      {kList, "admin:wrong", "GET", 401, "", ""},
      {kList, "", "GET", 401, "", ""},
      {"/cas/casrs/vm/nothing", kAdmin, "GET", 404, "404", "请求的资源不存在"},
      {kList, kAdmin, "DELETE", 405, "405", "不支持该请求方法"},
      {"/index.html", "", "GET", 404, "", ""},  // outside the API: a plain 404
  };
  for (const Case& c : cases) {
    Reply reply = curl(c.target, c.credentials, {"-X", c.method});
    EXPECT_EQ(reply.status, c.status) << c.target << " " << c.credentials;
    EXPECT_EQ(reply.error_code, c.error_code) << c.target;
    EXPECT_EQ(reply.error_message, c.error_message) << c.target;
    EXPECT_TRUE(reply.body.empty()) << reply.body;
    EXPECT_EQ(reply.challenge.rfind(kChallenge, 0) == 0, c.status == 401) << reply.challenge;
  }
}

TEST_F(Cas_Sim_Test, InjectedFaultsShowAsScripted) {
  start();
  struct Case {
    const char* fields;
    int status;
    bool json;
    const char *error_code, *error_message;
  };
  const Case cases[] = {
      {R"("status": 403, "error_code": "1001", "error_message": "用户没有权限")", 403, false,
       "1001", "用户没有权限"},
      {R"("kind": "empty")", 200, false, "", ""},
      {R"("kind": "not_json")", 200, false, "", ""},
      {R"("method": "GET", "status": 500, "body": "{\"x\":1}")", 500, true, "", ""},
  };
  for (const Case& c : cases) {
    Reply added =
        control("POST", "/sim/faults", R"({"path": "/cas/casrs/", )" + std::string(c.fields) + "}");
    ASSERT_EQ(added.status, 200) << added.body;
    Reply reply = curl(kVersion);
    EXPECT_EQ(reply.status, c.status) << c.fields;
    EXPECT_EQ(reply.json().is_discarded(), !c.json) << c.fields << " gave " << reply.body;
    EXPECT_EQ(reply.body.find("E0750"), std::string::npos) << c.fields;
    EXPECT_EQ(reply.error_code, c.error_code);
    EXPECT_EQ(reply.error_message, c.error_message);
    EXPECT_EQ(control("DELETE", "/sim/faults").json()["removed"], 1);
  }

  // A dropped connection: curl retries once on a fresh one, so the fault stays for both.
  ASSERT_EQ(control("POST", "/sim/faults", R"({"path": "/cas/casrs/", "kind": "close"})").status,
            200);
  std::string before = control("GET", "/sim/requests").json()["last_seq"].dump();
  EXPECT_NE(curl(kVersion).curl_exit, 0);
  JSON_Value records = control("GET", "/sim/requests?since=" + before).json()["requests"];
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(records[1]["status"], 0);  // signed, and left without an answer
  EXPECT_EQ(records[1]["user"], "admin");
  EXPECT_EQ(control("DELETE", "/sim/faults").json()["removed"], 1);
  EXPECT_EQ(curl(kVersion).status, 200);
}

TEST_F(Cas_Sim_Test, ControlApiRefusesBadRequests) {
  start();
  struct Case {
    const char *method, *target, *body;
    int status;
    const char* error;
  };
  const Case cases[] = {
      {"POST", "/sim/faults", "{", 400, "invalid JSON body"},
      {"POST", "/sim/faults", R"({"path": "/cas", "extra": 1})", 400, "unknown key 'extra'"},
      {"PUT", "/sim/knobs", R"({"latency_ms": "slow"})", 400, "'latency_ms' is expected as"},
      {"GET", "/sim/requests?since=x", "", 400, "'since' is expected as a sequence number"},
      {"DELETE", "/sim/faults?id=99", "", 404, "no fault 99"},
      {"GET", "/sim/nothing", "", 404, "no control route '/sim/nothing'"},
      {"POST", "/sim/world", "{}", 405, "method POST not allowed on '/sim/world'"},
      {"PUT", "/sim/knobs", R"({"vm_list_conflict": 1})", 400,
       "'vm_list_conflict' is expected as boolean"},
      {"POST", "/sim/tasks", R"({"duration_ms": -1})", 400, "'duration_ms' is expected as"},
      {"POST", "/sim/tasks", R"({"fail": "x"})", 400, "unknown key 'fail'"},
  };
  for (const Case& c : cases) {
    Reply reply = control(c.method, c.target, c.body);
    EXPECT_EQ(reply.status, c.status) << c.method << " " << c.target << " " << c.body;
    EXPECT_NE(reply.json().value("error", "").find(c.error), std::string::npos) << reply.body;
  }
}

TEST_F(Cas_Sim_Test, ServesHttpsWithTheGivenCertificate) {
  Run_Result made = run_program({"/usr/bin/env", "openssl", "req", "-x509", "-newkey", "rsa:2048",
                                 "-nodes", "-keyout", dir_.file("key.pem"), "-out",
                                 dir_.file("cert.pem"), "-days", "2", "-subj", "/CN=127.0.0.1"});
  ASSERT_EQ(made.exit_code, 0) << made.err;
  tls_ = true;
  start({"--tls-cert", dir_.file("cert.pem"), "--tls-key", dir_.file("key.pem")});
  Reply list = curl(kList);
  EXPECT_EQ(list.status, 200) << list.err;
  EXPECT_EQ(list.json()["operator"].size(), 2u);
  tls_ = false;
  EXPECT_EQ(curl(kList).status, 0);  // plain HTTP refused
}

TEST(Cas_Sim_Options, BadOptionsAndWorldsFailWithOneClearLine) {
  Temp_Dir dir;
  const std::string good = dir.file("good.json"), bad = dir.file("bad.json");
  write_text_file(good, kWorld);
  write_text_file(bad, R"({"operators": [{"id": 1, "login_name": "admin", "group_id": 1}]})");
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    const char* error;
  };
  const Case cases[] = {
      {{}, 2, "Missing --world FILE"},
      {{"--world"}, 2, "--world: 1 required TEXT missing"},
      {{"--world", good, "--port", "1"}, 2, "--port"},
      {{"--world", good, "--listen", "127.0.0.1:65536"}, 2, "Invalid --listen '127.0.0.1:65536'"},
      {{"--world", good, "--cvd-listen", "8192"}, 2, "Invalid --cvd-listen '8192'"},
      {{"--world", good, "--tls-cert", good}, 2, "Options --tls-cert and --tls-key go together"},
      {{"--world", dir.file("absent.json")}, 1, "Failed to read world file"},
      {{"--world", bad}, 1, "operators[0]: missing key 'password'"},
      {{"--world", good, "--tls-cert", bad, "--tls-key", bad},
       1,
       "Failed to load the TLS certificate"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {bin_path("cas-sim")};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    Run_Result run = run_program(argv, "", {}, 30);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.error << "\n" << run.err;
    EXPECT_NE(run.err.find(c.error), std::string::npos) << c.error << "\n" << run.err;
    // A usage error adds a pointer to --help.
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), c.exit_code == 2 ? 2 : 1)
        << run.err;
  }
}

}  // namespace
