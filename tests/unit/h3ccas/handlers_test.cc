#include "h3ccas/websvcs_agent/instance_handler.h"
#include "h3ccas/websvcs_agent/test_login_handler.h"

#include "host/core/crypto.h"
#include "tests/support/process.h"
#include "tests/unit/h3ccas/support.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <sstream>

namespace h3ccas {
namespace {

const char kUser[] = "admin";
const char kPassword[] = "Adm1n:p@ss";

class Capture_Channel : public JSON_RPC_Channel {
 public:
  int send(const JSON_RPC_Object& obj) override {
    std::lock_guard<std::mutex> lock(mutex_);
    sent_.push_back(obj.to_json());
    return 0;
  }
  void done() override {
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
    cv_.notify_all();
  }
  bool wait_done() {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(60), [this] { return done_; });
  }
  std::vector<JSON_Value> sent() {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<JSON_Value> sent_;
  bool done_ = false;
};

class Exposed_Test_Login_Handler : public Test_Login_Handler {
 public:
  using Test_Login_Handler::handle_object_i;
};

std::string encrypt_for_agent(const std::string& plain) {
  const char key[] = "P!L@O#V$A%R^N&3157";
  std::string cipher;
  EXPECT_TRUE(encrypt_string(plain.data(), plain.size(), cipher, key, std::strlen(key)));
  return cipher;
}

JSON_Value cvm_entry(std::uint16_t port, const std::string& encrypted_password) {
  return {{"host", "127.0.0.1"},
          {"port", port},
          {"ssl", false},
          {"username", kUser},
          {"password", encrypted_password}};
}

JSON_Value error_reply(const JSON_Value& id, int code, const char* message) {
  return {{"jsonrpc", "2.0"},
          {"id", id},
          {"error", {{"code", code}, {"message", message}, {"data", nullptr}}}};
}

class Cas_Login_Handler : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(peer_.start());
    peer_.set_json("/cas/casrs/operator/operatorInfoList",
                   {{"operator", {{"loginName", kUser}, {"groupId", "1"}}}});
    peer_.set_json("/cas/casrs/datacenter/casVersion", {{"data", "H3C CAS E0750"}});
  }
  // The one reply to a request with these params.
  JSON_Value reply(JSON_Value params, JSON_Value id = "req-1") {
    auto req = std::make_shared<JSON_RPC_Request>("h3ccas.test_login", std::move(params), id);
    EXPECT_EQ(handler_.handle_object_i(chn_, req), 0);
    auto sent = chn_->sent();
    EXPECT_EQ(sent.size(), 1u);
    return sent.empty() ? JSON_Value() : sent.back();
  }

  Digest_Peer peer_{kUser, kPassword};
  Exposed_Test_Login_Handler handler_;
  std::shared_ptr<Capture_Channel> chn_ = std::make_shared<Capture_Channel>();
};

TEST_F(Cas_Login_Handler, ParamsMustBeAnObject) {
  EXPECT_EQ(reply(JSON_Value::array({1, 2}), 7),
            error_reply(7, -32602, "Invalid params: params type must be object."));
}

TEST_F(Cas_Login_Handler, BadEntryIsAnsweredWithIdMinusOne) {
  JSON_Value without_ssl = cvm_entry(peer_.port(), encrypt_for_agent(kPassword));
  without_ssl.erase("ssl");
  EXPECT_EQ(reply(without_ssl), error_reply(-1, -32600, "Invalid H3C CVM entry."));
}

TEST_F(Cas_Login_Handler, ClearPasswordIsNotDecryptable) {
  EXPECT_EQ(reply(cvm_entry(peer_.port(), kPassword)),
            error_reply(-1, -32600, "Invalid H3C CVM entry."));
}

TEST_F(Cas_Login_Handler, GoodLoginIsAResult) {
  EXPECT_EQ(reply(cvm_entry(peer_.port(), encrypt_for_agent(kPassword))),
            JSON_Value({{"jsonrpc", "2.0"},
                        {"id", "req-1"},
                        {"result", {{"result", true}, {"version", "E0750"}, {"message", ""}}}}));
}

TEST_F(Cas_Login_Handler, FailedLoginIsAResultToo) {
  JSON_Value answer = reply(cvm_entry(peer_.port(), encrypt_for_agent("not it")));
  EXPECT_EQ(answer["result"], JSON_Value({{"result", false},
                                          {"version", ""},
                                          {"message", "Invalid CVM username or password"}}));
}

TEST_F(Cas_Login_Handler, NothingIsSentForResponsesOrAbsentRequesters) {
  Log_Capture log;
  auto response = std::make_shared<JSON_RPC_Response>(JSON_Value(3));
  EXPECT_EQ(handler_.handle_object_i(chn_, response), -1);
  EXPECT_TRUE(log.contains("obj is not JSON-RPC request!\n"));

  auto req = std::make_shared<JSON_RPC_Request>(
      "h3ccas.test_login", cvm_entry(peer_.port(), encrypt_for_agent(kPassword)), 4);
  EXPECT_EQ(handler_.handle_object_i(nullptr, req), -1);
  EXPECT_TRUE(log.contains("Abort handling JSON-RPC request, requester has gone.\n"));
  EXPECT_TRUE(chn_->sent().empty());
  EXPECT_EQ(peer_.challenges(), 0);
}

TEST_F(Cas_Login_Handler, RunsOnTheWorkerPool) {
  Test_Login_Handler handler;
  auto req = std::make_shared<JSON_RPC_Request>(
      "h3ccas.test_login", cvm_entry(peer_.port(), encrypt_for_agent(kPassword)), 11);
  EXPECT_EQ(handler.handle_object(chn_, req), 0);
  ASSERT_TRUE(chn_->wait_done());
  auto sent = chn_->sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0]["id"], 11);
  EXPECT_EQ(sent[0]["result"]["result"], true);
}

TEST(Cas_Instance_Handler, AnnouncesTheProxy) {
  Instance_Handler handler;
  EXPECT_EQ(handler.type(), "h3c-cas");
  std::map<std::string, std::shared_ptr<Instance>> instances;
  auto old = std::make_shared<Instance>();
  old->type = "stale";
  instances["H3C_CAS_Proxy"] = old;
  instances["Other"] = std::make_shared<Instance>();

  EXPECT_EQ(handler.probe_instances(instances), 0);
  ASSERT_EQ(instances.size(), 2u);
  const auto& proxy = instances["H3C_CAS_Proxy"];
  ASSERT_NE(proxy, old);
  EXPECT_EQ(proxy->type, "h3c-cas");
  EXPECT_EQ(proxy->name, "H3C_CAS_Proxy");
  EXPECT_EQ(proxy->uuid, "");
  EXPECT_EQ(proxy->options, JSON_Value({{"is_proxy", true}}));
  EXPECT_EQ(proxy->logon_options, JSON_Value::object());
}

TEST(Cas_Instance_Handler, EveryNameIsEnabledAndLogsOn) {
  Instance_Handler handler;
  std::string state = "x";
  EXPECT_EQ(&handler.get_state("never-announced", state), &state);
  EXPECT_EQ(state, "enabled");
  EXPECT_EQ(handler.logon("H3C_CAS_Proxy", "anyone", "anything"), 0);
  EXPECT_EQ(handler.logon(nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(handler.no_check_logon(), false);
}

// The built module as the host sees it.
const std::string kModule = std::string(BRIMLET_LIB_DIR) + "/libh3ccas.so";

TEST(Cas_Module_Surface, ExportsExactlyTheFactories) {
  Run_Result nm = run_program({"/usr/bin/nm", "-D", "--defined-only", kModule});
  ASSERT_EQ(nm.exit_code, 0) << nm.err;
  std::set<std::string> symbols;
  std::istringstream lines(nm.out);
  std::string address, type, name;
  while (lines >> address >> type >> name)
    symbols.insert(name);
  EXPECT_EQ(symbols, (std::set<std::string>{"_make_H3C_CAS_Instance_Handler",
                                            "_gobble_H3C_CAS_Instance_Handler",
                                            "_make_JSON_RPC_H3C_CAS_Test_Login_Handler",
                                            "_gobble_JSON_RPC_H3C_CAS_Test_Login_Handler"}));
}

struct Library {
  explicit Library(const std::string& path) : handle(dlopen(path.c_str(), RTLD_NOW)) {}
  ~Library() {
    if (handle)
      dlclose(handle);
  }
  void* handle;
};

TEST(Cas_Module_Surface, FactoriesFillTheGobbleSlot) {
  Library lib(kModule);
  ASSERT_NE(lib.handle, nullptr) << dlerror();
  using Gobble = void (*)(::Instance_Handler*);
  auto make = reinterpret_cast<::Instance_Handler* (*)(Gobble*)>(
      dlsym(lib.handle, "_make_H3C_CAS_Instance_Handler"));
  auto gobble_sym = reinterpret_cast<Gobble>(dlsym(lib.handle, "_gobble_H3C_CAS_Instance_Handler"));
  ASSERT_NE(make, nullptr);
  ASSERT_NE(gobble_sym, nullptr);

  Gobble gobble = nullptr;
  ::Instance_Handler* obj = make(&gobble);
  ASSERT_NE(obj, nullptr);
  EXPECT_EQ(gobble, gobble_sym);
  EXPECT_EQ(obj->type(), "h3c-cas");
  gobble(obj);
  gobble(nullptr);

  // No slot: the object is still made, and freed by the exported destroyer.
  ::Instance_Handler* unslotted = make(nullptr);
  ASSERT_NE(unslotted, nullptr);
  gobble_sym(unslotted);

  using Rpc_Gobble = void (*)(JSON_RPC_Handler*);
  auto make_rpc = reinterpret_cast<JSON_RPC_Handler* (*)(Rpc_Gobble*)>(
      dlsym(lib.handle, "_make_JSON_RPC_H3C_CAS_Test_Login_Handler"));
  ASSERT_NE(make_rpc, nullptr);
  Rpc_Gobble rpc_gobble = nullptr;
  JSON_RPC_Handler* handler = make_rpc(&rpc_gobble);
  ASSERT_NE(handler, nullptr);
  ASSERT_EQ(rpc_gobble, reinterpret_cast<Rpc_Gobble>(
                            dlsym(lib.handle, "_gobble_JSON_RPC_H3C_CAS_Test_Login_Handler")));
  EXPECT_NE(dynamic_cast<JSON_RPC_Thread_Handler*>(handler), nullptr);
  rpc_gobble(handler);
  rpc_gobble(nullptr);
}

TEST(Cas_Module_Surface, LoadsThroughItsManifest) {
  auto module = Module::load(std::string(BRIMLET_LIB_DIR) + "/h3ccas.module.json");
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(module->name(), "h3ccas");
  EXPECT_EQ(module->json_rpc_methods(), std::vector<std::string>{"h3ccas.test_login"});
  auto instances = module->make_instance_handler();
  ASSERT_NE(instances, nullptr);
  EXPECT_EQ(instances->type(), "h3c-cas");
  EXPECT_NE(module->make_json_rpc_handler("h3ccas.test_login"), nullptr);
}

}  // namespace
}  // namespace h3ccas
