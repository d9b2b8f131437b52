#include "h3ccas/websvcs_agent/instance_handler.h"
#include "h3ccas/websvcs_agent/test_login_handler.h"

#include "tests/unit/h3ccas/support.h"

#include <dlfcn.h>

namespace h3ccas {
namespace {
class Cas_Login_Handler : public Cas_Peer {
 protected:
  JSON_Value entry(const S& password) {
    JSON_Value entry = cvm().dump();
    entry["password"] = encrypt_for_agent(password);
    return entry;
  }
  Exposed<Test_Login_Handler> handler_;
};

// A failed login is a result; only malformed requests get errors (a bad entry with id -1).
TEST_F(Cas_Login_Handler, Replies) {
  JSON_Value without_ssl = entry(cvm_password);
  without_ssl.erase("ssl");
  const std::pair<JSON_Value, const char*> cases[] = {
      {JSON_Value::array({1, 2}),
       R"({"id":7,"error":{"code":-32602,"message":"Invalid params: params type must be object.",
           "data":null}})"},
      {without_ssl,
       R"({"id":-1,"error":{"code":-32600,"message":"Invalid H3C CVM entry.","data":null}})"},
      {entry("not it"), R"({"id":7,"result":{"result":false,"version":"",
                            "message":"Invalid CVM username or password"}})"},
  };
  for (const auto& [params, expected] : cases) {
    auto chn = std::make_shared<Capture_Channel>();
    auto req = std::make_shared<JSON_RPC_Request>("h3ccas.test_login", params, 7);
    EXPECT_EQ(handler_.handle_object_i(chn, req), 0);
    JSON_Value reply = json(expected);
    reply["jsonrpc"] = "2.0";
    EXPECT_EQ(chn->sent, std::vector<JSON_Value>{reply}) << params;
  }
  // Nothing is sent for a response or to a requester that has gone.
  auto chn = std::make_shared<Capture_Channel>();
  EXPECT_EQ(handler_.handle_object_i(chn, std::make_shared<JSON_RPC_Response>(JSON_Value(3))), -1);
  auto req = std::make_shared<JSON_RPC_Request>("h3ccas.test_login", entry(cvm_password), 4);
  const int challenges = peer_.seen().challenges;
  EXPECT_EQ(handler_.handle_object_i(nullptr, req), -1);
  EXPECT_TRUE(chn->sent.empty());
  EXPECT_EQ(peer_.seen().challenges, challenges);
}

TEST(Cas_Instance_Handler, AnnouncesTheProxyAndNeedsNoLogon) {
  Instance_Handler handler;
  auto old = std::make_shared<Instance>();
  std::map<S, std::shared_ptr<Instance>> instances = {{"H3C_CAS_Proxy", old},
                                                      {"Other", std::make_shared<Instance>()}};
  EXPECT_EQ(handler.probe_instances(instances), 0);
  ASSERT_EQ(instances.size(), 2u);
  const auto& proxy = instances["H3C_CAS_Proxy"];
  ASSERT_NE(proxy, old);
  EXPECT_EQ(proxy->type + " " + proxy->name, "h3c-cas H3C_CAS_Proxy");
  EXPECT_EQ(proxy->options, JSON_Value({{"is_proxy", true}}));
  S state;
  EXPECT_EQ(&handler.get_state("never-announced", state), &state);
  EXPECT_EQ(state, "enabled");
  EXPECT_EQ(handler.logon("H3C_CAS_Proxy", "anyone", "anything"), 0);
}

// The built module as the host sees it: the host fills the _gobble_ slot and destroys through it;
// null slots and objects are harmless.
TEST(Cas_Module_Surface, LoadsThroughItsManifest) {
  auto module = Module::load(S(BRIMLET_LIB_DIR) + "/h3ccas.module.json");
  ASSERT_NE(module, nullptr);
  EXPECT_TRUE(std::dynamic_pointer_cast<JSON_RPC_Thread_Handler>(
      module->make_servant_json_rpc_handler("h3ccas.exec")));
  for (const char* method : {"h3ccas.test_login", "h3ccas.list"})
    EXPECT_TRUE(
        std::dynamic_pointer_cast<JSON_RPC_Thread_Handler>(module->make_json_rpc_handler(method)));
  auto instances = module->make_instance_handler();
  ASSERT_NE(instances, nullptr);
  module.reset();  // the objects keep the library loaded
  EXPECT_EQ(instances->type(), "h3c-cas");
  std::unique_ptr<void, int (*)(void*)> lib(
      dlopen((S(BRIMLET_LIB_DIR) + "/libh3ccas.so").c_str(), RTLD_NOW), dlclose);
  ASSERT_NE(lib, nullptr) << dlerror();
  using Gobble = void (*)(::Instance_Handler*);
  auto make = reinterpret_cast<::Instance_Handler* (*)(Gobble*)>(
      dlsym(lib.get(), "_make_H3C_CAS_Instance_Handler"));
  auto gobble = reinterpret_cast<Gobble>(dlsym(lib.get(), "_gobble_H3C_CAS_Instance_Handler"));
  ASSERT_TRUE(make && gobble);
  ::Instance_Handler* obj = make(nullptr);
  ASSERT_NE(obj, nullptr);
  gobble(obj), gobble(nullptr);
}
}  // namespace
}  // namespace h3ccas
