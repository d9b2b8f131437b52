#include "tests/unit/h3ccas/support.h"

namespace h3ccas {
namespace {

using S = std::string;
using P = Digest_Peer;

// Each operation's one request as the CVM gets it, whether it polls its task, and all it logs.
TEST_F(Cas_Peer, StateAndBlockOperations) {
  const S cbt = "/cas/casrs/vm/disk/changedBlockTracker", vm_del = "DELETE /cas/casrs/vm/delete/7";
  const auto failed = [](const char* task, const char* why = "busy") {
    return "Failed to " + S(task) + " on CAS '127.0.0.1', error: '" + why + "'.\n";
  };
  const auto cas_error = [&](const char* code) {
    return "CAS request '" + vm_del + "' returns error, http status = 500, error code = '" + code +
           "', message = ''.\n";
  };
  const auto snap_body = [](const char* no_stop, const char* mem, const char* mode) {
    return S(R"({"keepBitmap":"true","name":"s","noStopVirtSnapMem":")") + no_stop +
           R"(","snapBlock":"true","snapMem":")" + mem + R"(","snapshotMode":")" + mode +
           R"(","snapshotTimeOut":30,"vmId":"7"})";
  };
  const P::Answer blocks = P::json(
      R"({"dataBlockInfo":[{"offset":"0","length":"4096"},{"offset":"65536","length":"512"}]})");
  std::vector<Block> got_blocks(1, Block{9, 1});
  std::map<S, bool> images{{"/old", true}};
  S vm_id;
  const JSON_Value n1 = {{"n", 1}}, w2 = {{"name", "w"}, {"cpu", 2}};
  const auto err = [](const char* code) { return P::Answer{500, "{}", {{"Error-Code", code}}}; };
  struct Case {
    std::function<bool(RESTful_Client&)> call;
    S request;  // "METHOD target body"
    char task;  // its one poll gets: 'd' done, 'b' failed "busy", 'n' failed "null"; 0: no poll
    bool ok;
    S log;
    P::Answer answer = P::json(R"({"msgId":"42"})");
  } const cases[] = {
      {[](auto& c) { return c.create_snapshot("7", "w", "s", true, false, true, 30); },
       "POST /cas/casrs/vm/snapshot " + snap_body("false", "true", "1"), 'd', true,
       "Creating internal snapshot 's' for CAS VM 'w'.\n"},
      {[](auto& c) { return c.create_snapshot("7", "w", "s", false, true, false, 30); },
       "POST /cas/casrs/vm/snapshot " + snap_body("true", "false", "2"), 'b', false,
       "Creating external snapshot 's' for CAS VM 'w'.\n" + failed("create_snapshot")},
      {[](auto& c) { return c.delete_snapshot("7", "w", "s"); },
       "DELETE /cas/casrs/vm/snapshot/7/s?tidyVmImages=false ", 'b', false,
       "Deleting snapshot 's' for CAS VM 'w'.\n" + failed("delete_snapshot") +
           "Failed to delete snapshot 's' of CAS VM 'w'.\n"},
      {[&](auto& c) { return c.get_disk_blocks("1", "7", "/a b", "s", got_blocks); },
       "GET /cas/casrs/vm/disk/dataBlock?hostId=1&image=%2Fa%20b&snapshot=s&vmId=7 ", 0, true,
       "Getting allocated blocks of disk '/a b' (snapshot='s').\n", blocks},
      {[&](auto& c) { return c.get_disk_blocks("1", "7", "/a", "", got_blocks); },
       "GET /cas/casrs/vm/disk/dataBlock?hostId=1&image=%2Fa&vmId=7 ", 0, false,
       "Getting allocated blocks of disk '/a' (snapshot='').\n"
       "Invalid CAS disk block(offset=x, length=1).\n",
       P::json(R"({"dataBlockInfo":[{"offset":"1","length":"2"},{"offset":"x","length":"1"}]})")},
      {[&](auto& c) { return c.get_changed_blocks("7", "/a", "cbt", "s", got_blocks); },
       "GET /cas/casrs/vm/disk/changedBlock?name=cbt&snapshotName=s&srcPath=%2Fa&vmId=7 ", 0, true,
       "Getting changed blocks of disk '/a' (CBTer='cbt', snapshot='s').\n", blocks},
      {[&](auto& c) { return c.create_vm("w", w2, vm_id); },
       R"(POST /cas/casrs/vm/add {"cpu":2,"name":"w"})", 'd', true,
       "Creating CAS VM 'w', parameters:\n{\n  \"cpu\": 2,\n  \"name\": \"w\"\n}\n"},
      {[&](auto& c) { return c.create_storage_volume(THIN, n1); },
       R"(POST /cas/casrs/storage/volume {"n":1})", 0, true,
       "Creating storage volume:\n{\n  \"n\": 1\n}\n"},
      {[&](auto& c) { return c.create_storage_volume(EAGER_ZEROED, n1); },
       R"(POST /cas/casrs/storage/volume {"n":1})", 'b', false,
       "Creating storage volume:\n{\n  \"n\": 1\n}\n" + failed("create_storage_volume")},
      {[](auto& c) { return c.delete_storage_volume("1", "p0", "v"); },
       "DELETE /cas/casrs/storage/volume/delete/1/p0/v ", 0, true,
       "Deleting storage volume 'v' on pool 'p0' on CVK id=1.\n"},
      {[&](auto& c) { return c.create_disk("7", "w", n1); },
       R"(PUT /cas/casrs/vm/addDevice {"n":1})", 'b', false,
       "Creating disk for CAS VM(id=7) 'w', disk parameters:\n{\n  \"n\": 1\n}\n" +
           failed("create_disk")},
      // A VM that CAS no longer knows, or whose deletion "fails" with the text null, is gone.
      {[](auto& c) { return c.delete_vm("7"); }, vm_del + " ", 0, true,
       "Deleting CAS VM(id=7).\n" + cas_error("1001"), err("1001")},
      {[](auto& c) { return c.delete_vm("7"); }, vm_del + " ", 0, false,
       "Deleting CAS VM(id=7).\n" + cas_error("1002"), err("1002")},
      {[](auto& c) { return c.delete_vm("7"); }, vm_del + " ", 'n', true,
       "Deleting CAS VM(id=7).\n" + failed("delete_vm", "null")},
      {[](auto& c) { return c.delete_vm("7"); }, vm_del + " ", 'b', false,
       "Deleting CAS VM(id=7).\n" + failed("delete_vm")},
      {[](auto& c) { return c.create_CBTer("w", "cbt"); },
       "POST " + cbt + "?name=cbt&subordinateOnly=true&vmName=w ", 'b', false,
       "Creating CBTer 'cbt' for CAS VM 'w'.\n" + failed("create_cbt")},
      {[&](auto& c) { return c.get_CBTer("w", "cbt", images); },
       "GET " + cbt + "?name=cbt&vmName=w ", 0, false,
       "Getting info of CBTer 'cbt'.\nUnknown response of CAS CBTer info: {\"image\":\"/a\"}.\n",
       P::json(R"({"dirtyBitmapInfo":{"image":"/a"}})")},
      {[&](auto& c) { return c.get_CBTer("w", "cbt", images); },
       "GET " + cbt + "?name=cbt&vmName=w ", 0, true, "Getting info of CBTer 'cbt'.\n",
       P::json(
           R"({"dirtyBitmapInfo":[{"image":"/a","valid":"true"},{"image":"/b","valid":"True"}]})")},
      {[](auto& c) { return c.delete_CBTer("w", "cbt"); },
       "DELETE " + cbt + "?isRegex=false&name=cbt&vmName=w ", 'b', false,
       "Deleting CBTer 'cbt' for CAS VM 'w'.\n" + failed("delete_CBTer")},
      {[](auto& c) { return c.start_vm("7", "w"); }, "PUT /cas/casrs/vm/start/7 ", 'd', true,
       "Setting CAS VM 'w' state to 'start'.\n"},
      {[](auto& c) { return c.stop_vm("7", "w"); }, "PUT /cas/casrs/vm/stop/7 ", 'b', false,
       "Setting CAS VM 'w' state to 'stop'.\n" + failed("set_vm_state")},
  };
  const std::map<char, S> progress = {
      {'d', R"({"completed":"true","result":"0","targetId":"vm-9"})"},
      {'b', R"({"completed":"true","result":"1","failMsg":"busy"})"},
      {'n', R"({"completed":"true","result":"1","failMsg":"null"})"}};
  Test_Client client(cvm());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    // Routed by method and path.
    peer_.set(c.request.substr(0, c.request.find_first_of("? ", c.request.find(' ') + 1)),
              c.answer);
    peer_.set("/cas/casrs/message/42", P::json(progress.at(c.task ? c.task : 'b')));
    std::size_t before = peer_.seen().accepted.size();
    Log_Capture log;
    EXPECT_EQ(c.call(client), c.ok);
    EXPECT_EQ(messages(log), c.log);
    S sent;
    auto accepted = peer_.seen().accepted;
    for (std::size_t i = before; i < accepted.size(); ++i)
      sent += accepted[i].method + " " + accepted[i].target + " " + accepted[i].body + "\n";
    EXPECT_EQ(sent, c.request + "\n" + (c.task ? "GET /cas/casrs/message/42 \n" : ""));
  }
  // Blocks are appended in the CVM's order up to a bad one; the CBTer's images are replaced.
  S text;
  for (const Block& b : got_blocks)
    text += std::to_string(b.offset_) + "+" + std::to_string(b.length_) + " ";
  EXPECT_EQ(text, "9+1 0+4096 65536+512 1+2 0+4096 65536+512 ");
  EXPECT_EQ(images, (std::map<S, bool>{{"/a", true}, {"/b", false}}));
  EXPECT_EQ(vm_id, "vm-9");
}

TEST_F(Cas_Peer, SelectsTheDataAddressOfAPreferredSwitch) {
  const auto vs = [](const char* address, const char* status, const char* types) {
    return JSON_Value{{"id", "1"},     {"name", "vs"},     {"address", address},
                      {"gateway", ""}, {"status", status}, {"networkType", types}};
  };
  // On CVK 1 the backup switches are inactive or without an address; on CVK 3 one is listed last.
  JSON_Value cvk1 = {{"vSwitch",
                      {vs("10.0.0.1", "1", "1"), vs("10.0.8.1", "0", "8"), vs("", "1", "8"),
                       vs("10.0.4.1", "1", "6")}}},
             cvk3 = {{"vSwitch", {vs("10.0.4.3", "1", "4"), vs("10.0.8.3", "1", "8")}}};
  peer_.set("/cas/casrs/host/id/1/vswitch", P::json(cvk1.dump()));
  peer_.set("/cas/casrs/host/id/3/vswitch", P::json(cvk3.dump()));
  const S none =
      "Failed to pick a target address for CVK 'c', defaults to its management "
      "network.\n";
  const auto picked = [](const char* address, const char* types) {
    return "CVK 'c' selects '" + S(address) +
           "' as data transmission target address, network type(s): " + types + ".\n";
  };
  // preference, CVK id, address picked, what is logged
  const std::tuple<std::optional<S>, const char*, const char*, S> cases[] = {
      {std::nullopt, "1", "", none},
      {"Backup", "1", "10.0.4.1", picked("10.0.4.1", R"(["service","storage"])")},
      {"", "3", "10.0.8.3", picked("10.0.8.3", R"(["backup"])")},
      {"backup", "1", "", none},
      {"storage", "3", "10.0.4.3", picked("10.0.4.3", R"(["storage"])")},
      {"management", "1", "10.0.0.1", picked("10.0.0.1", R"(["management"])")},
      {"storage", "2", "",
       "CAS request 'GET /cas/casrs/host/id/2/vswitch' returns error, http status = 404, error "
       "code = '', message = ''.\nFailed to list virtual switches for CVK 'c'.\n" +
           none},
  };
  RESTful_Client client(cvm());
  for (const auto& [preference, id, address, log_text] : cases) {
    SCOPED_TRACE(preference.value_or("(none)"));
    CVK_Target_Addr_Selector selector;
    EXPECT_TRUE(selector.set_preferred_network(preference));
    Log_Capture log;
    S out = "stale";
    EXPECT_EQ(selector.select(client, "c", id, out), *address != '\0');
    EXPECT_EQ(out, address);
    EXPECT_EQ(messages(log), log_text);
    // A second VM of the CVK takes the pick without asking the CVM again.
    std::size_t asked = peer_.seen().accepted.size();
    EXPECT_EQ(selector.select(client, "c", id, out), *address != '\0');
    EXPECT_EQ(out, address);
    EXPECT_EQ(peer_.seen().accepted.size(), asked + (*address ? 0 : 1));
  }
}

}  // namespace
}  // namespace h3ccas
