#include "tests/unit/h3ccas/support.h"

namespace h3ccas {
namespace {

using S = std::string;
using P = Digest_Peer;

std::string text(const std::vector<Block>& blocks) {
  std::string out;
  for (const Block& b : blocks)
    out += std::to_string(b.offset_) + "+" + std::to_string(b.length_) + " ";
  return out;
}

// Each operation's one request as the CVM receives it, the task it waits for (or not) and all
// it logs.
TEST_F(Cas_Peer, StateAndBlockOperations) {
  using Call = std::function<bool(RESTful_Client&, S & got)>;
  const S started = R"({"msgId":"42"})", done = R"({"completed":"true","result":"0"})",
          busy = R"({"completed":"true","result":"1","failMsg":"busy"})";
  const S blocks = R"({"dataBlockInfo":[{"offset":"0","length":"4096"},{"offset":"65536",)"
                   R"("length":"512"}]})";
  const S cbt = "/cas/casrs/vm/disk/changedBlockTracker";
  const auto failed = [](const char* task, const char* why) {
    return "Failed to " + S(task) + " on CAS '127.0.0.1', error: '" + why + "'.\n";
  };
  const auto cas_error = [](const char* request, const char* code) {
    return "CAS request '" + S(request) + "' returns error, http status = 500, error code = '" +
           code + "', message = ''.\n";
  };
  const auto snapshot = [](bool internal, bool mem, bool no_stop) -> Call {
    return [=](RESTful_Client& c, S&) {
      return c.create_snapshot("7", "web", "Brimlet5", mem, no_stop, internal, 30);
    };
  };
  const auto disk_blocks = [](const char* snap) -> Call {
    return [=](RESTful_Client& c, S& got) {
      std::vector<Block> out(1, Block{9, 1});  // appended to
      bool ok = c.get_disk_blocks("1", "7", "/vms/a b.qcow2", snap, out);
      got = text(out);
      return ok;
    };
  };
  const auto delete_vm = [](RESTful_Client& c, S&) { return c.delete_vm("7"); };
  const auto get_cbter = [](RESTful_Client& c, S& got) {
    std::map<S, bool> images{{"/old", true}};  // replaced
    bool ok = c.get_CBTer("web", "cbt", images);
    for (const auto& [image, valid] : images)
      got += image + "=" + std::to_string(valid) + " ";
    return ok;
  };
  const auto eager = [](Provisioning_Mode mode) -> Call {
    return [=](RESTful_Client& c, S&) { return c.create_storage_volume(mode, {{"name", "v"}}); };
  };
  struct Case {
    S request;  // "METHOD target body"
    Call call;
    P::Answer answer;
    S task;  // the progress its one poll gets; empty: no poll
    bool ok;
    S log;
    S got = "";
  } const cases[] = {
      {R"(POST /cas/casrs/vm/snapshot {"keepBitmap":"true","name":"Brimlet5",)"
       R"("noStopVirtSnapMem":"false","snapBlock":"true","snapMem":"true","snapshotMode":"1",)"
       R"("snapshotTimeOut":30,"vmId":"7"})",
       snapshot(true, true, false), P::json(started), done, true,
       "Creating internal snapshot 'Brimlet5' for CAS VM 'web'.\n"},
      {R"(POST /cas/casrs/vm/snapshot {"keepBitmap":"true","name":"Brimlet5",)"
       R"("noStopVirtSnapMem":"true","snapBlock":"true","snapMem":"false","snapshotMode":"2",)"
       R"("snapshotTimeOut":30,"vmId":"7"})",
       snapshot(false, false, true), P::json(started), busy, false,
       "Creating external snapshot 'Brimlet5' for CAS VM 'web'.\n" +
           failed("create_snapshot", "busy")},
      {"DELETE /cas/casrs/vm/snapshot/7/Brimlet5?tidyVmImages=false ",
       [](RESTful_Client& c, S&) { return c.delete_snapshot("7", "web", "Brimlet5"); },
       P::json(started), busy, false,
       "Deleting snapshot 'Brimlet5' for CAS VM 'web'.\n" + failed("delete_snapshot", "busy") +
           "Failed to delete snapshot 'Brimlet5' of CAS VM 'web'.\n"},
      {"GET /cas/casrs/vm/disk/dataBlock?hostId=1&image=%2Fvms%2Fa%20b.qcow2&snapshot=s1&vmId=7 ",
       disk_blocks("s1"), P::json(blocks), "", true,
       "Getting allocated blocks of disk '/vms/a b.qcow2' (snapshot='s1').\n",
       "9+1 0+4096 65536+512 "},
      {"GET /cas/casrs/vm/disk/dataBlock?hostId=1&image=%2Fvms%2Fa%20b.qcow2&vmId=7 ",
       disk_blocks(""),
       P::json(R"({"dataBlockInfo":[{"offset":"0","length":"4096"},{"offset":"x","length":"1"}]})"),
       "", false,
       "Getting allocated blocks of disk '/vms/a b.qcow2' (snapshot='').\n"
       "Invalid CAS disk block(offset=x, length=1).\n",
       "9+1 0+4096 "},
      {"GET /cas/casrs/vm/disk/changedBlock?name=cbt&snapshotName=s1&srcPath=%2Fvms%2Fa&vmId=7 ",
       [](RESTful_Client& c, S& got) {
         std::vector<Block> out;
         bool ok = c.get_changed_blocks("7", "/vms/a", "cbt", "s1", out);
         got = text(out);
         return ok;
       },
       P::json(blocks), "", true,
       "Getting changed blocks of disk '/vms/a' (CBTer='cbt', snapshot='s1').\n",
       "0+4096 65536+512 "},
      {R"(POST /cas/casrs/vm/add {"memory":1024,"name":"web"})",
       [](RESTful_Client& c, S& got) {
         return c.create_vm("web", {{"name", "web"}, {"memory", 1024}}, got);
       },
       P::json(started), R"({"completed":"true","result":"0","targetId":"vm-9"})", true,
       "Creating CAS VM 'web', parameters:\n{\n  \"memory\": 1024,\n  \"name\": \"web\"\n}\n",
       "vm-9"},
      {R"(POST /cas/casrs/storage/volume {"name":"v"})", eager(THIN), P::json(started), "", true,
       "Creating storage volume:\n{\n  \"name\": \"v\"\n}\n"},
      {R"(POST /cas/casrs/storage/volume {"name":"v"})", eager(EAGER_ZEROED), P::json(started),
       busy, false,
       "Creating storage volume:\n{\n  \"name\": \"v\"\n}\n" +
           failed("create_storage_volume", "busy")},
      {"DELETE /cas/casrs/storage/volume/delete/1/pool0/v.qcow2 ",
       [](RESTful_Client& c, S&) { return c.delete_storage_volume("1", "pool0", "v.qcow2"); },
       P::json(started), "", true,
       "Deleting storage volume 'v.qcow2' on pool 'pool0' on CVK id=1.\n"},
      {R"(PUT /cas/casrs/vm/addDevice {"type":"disk"})",
       [](RESTful_Client& c, S&) {
         return c.create_disk("7", "web", {{"type", "disk"}});
       },
       P::json(started), busy, false,
       "Creating disk for CAS VM(id=7) 'web', disk parameters:\n{\n  \"type\": \"disk\"\n}\n" +
           failed("create_disk", "busy")},
      {"DELETE /cas/casrs/vm/delete/7 ", delete_vm, P::json(started), done, true,
       "Deleting CAS VM(id=7).\n"},
      // A VM that is gone, or a task that "fails" with the text null, is deleted.
      {"DELETE /cas/casrs/vm/delete/7 ",
       delete_vm,
       {500, "{}", {{"Error-Code", "1001"}}},
       "",
       true,
       "Deleting CAS VM(id=7).\n" + cas_error("DELETE /cas/casrs/vm/delete/7", "1001")},
      {"DELETE /cas/casrs/vm/delete/7 ",
       delete_vm,
       {500, "{}", {{"Error-Code", "1002"}}},
       "",
       false,
       "Deleting CAS VM(id=7).\n" + cas_error("DELETE /cas/casrs/vm/delete/7", "1002")},
      {"DELETE /cas/casrs/vm/delete/7 ", delete_vm, P::json(started),
       R"({"completed":"true","result":"1","failMsg":"null"})", true,
       "Deleting CAS VM(id=7).\n" + failed("delete_vm", "null")},
      {"DELETE /cas/casrs/vm/delete/7 ", delete_vm, P::json(started), busy, false,
       "Deleting CAS VM(id=7).\n" + failed("delete_vm", "busy")},
      {"POST " + cbt + "?name=cbt&subordinateOnly=true&vmName=web ",
       [](RESTful_Client& c, S&) { return c.create_CBTer("web", "cbt"); }, P::json(started), busy,
       false, "Creating CBTer 'cbt' for CAS VM 'web'.\n" + failed("create_cbt", "busy")},
      {"GET " + cbt + "?name=cbt&vmName=web ", get_cbter,
       P::json(
           R"({"dirtyBitmapInfo":[{"image":"/a","valid":"true"},{"image":"/b","valid":"True"}]})"),
       "", true, "Getting info of CBTer 'cbt'.\n", "/a=1 /b=0 "},
      {"GET " + cbt + "?name=cbt&vmName=web ", get_cbter,
       P::json(R"({"dirtyBitmapInfo":{"image":"/a","valid":true}})"), "", false,
       "Getting info of CBTer 'cbt'.\n"
       "Unknown response of CAS CBTer info: {\"image\":\"/a\",\"valid\":true}.\n"},
      {"DELETE " + cbt + "?isRegex=false&name=cbt&vmName=web ",
       [](RESTful_Client& c, S&) { return c.delete_CBTer("web", "cbt"); }, P::json(started), busy,
       false, "Deleting CBTer 'cbt' for CAS VM 'web'.\n" + failed("delete_CBTer", "busy")},
      {"PUT /cas/casrs/vm/start/7 ", [](RESTful_Client& c, S&) { return c.start_vm("7", "web"); },
       P::json(started), done, true, "Setting CAS VM 'web' state to 'start'.\n"},
      {"PUT /cas/casrs/vm/stop/7 ", [](RESTful_Client& c, S&) { return c.stop_vm("7", "web"); },
       P::json(started), busy, false,
       "Setting CAS VM 'web' state to 'stop'.\n" + failed("set_vm_state", "busy")},
  };
  Test_Client client(cvm());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    // Routed by method and path.
    peer_.set(c.request.substr(0, c.request.find_first_of("? ", c.request.find(' ') + 1)),
              c.answer);
    peer_.set("/cas/casrs/message/42", P::json(c.task.empty() ? busy : c.task));
    std::size_t before = peer_.seen().accepted.size();
    Log_Capture log;
    S got;
    EXPECT_EQ(c.call(client, got), c.ok);
    EXPECT_EQ(messages(log), c.log);
    EXPECT_EQ(got, c.got);
    S sent;
    auto accepted = peer_.seen().accepted;
    for (std::size_t i = before; i < accepted.size(); ++i)
      sent += accepted[i].method + " " + accepted[i].target + " " + accepted[i].body + "\n";
    EXPECT_EQ(sent, c.request + "\n" + (c.task.empty() ? "" : "GET /cas/casrs/message/42 \n"));
  }
}

TEST_F(Cas_Peer, SelectsTheDataAddressOfAPreferredSwitch) {
  const auto vs = [](const char* address, const char* status, const char* types) {
    return JSON_Value{{"id", "1"},     {"name", "vs"},     {"address", address},
                      {"gateway", ""}, {"status", status}, {"networkType", types}};
  };
  // Inactive, or without an address, a backup switch is passed over.
  JSON_Value switches = {{"vSwitch",
                          {vs("10.0.0.1", "1", "1"), vs("10.0.8.1", "0", "8"), vs("", "1", "8"),
                           vs("10.0.4.1", "1", "6")}}};
  peer_.set("/cas/casrs/host/id/1/vswitch", P::json(switches.dump()));
  switches = {{"vSwitch", {vs("10.0.4.3", "1", "4"), vs("10.0.8.3", "1", "8")}}};
  peer_.set("/cas/casrs/host/id/3/vswitch", P::json(switches.dump()));
  const S none =
      "Failed to pick a target address for CVK 'cvk1', defaults to its management "
      "network.\n";
  const auto picked = [](const char* address, const char* types) {
    return "CVK 'cvk1' selects '" + S(address) +
           "' as data transmission target address, network type(s): " + types + ".\n";
  };
  // preference, CVK id, address picked, what is logged
  const std::tuple<std::optional<S>, const char*, const char*, S> cases[] = {
      {std::nullopt, "1", "", none},
      {"Backup", "1", "10.0.4.1", picked("10.0.4.1", R"(["service","storage"])")},
      {"", "3", "10.0.8.3", picked("10.0.8.3", R"(["backup"])")},
      {"backup", "1", "", none},
      {"storage", "1", "10.0.4.1", picked("10.0.4.1", R"(["service","storage"])")},
      {"management", "1", "10.0.0.1", picked("10.0.0.1", R"(["management"])")},
      {"storage", "2", "",
       "CAS request 'GET /cas/casrs/host/id/2/vswitch' returns error, http status = 404, error "
       "code = '', message = ''.\nFailed to list virtual switches for CVK 'cvk1'.\n" +
           none},
  };
  RESTful_Client client(cvm());
  for (const auto& [preference, id, address, log_text] : cases) {
    SCOPED_TRACE(preference.value_or("(none)"));
    CVK_Target_Addr_Selector selector;
    EXPECT_TRUE(selector.set_preferred_network(preference));
    Log_Capture log;
    S out = "stale";
    EXPECT_EQ(selector.select(client, "cvk1", id, out), *address != '\0');
    EXPECT_EQ(out, address);
    EXPECT_EQ(messages(log), log_text);
    // A second VM of the CVM takes the address picked without asking the CVM again.
    std::size_t asked = peer_.seen().accepted.size();
    EXPECT_EQ(selector.select(client, "cvk1", id, out), *address != '\0');
    EXPECT_EQ(out, address);
    EXPECT_EQ(peer_.seen().accepted.size(), asked + (*address ? 0 : 1));
  }
}

}  // namespace
}  // namespace h3ccas
