#include "tests/unit/h3ccas/support.h"

#include <sstream>

namespace h3ccas {
namespace {
const char kVmList[] = "/cas/casrs/vm/vmList";
const char kHosts[] = "/cas/casrs/host";
const char kMessage[] = "/cas/casrs/message/42";

JSON_Value vm_json(const S& id, const S& title, const S& host) {
  JSON_Value vm = json(R"({"vmStatus":"running","hostName":"cvk","cpu":"2","memory":"2048"})");
  vm.merge_patch({{"id", id}, {"name", "vm-" + id}, {"title", title}, {"hostId", host}});
  vm["uuid"] = "uuid-" + id;
  return vm;
}
JSON_Value host_json(const S& id) {
  return {{"id", id}, {"ip", "10.0.0." + id}, {"name", "cvk" + id}, {"status", "1"}};
}
Digest_Peer::Answer answer(const JSON_Value& body, int status = 200) {
  return Digest_Peer::json(body.dump(), status);
}
S ids(const std::vector<VM_Info>& vms) {
  S out;
  for (const VM_Info& vm : vms)
    out += vm.id_ + " ";
  return out;
}

TEST_F(Cas_Peer, WaitsForTasks) {
  const S missed = "Message ID missed in CAS '127.0.0.1' async task(start VM) response",
          invalid = "Invalid response of CAS async task progress: ",
          failed = "Failed to start VM on CAS '127.0.0.1', error: ", started = R"({"msgId":"42"})",
          running = R"({"completed":"false","result":"0"})", done = R"({"completed":"true")";
  // the answers to the polls are separated by blanks, the last one repeats
  const std::tuple<S, S, bool, bool, int, S, S, S> cases[] = {
      {R"({"errorCode":"0"})", "", false, true, 0, "", "", ""},  // finished at once
      {R"({"errorCode":"0"})", "", true, false, 0, missed + ", error code = '0'.\n", "", ""},
      {R"({"errorCode":1017})", "", false, false, 0, missed + ", error code = '1017'.\n", "", ""},
      {"{}", "", false, false, 0, missed + ", error code = ''.\n", "", ""},
      {R"([{"msgId":"42"}])", "", false, false, 0, "task is not object!\n", "", ""},
      {started, running + " " + done + R"(,"result":"1","failMsg":"busy"})", false, false, 2,
       failed + "'busy'.\n", "busy", ""},
      {started, running + " " + running + " " + done + R"(,"result":"0","targetId":"vm-9"})", true,
       true, 3, "", "", "vm-9"},
      // Only the last answer's result counts.
      {started, running + " " + done + "}", false, false, 2, failed + "''.\n", "", ""},
      {started, R"({"completed":true,"result":"0"})", false, false, 1,
       invalid + "'completed' is expected as string, message_id=42.\n", "", ""},
      {started, "[]", false, false, 1, invalid + "expected an object, got array, message_id=42.\n",
       "", ""},
      {started, done + R"(,"result":"0"})", true, false, 1,
       "Failed to get target id after CAS 'start VM' on CVK '127.0.0.1'.\n", "", ""},
  };
  Test_Client client(cvm());
  for (const auto& [task, answers, want_target, ok, polls, line, fail_msg, want_id] : cases) {
    SCOPED_TRACE(task + std::to_string(polls));
    std::vector<S> progress;
    std::istringstream words(answers);
    for (S word; words >> word;)
      progress.push_back(word);
    if (!progress.empty())
      peer_.set(kMessage, Digest_Peer::json(progress[0]));
    client.sleeps = 0;
    client.on_sleep = [this, &progress](int n) {
      if (static_cast<std::size_t>(n) < progress.size())
        peer_.set(kMessage, Digest_Peer::json(progress[n]));
    };
    std::size_t before = peer_.seen().accepted.size();
    Log_Capture log;
    S target;
    EXPECT_EQ(client.wait_task("start VM", json(task), want_target ? &target : nullptr), ok);
    EXPECT_EQ(peer_.targets(before), std::vector<S>(polls, kMessage));
    // Every poll is followed by its pause, the one that saw completion included; a malformed
    // answer ends the wait before it.
    EXPECT_EQ(client.sleeps, line.find("Invalid response") == 0 ? polls - 1 : polls);
    EXPECT_EQ(std::tuple(client.task_fail_msg(), target), std::tuple(fail_msg, want_id));
    EXPECT_TRUE(line.empty() ? log.text().empty() : log.contains(line)) << log.text();
  }
  // A poll that fails ends the wait; the CAS error then describes the poll.
  peer_.set(kMessage, {500, "{}", {{"Error-Code", "7"}}});
  Log_Capture log;
  EXPECT_FALSE(client.wait_task("start VM", json(started), nullptr));
  EXPECT_TRUE(log.contains(
      "Failed to get progress of CAS '127.0.0.1' async task(start VM), message_id=42.\n"));
  EXPECT_EQ(client.last_error_code(), "7");
}

using O = std::optional<S>;
using Call = std::function<O(RESTful_Client&)>;

TEST_F(Cas_Peer, InventoryRoutes) {
  using C = RESTful_Client;
  // Each route: what it asks, the answer and a summary of what it loaded (nothing on failure).
  const std::tuple<const char*, S, Call, const char*> routes[] = {
      // By id, the later of two entries wins; no body is an empty list.
      {kHosts, R"({"host":[{"id":"3","ip":"i","name":"old","status":"1"},
          {"id":"4","ip":"i","name":"cvk4","status":"1"},{"id":"3","ip":"i","name":"new","status":"1"}]})",
       [](C& c) -> O {
         std::unordered_map<S, CVK_Host> m;
         if (!c.list_host(m))
           return std::nullopt;
         return m.empty() ? "0" : std::to_string(m.size()) + m.at("3").name_ + m.at("4").name_;
       },
       "2newcvk4"},
      {"/cas/casrs/vm/detail/7", R"({"basic":{"name":"vm1"},"cpu":{},"memory":{}})",
       [](C& c) -> O {
         VM_Detail out;
         return c.get_vm_detail("7", out) ? O(out.basic_.dump()) : std::nullopt;
       },
       R"({"name":"vm1"})"},
      // Flags are spelled in lower case; an absent optional one is a no.
      {"/cas/casrs/vm/7/capabilities",
       R"({"supportSnapshot":"true","supportCbt":"True","supportExternalSnapshotFastBackup":"true"})",
       [](C& c) -> O {
         VM_Capabilities f;
         f.support_external_snapshot = true;
         if (!c.get_vm_capabilities("7", f))
           return std::nullopt;
         return std::to_string(f.support_snapshot * 1000 + f.support_cbt * 100 +
                               f.support_external_snapshot * 10 + f.support_external_cbt);
       },
       "1001"},
      {"/cas/casrs/vm/snapshot/7", R"({"snapshot":{"name":"root","snapshotMode":"0",
           "snapshots":{"snapshot":{"name":"s1","snapshotMode":"0"}}}})",
       [](C& c) -> O {
         auto root = c.get_snapshot_info("7");
         return root ? O(root->name + " " + root->children.at(0).name) : std::nullopt;
       },
       "root s1"},
  };
  JSON_Value every_key_text, every_key_bad_record;
  for (const char* key : {"host", "snapshot", "basic", "cpu", "memory", "supportSnapshot"}) {
    every_key_text[key] = "x";
    every_key_bad_record[key] = JSON_Value::array({{{"id", 5}, {"name", 6}}});
  }
  const JSON_Value wrong[] = {JSON_Value::array({1, 2}), "text", every_key_text,
                              every_key_bad_record, json(R"({"supportSnapshot":"true"})")};
  RESTful_Client client(cvm());
  for (const auto& [target, body_text, call, loaded] : routes) {
    SCOPED_TRACE(target);
    peer_.set(target, Digest_Peer::json(body_text));
    std::size_t before = peer_.seen().accepted.size();
    EXPECT_EQ(call(client), loaded);
    EXPECT_EQ(peer_.targets(before), std::vector<S>{target});
    peer_.set(target, Digest_Peer::json(""));
    EXPECT_EQ(call(client), target == kHosts ? O("0") : std::nullopt);
    for (const JSON_Value& body : wrong) {
      peer_.set(target, answer(body));
      Log_Capture log;
      EXPECT_EQ(call(client), std::nullopt) << body;
      EXPECT_NE(log.count(LM_ERROR), 0u) << body;
    }
    peer_.set(target, {500, "{}", {{"Error-Code", "1001"}}});
    EXPECT_EQ(call(client), std::nullopt);
    EXPECT_EQ(client.last_error_code(), "1001");
  }
  // The reasons that name what CAS sent.
  peer_.set("/cas/casrs/vm/snapshot/7", answer({{"snapshot", {{"name", "root"}}}}));
  peer_.set("/cas/casrs/vm/7/capabilities", answer({{"supportCbt", "true"}}));
  Log_Capture log;
  VM_Capabilities caps;
  EXPECT_FALSE(client.get_snapshot_info("7") || client.get_vm_capabilities("7", caps));
  EXPECT_EQ(messages(log),
            "Unrecognized CAS snapshot info: missing key 'snapshotMode'\n"
            "{\"snapshot\":{\"name\":\"root\"}}\n"
            "Unrecognized response of CAS VM capabilities request: missing key "
            "'supportSnapshot'.\n");
}

// The VM list of a host, or of all without one.
S host_vms(const S& id = "") {
  return kVmList + S(id.empty() ? "?" : "?hostId=" + id + "&") + "sortField=title";
}
Digest_Peer::Answer domain(std::vector<JSON_Value> vms) {
  return answer({{"domain", vms}});
}

TEST_F(Cas_Peer, AllVMsFallBackHostByHostOnConflictOnly) {
  const S unfiltered = host_vms();
  peer_.set(unfiltered, {409, "{}", {{"Error-Code", "1409"}}});
  peer_.set(kHosts,
            answer({{"host", {host_json("1"), host_json("2"), host_json("3"), host_json("4")}}}));
  peer_.set(host_vms("1"), domain({vm_json("1b", "b", "1"), vm_json("1c", "c", "1")}));
  peer_.set(host_vms("2"), {500, "{}", {}});
  // One bad record drops the whole host, not only that record.
  JSON_Value bad = vm_json("4z", "z", "4");
  bad.erase("uuid");
  peer_.set(host_vms("4"), domain({vm_json("4y", "y", "4"), bad}));
  peer_.set(host_vms("3"),
            domain({vm_json("3a", "a", "3"), vm_json("3c", "c", "3"), vm_json("3e", "e", "3")}));
  RESTful_Client client(cvm());
  Log_Capture log;
  std::vector<VM_Info> vms;
  ASSERT_TRUE(client.list_all_vm(vms));
  // Titles from "e" to "a"; the two "c" keep the order of their hosts.
  EXPECT_EQ(ids(vms), "3e 1c 3c 1b 3a ");
  EXPECT_EQ(peer_.targets(), (std::vector<S>{unfiltered, kHosts, host_vms("1"), host_vms("2"),
                                             host_vms("3"), host_vms("4")}));
  EXPECT_TRUE(
      log.contains("Failed to list CAS VM. Retrying to list VM again, which may be slow.\n"));
  EXPECT_TRUE(log.contains("Skipped VMs of CAS host 'cvk2' (id 2), failed to list them.\n"));
  EXPECT_TRUE(log.contains("'cvk4'")) << log.text();
  EXPECT_FALSE(log.contains("'cvk1'")) << log.text();
  // Other failures of the unfiltered list are final, as is a conflict when the hosts fail.
  Test_Client test(cvm());
  const std::size_t from = peer_.seen().accepted.size();
  peer_.set(unfiltered, {500, "{}", {}});
  vms.clear();
  EXPECT_FALSE(test.list_all_vm(vms));
  EXPECT_EQ(test.last_status(), 500);
  EXPECT_EQ(peer_.targets(from), std::vector<S>{unfiltered});
  peer_.set(unfiltered, {409, "{}", {}});
  peer_.set(kHosts, {503, "{}", {}});
  EXPECT_FALSE(test.list_all_vm(vms));
  EXPECT_EQ(peer_.targets(from + 1), (std::vector<S>{unfiltered, kHosts}));
  EXPECT_TRUE(vms.empty());
  // A request that gets no answer leaves no status behind from the one before.
  EXPECT_EQ(test.last_status(), 503);
  test.clock += 60;  // a new session: its challenge now fails
  peer_.answer_unsigned({200, "{}", {}});
  EXPECT_FALSE(test.list_all_vm(vms));
  EXPECT_EQ(test.last_status(), 0);
}
}  // namespace
}  // namespace h3ccas
