#include "h3ccas/restful_client.h"

#include "tests/unit/h3ccas/support.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace h3ccas {
namespace {

const char kVmList[] = "/cas/casrs/vm/vmList";
const char kHosts[] = "/cas/casrs/host";
const char kMessage[] = "/cas/casrs/message/42";

JSON_Value vm_json(const std::string& id, const std::string& title, const std::string& host_id) {
  return {{"id", id},
          {"name", "vm-" + id},
          {"title", title},
          {"vmStatus", "running"},
          {"hostId", host_id},
          {"hostName", "cvk"},
          {"cpu", "2"},
          {"memory", "2048"},
          {"uuid", "uuid-" + id}};
}

JSON_Value host_json(const std::string& id, const std::string& name) {
  return {{"id", id}, {"ip", "10.0.0." + id}, {"name", name}, {"status", "1"}};
}

Digest_Peer::Answer answer(const JSON_Value& body, int status = 200) {
  return Digest_Peer::json(body.dump(), status);
}

// Targets of the accepted requests from `from` on.
std::vector<std::string> targets(const Digest_Peer& peer, std::size_t from = 0) {
  std::vector<std::string> out;
  auto accepted = peer.seen().accepted;
  for (std::size_t i = from; i < accepted.size(); ++i)
    out.push_back(accepted[i].target);
  return out;
}

std::vector<std::string> ids(const std::vector<VM_Info>& vms) {
  std::vector<std::string> out;
  for (const VM_Info& vm : vms)
    out.push_back(vm.id_);
  return out;
}

TEST(Cas_Lists, ExtractsEdgeShapes) {
  RESTful_Client client(make_cvm(80, "u", "p"));
  // response, success, log
  const std::tuple<JSON_Value, bool, const char*> cases[] = {
      {{{"host", JSON_Value::array()}}, true, ""},
      {{{"host", JSON_Value::object()}}, true, ""},  // a bare (if empty) member
      {JSON_Value::object(), false,
       "Unknown response type 0 from '/cas/casrs/host', key = host.\n"},
      {{{"host", "h1"}}, false, "Unknown response type 3 from '/cas/casrs/host', key = host.\n"},
      {JSON_Value::array({1}), false,
       "Expect JSON object response from '/cas/casrs/host', got 2.\n"},
  };
  for (const auto& [response, ok, message] : cases) {
    Log_Capture log;
    std::vector<JSON_Value> out;
    EXPECT_EQ(client.extract_list(kHosts, "host", JSON_Value(response), out), ok) << response;
    EXPECT_EQ(out.size(), response.contains("host") && response["host"].is_object() ? 1u : 0u);
    EXPECT_TRUE(log.contains(message)) << log.text();
  }
}

TEST(Cas_Lists, LoadStopsAtTheFirstBadRecord) {
  JSON_Value no_uuid = vm_json("2", "b", "1");
  no_uuid.erase("uuid");
  std::vector<VM_Info> vms;
  {
    Log_Capture log;
    EXPECT_FALSE(
        RESTful_Client::load_list({vm_json("1", "a", "1"), no_uuid, vm_json("3", "c", "1")}, vms));
    EXPECT_TRUE(log.contains("Invalid CAS VM info entry")) << log.text();
  }
  EXPECT_EQ(ids(vms), std::vector<std::string>{"1"});

  // Appended after what was there.
  std::vector<Block> blocks(1);
  EXPECT_TRUE(RESTful_Client::load_list({{{"offset", "4096"}, {"length", "512"}}}, blocks));
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[1].offset_, 4096u);
  EXPECT_EQ(blocks[1].length_, 512u);
  EXPECT_FALSE(RESTful_Client::load_list({{{"offset", "x"}, {"length", "1"}}}, blocks));
  EXPECT_EQ(blocks.size(), 2u);
}

TEST_F(Cas_Peer, WaitsForTasks) {
  const JSON_Value started = {{"msgId", "42"}};
  const JSON_Value running = {{"completed", "false"}, {"result", "0"}};
  const JSON_Value done = {{"completed", "true"}, {"result", "0"}, {"targetId", "vm-9"}};
  struct Case {
    const char* what;
    JSON_Value task;
    std::vector<JSON_Value> progress;  // the answer to each poll; the last one repeats
    bool want_target;
    bool ok;
    int polls;
    const char* log = "";
    const char* fail_msg = "";
    const char* target = "";
  } const cases[] = {
      {"finished at once", {{"errorCode", "0"}}, {}, false, true, 0},
      {"finished at once, id wanted",
       {{"errorCode", "0"}},
       {},
       true,
       false,
       0,
       "Message ID missed in CAS '127.0.0.1' async task(start VM) response, error code = '0'.\n"},
      {"refused at once",
       {{"errorCode", "1017"}},
       {},
       false,
       false,
       0,
       "Message ID missed in CAS '127.0.0.1' async task(start VM) response, error code = "
       "'1017'.\n"},
      {"no code either",
       JSON_Value::object(),
       {},
       false,
       false,
       0,
       "Message ID missed in CAS '127.0.0.1' async task(start VM) response, error code = ''.\n"},
      {"not an object", JSON_Value::array({started}), {}, false, false, 0, "task is not object!\n"},
      {"task failed",
       started,
       {running, {{"completed", "true"}, {"result", "1"}, {"failMsg", "disk busy"}}},
       false,
       false,
       2,
       "Failed to start VM on CAS '127.0.0.1', error: 'disk busy'.\n",
       "disk busy"},
      {"done on the first poll", started, {done}, false, true, 1},
      {"done after polls, id wanted",
       started,
       {running, running, done},
       true,
       true,
       3,
       "",
       "",
       "vm-9"},
      {"only the last answer's result counts",
       started,
       {running, {{"completed", "true"}}},
       false,
       false,
       2,
       "Failed to start VM on CAS '127.0.0.1', error: ''.\n"},
      {"completed of the wrong type",
       started,
       {{{"completed", true}, {"result", "0"}}},
       false,
       false,
       1,
       "Invalid response of CAS async task progress: 'completed' is expected as string, "
       "message_id=42.\n"},
      {"progress not an object",
       started,
       {JSON_Value::array()},
       false,
       false,
       1,
       "Invalid response of CAS async task progress: expected an object, got array, "
       "message_id=42.\n"},
      {"no target id",
       started,
       {{{"completed", "true"}, {"result", "0"}}},
       true,
       false,
       1,
       "Failed to get target id after CAS 'start VM' on CVK '127.0.0.1'.\n"},
  };
  Test_Client client(cvm());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto& progress = c.progress;
    if (!progress.empty())
      peer_.set(kMessage, answer(progress[0]));
    client.sleeps = 0;
    client.on_sleep = [this, &progress](int n) {
      if (static_cast<std::size_t>(n) < progress.size())
        peer_.set(kMessage, answer(progress[n]));
    };
    std::size_t before = peer_.seen().accepted.size();
    Log_Capture log;
    std::string target;
    EXPECT_EQ(client.wait_task("start VM", c.task, c.want_target ? &target : nullptr), c.ok);
    EXPECT_EQ(targets(peer_, before), std::vector<std::string>(c.polls, kMessage));
    // Every poll is followed by its pause, the one that saw completion included; a malformed
    // answer ends the wait before it.
    bool malformed = std::string(c.log).find("Invalid response") == 0;
    EXPECT_EQ(client.sleeps, malformed ? c.polls - 1 : c.polls);
    EXPECT_EQ(client.task_fail_msg(), c.fail_msg);
    EXPECT_EQ(target, c.target);
    EXPECT_TRUE(log.contains(c.log)) << log.text();
    if (c.ok) {
      EXPECT_EQ(log.text(), "");
    }
  }

  // A poll that fails ends the wait; the CAS error then describes the poll.
  peer_.set(kMessage, {500, "{}", {{"Error-Code", "7"}}});
  Log_Capture log;
  EXPECT_FALSE(client.wait_task("start VM", started, nullptr));
  EXPECT_TRUE(log.contains(
      "Failed to get progress of CAS '127.0.0.1' async task(start VM), message_id=42.\n"))
      << log.text();
  EXPECT_EQ(client.last_error_code(), "7");
  EXPECT_EQ(client.last_status(), 500);
}

// One route of the inventory: what it asks and a summary of what it loaded (nothing on failure).
struct Route {
  const char* what;
  const char* path;
  const char* target;
  JSON_Value answer;
  std::function<std::optional<std::string>(RESTful_Client&)> call;
  const char* loaded;
  bool is_list = true;
};

template <class T, class F>
std::optional<std::string> summarise_list(bool ok, const std::vector<T>& out, F first) {
  if (!ok)
    return std::nullopt;
  return std::to_string(out.size()) + (out.empty() ? "" : " " + first(out.front()));
}

std::vector<Route> routes() {
  const JSON_Value host = host_json("3", "cvk3");
  JSON_Value host_detail = host;
  host_detail.update({{"memorySize", "16384"}, {"cpuCount", "2"}, {"cpuCores", "8"}});
  return {
      {"hosts",
       kHosts,
       kHosts,
       {{"host", {host, host_json("4", "cvk4")}}},
       [](RESTful_Client& c) {
         std::vector<CVK_Host> out;
         return summarise_list(c.list_host(out), out, [](const CVK_Host& h) { return h.name_; });
       },
       "2 cvk3"},
      {"VMs of a host",
       kVmList,
       "/cas/casrs/vm/vmList?hostId=h%201&sortField=title",
       {{"domain", {vm_json("7", "web", "h 1")}}},
       [](RESTful_Client& c) {
         std::vector<VM_Info> out;
         return summarise_list(c.list_vm("h 1", out), out,
                               [](const VM_Info& v) { return v.display_name_; });
       },
       "1 web"},
      {"all VMs",
       kVmList,
       "/cas/casrs/vm/vmList?sortField=title",
       {{"domain", {vm_json("7", "web", "1"), vm_json("8", "db", "1")}}},
       [](RESTful_Client& c) {
         std::vector<VM_Info> out;
         return summarise_list(c.list_all_vm(out), out, [](const VM_Info& v) { return v.id_; });
       },
       "2 7"},
      {"storage pools",
       "/cas/casrs/storage/pool",
       "/cas/casrs/storage/pool?hostId=3",
       {{"storagePool",
         {{{"name", "defaultpool"},
           {"type", "dir"},
           {"path", "/vms/images"},
           {"totalSize", "1024"},
           {"status", "1"},
           {"freeSize", "512"}}}}},
       [](RESTful_Client& c) {
         std::vector<CAS_Storage_Pool> out;
         return summarise_list(c.list_storage_pool("3", out), out,
                               [](const CAS_Storage_Pool& p) { return p.path_; });
       },
       "1 /vms/images"},
      {"storage volumes",
       "/cas/casrs/storage/volume",
       "/cas/casrs/storage/volume?hostId=3&poolName=pool%20a",
       {{"storageVolume", {{{"size", "2"}, {"users", "vm1"}, {"name", "disk1.qcow2"}}}}},
       [](RESTful_Client& c) {
         std::vector<CAS_Storage_Volume> out;
         return summarise_list(c.list_storage_volume("3", "pool a", out), out,
                               [](const CAS_Storage_Volume& v) {
                                 return v.name_ + " " + std::to_string(v.total_bytes_);
                               });
       },
       "1 disk1.qcow2 2097152"},
      {"host detail", "/cas/casrs/host/id/3", "/cas/casrs/host/id/3", host_detail,
       [](RESTful_Client& c) -> std::optional<std::string> {
         CVK_Host_Detail out;
         if (!c.get_host_detail("3", out))
           return std::nullopt;
         return out.basic_.name_ + " " + std::to_string(out.cpu_cores_);
       },
       "cvk3 8", false},
      {"virtual switches",
       "/cas/casrs/host/id/3/vswitch",
       "/cas/casrs/host/id/3/vswitch",
       {{"vSwitch",
         {{{"id", "1"},
           {"name", "vswitch0"},
           {"address", "10.0.0.3"},
           {"gateway", "10.0.0.1"},
           {"status", "1"},
           {"networkType", "9"}}}}},
       [](RESTful_Client& c) {
         std::vector<Virtual_Switch> out;
         return summarise_list(c.list_virtual_switch("3", out), out,
                               [](const Virtual_Switch& v) { return v.name_; });
       },
       "1 vswitch0"},
      {"port profiles",
       "/cas/casrs/profile",
       "/cas/casrs/profile",
       {{"portProfile", {{{"id", "1"}, {"name", "Default"}}, {{"id", "2"}, {"name", "vlan7"}}}}},
       [](RESTful_Client& c) {
         std::vector<Port_Profile> out;
         return summarise_list(c.list_port_profile(out), out,
                               [](const Port_Profile& p) { return p.name_; });
       },
       "2 Default"},
      {"VM detail",
       "/cas/casrs/vm/detail/7",
       "/cas/casrs/vm/detail/7",
       {{"basic", {{"name", "vm1"}}},
        {"cpu", {{"cpuSockets", "1"}, {"cpuCores", "2"}}},
        {"memory", {{"size", "2048"}}}},
       [](RESTful_Client& c) -> std::optional<std::string> {
         VM_Detail out;
         if (!c.get_vm_detail("7", out))
           return std::nullopt;
         return out.basic_["name"].get<std::string>();
       },
       "vm1",
       false},
      {"capabilities",
       "/cas/casrs/vm/7/capabilities",
       "/cas/casrs/vm/7/capabilities",
       {{"supportSnapshot", "true"}, {"supportCbt", "True"}, {"supportExternalSnapshot", "true"}},
       [](RESTful_Client& c) -> std::optional<std::string> {
         VM_Capabilities caps;
         caps.support_external_cbt = true;  // an absent flag is a no
         if (!c.get_vm_capabilities("7", caps))
           return std::nullopt;
         return std::to_string(caps.support_snapshot) + std::to_string(caps.support_cbt) +
                std::to_string(caps.support_external_snapshot) +
                std::to_string(caps.support_external_cbt);
       },
       "1010",
       false},
      {"snapshots",
       "/cas/casrs/vm/snapshot/7",
       "/cas/casrs/vm/snapshot/7",
       {{"snapshot", {{"name", "root"}, {"snapshotMode", "0"}}}},
       [](RESTful_Client& c) -> std::optional<std::string> {
         auto root = c.get_snapshot_info("7");
         if (!root)
           return std::nullopt;
         return root->name + " " + std::to_string(root->children.size());
       },
       "root 0",
       false},
  };
}

TEST_F(Cas_Peer, InventoryRoutes) {
  RESTful_Client client(cvm());
  for (const Route& route : routes()) {
    SCOPED_TRACE(route.what);
    peer_.set(route.path, answer(route.answer));
    std::size_t before = peer_.seen().accepted.size();
    EXPECT_EQ(route.call(client), route.loaded);
    EXPECT_EQ(targets(peer_, before), std::vector<std::string>{route.target});

    // No body: an empty list for lists, a failure for the rest.
    peer_.set(route.path, Digest_Peer::json(""));
    EXPECT_EQ(route.call(client), route.is_list ? std::optional<std::string>("0") : std::nullopt);
  }
}

TEST_F(Cas_Peer, InventoryRoutesRefuseWrongShapes) {
  JSON_Value every_key_text, every_key_bad_record;
  for (const char* key : {"host", "domain", "storagePool", "storageVolume", "vSwitch",
                          "portProfile", "snapshot", "basic", "cpu", "memory", "supportSnapshot"}) {
    every_key_text[key] = "x";
    every_key_bad_record[key] = JSON_Value::array({{{"id", 5}, {"name", 6}}});
  }
  const JSON_Value wrong[] = {JSON_Value::array({1, 2}), "text", 12, every_key_text,
                              every_key_bad_record};
  RESTful_Client client(cvm());
  for (const Route& route : routes()) {
    for (const JSON_Value& body : wrong) {
      SCOPED_TRACE(std::string(route.what) + " " + body.dump());
      peer_.set(route.path, answer(body));
      Log_Capture log;
      EXPECT_EQ(route.call(client), std::nullopt);
      EXPECT_NE(log.text(), "");
    }
    peer_.set(route.path, {500, "{}", {{"Error-Code", "1001"}}});
    EXPECT_EQ(route.call(client), std::nullopt) << route.what;
    EXPECT_EQ(client.last_error_code(), "1001") << route.what;
  }
}

TEST_F(Cas_Peer, SnapshotTreeAndItsErrors) {
  peer_.set(
      "/cas/casrs/vm/snapshot/7",
      answer(
          {{"snapshot",
            {{"name", "root"},
             {"snapshotMode", "0"},
             {"snapshots",
              {{"snapshot",
                {{{"name", "s1"}, {"snapshotMode", "1"}},
                 {{"name", "s2"},
                  {"snapshotMode", "0"},
                  {"snapshots", {{"snapshot", {{"name", "s3"}, {"snapshotMode", "0"}}}}}}}}}}}}}));
  RESTful_Client client(cvm());
  auto root = client.get_snapshot_info("7");
  ASSERT_TRUE(root);
  ASSERT_EQ(root->children.size(), 2u);
  EXPECT_TRUE(root->children[0].is_internal);
  EXPECT_EQ(root->children[1].name, "s2");
  ASSERT_EQ(root->children[1].children.size(), 1u);
  EXPECT_EQ(root->children[1].children[0].name, "s3");

  // The whole answer goes with the reason.
  peer_.set("/cas/casrs/vm/snapshot/7", answer({{"snapshot", {{"name", "root"}}}}));
  Log_Capture log;
  EXPECT_FALSE(client.get_snapshot_info("7"));
  EXPECT_TRUE(log.contains("Unrecognized CAS snapshot info: "));
  EXPECT_TRUE(log.contains("\n{\"snapshot\":{\"name\":\"root\"}}\n")) << log.text();
}

TEST_F(Cas_Peer, CapabilitiesNeedTheirRequiredFlags) {
  const char path[] = "/cas/casrs/vm/7/capabilities";
  RESTful_Client client(cvm());
  for (const char* missing : {"supportSnapshot", "supportCbt"}) {
    JSON_Value body = {{"supportSnapshot", "true"}, {"supportCbt", "true"}};
    body.erase(missing);
    peer_.set(path, answer(body));
    Log_Capture log;
    VM_Capabilities caps;
    EXPECT_FALSE(client.get_vm_capabilities("7", caps));
    EXPECT_TRUE(log.contains(std::string("Unrecognized response of CAS VM capabilities request: "
                                         "missing key '") +
                             missing + "'.\n"))
        << log.text();
  }
  peer_.set(path, answer({{"supportSnapshot", "true"},
                          {"supportCbt", "true"},
                          {"supportExternalSnapshotFastBackup", "true"}}));
  VM_Capabilities caps;
  ASSERT_TRUE(client.get_vm_capabilities("7", caps));
  EXPECT_TRUE(caps.support_snapshot && caps.support_cbt && caps.support_external_cbt);
  EXPECT_FALSE(caps.support_external_snapshot);
}

TEST_F(Cas_Peer, HostsFromBareObjectsAndById) {
  RESTful_Client client(cvm());
  peer_.set(kHosts, answer({{"host", host_json("3", "cvk3")}}));
  std::vector<CVK_Host> hosts;
  ASSERT_TRUE(client.list_host(hosts));
  ASSERT_EQ(hosts.size(), 1u);
  EXPECT_EQ(hosts[0].ip_, "10.0.0.3");

  peer_.set(
      kHosts,
      answer({{"host", {host_json("3", "old"), host_json("4", "cvk4"), host_json("3", "new")}}}));
  std::unordered_map<std::string, CVK_Host> by_id;
  ASSERT_TRUE(client.list_host(by_id));
  EXPECT_EQ(by_id.size(), 2u);
  EXPECT_EQ(by_id["3"].name_, "new");
  EXPECT_EQ(by_id["4"].name_, "cvk4");
}

class Cas_All_VMs : public Cas_Peer {
 protected:
  static std::string host_vms(const std::string& host_id) {
    return std::string(kVmList) + "?hostId=" + host_id + "&sortField=title";
  }
  const std::string unfiltered_ = std::string(kVmList) + "?sortField=title";
};

TEST_F(Cas_All_VMs, FallsBackHostByHostOnConflict) {
  peer_.set(unfiltered_, {409, "{}", {{"Error-Code", "1409"}}});
  peer_.set(kHosts, answer({{"host",
                             {host_json("1", "cvk1"), host_json("2", "cvk2"),
                              host_json("3", "cvk3"), host_json("4", "cvk4")}}}));
  peer_.set(host_vms("1"),
            answer({{"domain", {vm_json("1b", "b", "1"), vm_json("1c", "c", "1")}}}));
  peer_.set(host_vms("2"), {500, "{}", {}});
  // One bad record drops the whole host, not only that record.
  JSON_Value bad = vm_json("4z", "z", "4");
  bad.erase("uuid");
  peer_.set(host_vms("4"), answer({{"domain", {vm_json("4y", "y", "4"), bad}}}));
  peer_.set(
      host_vms("3"),
      answer({{"domain",
               {vm_json("3a", "a", "3"), vm_json("3c", "c", "3"), vm_json("3e", "e", "3")}}}));
  RESTful_Client client(cvm());
  Log_Capture log;
  std::vector<VM_Info> vms;
  ASSERT_TRUE(client.list_all_vm(vms));
  // Titles from "e" to "a"; the two "c" keep the order of their hosts.
  EXPECT_EQ(ids(vms), (std::vector<std::string>{"3e", "1c", "3c", "1b", "3a"}));
  EXPECT_EQ(targets(peer_),
            (std::vector<std::string>{unfiltered_, kHosts, host_vms("1"), host_vms("2"),
                                      host_vms("3"), host_vms("4")}));
  EXPECT_TRUE(
      log.contains("Failed to list CAS VM. Retrying to list VM again, which may be slow.\n"));
  EXPECT_TRUE(log.contains("'cvk2'")) << log.text();
  EXPECT_TRUE(log.contains("'cvk4'")) << log.text();
  EXPECT_FALSE(log.contains("'cvk1'")) << log.text();
}

TEST_F(Cas_All_VMs, FailsWithoutFallbackOrHosts) {
  peer_.set(kHosts, answer({{"host", {host_json("1", "cvk1")}}}));
  peer_.set(host_vms("1"), answer({{"domain", {vm_json("1a", "a", "1")}}}));
  Test_Client client(cvm());
  std::vector<VM_Info> vms;

  peer_.set(unfiltered_, {500, "{}", {}});
  Log_Capture log;
  EXPECT_FALSE(client.list_all_vm(vms));
  EXPECT_EQ(client.last_status(), 500);
  EXPECT_EQ(targets(peer_), std::vector<std::string>{unfiltered_});
  EXPECT_FALSE(log.contains("Retrying"));

  // The hosts cannot be listed either.
  peer_.set(unfiltered_, {409, "{}", {}});
  peer_.set(kHosts, {503, "{}", {}});
  EXPECT_FALSE(client.list_all_vm(vms));
  EXPECT_EQ(targets(peer_, 1), (std::vector<std::string>{unfiltered_, kHosts}));
  EXPECT_TRUE(vms.empty());

  // A request that gets no answer leaves no status behind from the one before.
  EXPECT_EQ(client.last_status(), 503);
  client.clock += 60;  // a new session: its challenge now fails
  peer_.answer_unsigned({200, "{}", {}});
  EXPECT_FALSE(client.list_all_vm(vms));
  EXPECT_EQ(client.last_status(), 0);
}

TEST_F(Cas_All_VMs, KeepsCasOrderWhenListedAtOnce) {
  peer_.set(unfiltered_, answer({{"domain", {vm_json("1", "a", "1"), vm_json("2", "b", "2")}}}));
  RESTful_Client client(cvm());
  std::vector<VM_Info> vms;
  ASSERT_TRUE(client.list_all_vm(vms));
  EXPECT_EQ(ids(vms), (std::vector<std::string>{"1", "2"}));
  EXPECT_EQ(client.last_status(), 200);
}

}  // namespace
}  // namespace h3ccas
