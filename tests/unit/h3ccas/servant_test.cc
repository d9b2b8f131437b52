#include "h3ccas/servant/cvd_connection.h"
#include "h3ccas/servant/cvd_loader.h"
#include "h3ccas/servant/exec_handler.h"

#include "host/core/paths.h"
#include "tests/unit/h3ccas/support.h"

namespace h3ccas {
namespace {
// Each test gets its own install root and a journal of the stub library's calls.
class Servant_Test : public ::testing::Test {
 protected:
  S journal() const {
    S text;
    return read_file(dir_.file("journal"), text), text;
  }
  S init_line() const {
    return "init starter " + dir_.path() + "/var/log/brimlet5/cvd-sdk.log " +
           dir_.file("cvd.conf") + "\n";
  }
  Temp_Dir dir_;
  Scoped_Env root_{"BRIMLET_ROOT", dir_.path()};
  Scoped_Env journal_{"CVD_STUB_JOURNAL", dir_.file("journal")};
  Scoped_Env conf_{"CAS_CVD_SDK_CONF_PATH", dir_.file("cvd.conf")};
  Scoped_Env init_result_{"CVD_STUB_INIT_RESULT", std::nullopt};
};

int functions_loaded() {
  return !!cvd_init + !!cvd_deinit + !!cvd_connect + !!cvd_disconnect + !!cvd_disk_open +
         !!cvd_disk_close + !!cvd_disk_read + !!cvd_disk_write;
}

// Each failure is one message naming what is missing, and nothing stays loaded.
TEST_F(Servant_Test, LoaderFailuresNameWhatIsMissingOrInitialiseOnce) {
  const S missing = dir_.file("libcvd.so");
  const std::pair<std::optional<S>, S> cases[] = {
      {std::nullopt, "Failed to load CAS libcvd '': CAS_CVD_SDK_PATH is not set\n"},
      {missing, "Failed to load CAS libcvd '" + missing + "': " + missing +
                    ": cannot open shared object file: No such file or directory\n"},
      {S(CVD_STUB_NO_OPEN_PATH),
       "Failed to load CAS libcvd symbol cvd_disk_open: " + S(CVD_STUB_NO_OPEN_PATH) +
           ": undefined symbol: cvd_disk_open\n"},
      {S(CVD_STUB_PATH), "Failed to init CAS libcvd, error=-5.\n"},
  };
  Scoped_Env result("CVD_STUB_INIT_RESULT", "-5");
  for (const auto& [path, message] : cases) {
    Scoped_Env sdk("CAS_CVD_SDK_PATH", path);
    Log_Capture log;
    {
      CVD_Loader loader;
      EXPECT_FALSE(loader.init());
      EXPECT_FALSE(loader.inited() || functions_loaded()) << message;
    }
    EXPECT_EQ(std::tuple(messages(log), log.count(LM_ERROR)), std::tuple(message, 1u));
  }
  // Only the stub whose cvd_init refused was initialised, and a refused one is not finished.
  EXPECT_EQ(journal(), init_line());
  result.apply(std::nullopt), std::remove(dir_.file("journal").c_str());
  {
    CVD_Loader loader;
    {
      // A library that appears later is picked up by the next attempt.
      Scoped_Env sdk("CAS_CVD_SDK_PATH", dir_.file("libcvd.so"));
      EXPECT_FALSE(loader.init());
    }
    Scoped_Env sdk("CAS_CVD_SDK_PATH", S(CVD_STUB_PATH));
    ASSERT_TRUE(loader.init());
    EXPECT_TRUE(loader.inited() && loader.init());
    EXPECT_EQ(functions_loaded(), 8);
    // Other loaders, never initialised or refused, leave the functions to the one that holds them.
    { CVD_Loader idle; }
    {
      CVD_Loader second;
      Log_Capture log;
      EXPECT_FALSE(second.init());
      EXPECT_EQ(messages(log), "Failed to load CAS libcvd: another loader holds it.\n");
    }
    EXPECT_EQ(std::tuple(functions_loaded(), journal()), std::tuple(8, init_line()));
  }
  EXPECT_EQ(std::tuple(journal(), functions_loaded()), std::tuple(init_line() + "deinit\n", 0));
  Scoped_Env sdk("CAS_CVD_SDK_PATH", S(CVD_STUB_PATH));
  CVD_Loader next;
  EXPECT_TRUE(next.init());
}

TEST_F(Servant_Test, ConnectsOpensReadsAndReleasesEverything) {
  Scoped_Env sdk{"CAS_CVD_SDK_PATH", S(CVD_STUB_PATH)};
  CVD_Loader loader;
  ASSERT_TRUE(loader.init());
  CVM_Info cvm = make_cvm(8443, "operator", "s3cret");
  Log_Capture log;
  {
    CVD_Connection conn, refused(9000);
    EXPECT_FALSE(refused.connect(cvm, "unreachable", ""));
    EXPECT_FALSE(refused.connected() || refused.open("/vms/images/web01", nullptr, 1));
    ASSERT_TRUE(conn.connect(cvm, "10.1.1.3", "web01"));
    EXPECT_TRUE(conn.connected());
    EXPECT_FALSE(conn.connect(cvm, "10.1.1.3", "web01"));
    CVD_Disk_Handle snap = conn.open("/vms/images/web01", "snap1", CVD_OPEN_READ);
    ASSERT_TRUE(snap);
    char buf[4];
    EXPECT_EQ(cvd_disk_read(snap.get(), 27, sizeof buf, buf), 4);
    EXPECT_EQ(S(buf, 4), "bcde");
    EXPECT_TRUE(conn.open("/vms/images/web01-data", nullptr, CVD_OPEN_READ_WRITE));
    EXPECT_FALSE(conn.open("/missing", nullptr, CVD_OPEN_READ));
    snap.reset();
  }
  S text = messages(log);
  for (const char* line :
       {"Failed to connect to cvd-ds service of CVK 'unreachable', error=-111.\n",
        "conn_ != nullptr:\n", "Connecting to '10.1.1.3' for disk access.\n",
        "'10.1.1.3' connected for disk access, cost ", "cvd_connection.cc:", ", conn_ is true:\n",
        "Opening disk '/vms/images/web01', snapshot = 'snap1'.\n",
        "Disk '/vms/images/web01' with snapshot = 'snap1' is opened, cost ",
        "Opening disk '/vms/images/web01-data', snapshot = ''.\n",
        "Failed to open disk '/missing' on CAS, error=-2.\n"}) {
    EXPECT_NE(text.find(line), S::npos) << line << text;
    text.erase(0, text.find(line));  // in this order
  }
  EXPECT_EQ(journal(), init_line() +
                           "connect unreachable 9000 operator s3cret  0\n"
                           "connect 10.1.1.3 8192 operator s3cret web01 0\n"
                           "open /vms/images/web01 snap1 1\nopen /vms/images/web01-data - 2\n"
                           "close /vms/images/web01-data\nopen /missing - 1\n"
                           "close /vms/images/web01\ndisconnect 10.1.1.3\n");
}

// A default record of each action is a valid one.
JSON_Value exec_params(const char* action, const char* patch = "{}") {
  JSON_Value params =
      S(action) == "restore" ? VM_Restore_Params().dump() : VM_Backup_Params().dump();
  params["action"] = action, params.merge_patch(json(patch));
  return params;
}

// Replies to h3ccas.exec with or without libcvd; only well-formed requests need it, once.
TEST_F(Servant_Test, ExecReplies) {
  const char *no_action = "Invalid params: 'action' is expected as string in params.",
             *no_object = "Invalid params: params type must be object.";
  // params, code and message of the reply with libcvd; only those marked need it (without it:
  // -32603 "Failed to load CAS libcvd.")
  const std::tuple<JSON_Value, int, const char*, bool> cases[] = {
      {JSON_Value::array({1}), -32602, no_object, false},
      {JSON_Value::object(), -32602, no_action, false},
      {{{"action", 5}}, -32602, no_action, false},
      {{{"action", "Backup"}}, -32602, "Invalid value on params.action.", true},
      {exec_params("backup", R"({"cvd_target_addr":null})"), -32602, "", true},
      {exec_params("restore", R"({"disks":[{"source_path":"/a"}]})"), -32602, "", true},
  };
  CVD_Loader loader;
  Exposed<Exec_Handler> handler(loader);
  for (bool with_libcvd : {false, true}) {
    Scoped_Env sdk("CAS_CVD_SDK_PATH", with_libcvd ? S(CVD_STUB_PATH) : dir_.file("libcvd.so"));
    for (const auto& [params, code, message, needs_libcvd] : cases) {
      auto chn = std::make_shared<Capture_Channel>();
      auto req = std::make_shared<JSON_RPC_Request>("h3ccas.exec", params, 7);
      EXPECT_EQ(handler.handle_object_i(chn, req), 0) << params;
      const bool loaded = with_libcvd || !needs_libcvd;
      const JSON_Value error = {{"code", loaded ? code : -32603},
                                {"message", loaded ? message : "Failed to load CAS libcvd."},
                                {"data", nullptr}};
      EXPECT_EQ(chn->sent,
                (std::vector<JSON_Value>{{{"jsonrpc", "2.0"}, {"id", 7}, {"error", error}}}))
          << params;
    }
    EXPECT_EQ(loader.inited(), with_libcvd);
  }
  EXPECT_EQ(journal(), init_line());
  // Nothing is sent for a response or to a requester that has gone.
  Log_Capture log;
  auto chn = std::make_shared<Capture_Channel>();
  EXPECT_EQ(handler.handle_object_i(chn, std::make_shared<JSON_RPC_Response>(JSON_Value(3))), -1);
  auto req = std::make_shared<JSON_RPC_Request>("h3ccas.exec", exec_params("backup"), 4);
  EXPECT_EQ(handler.handle_object_i(nullptr, req), -1);
  EXPECT_TRUE(chn->sent.empty());
  EXPECT_EQ(log.count(), 2u);
}
}  // namespace
}  // namespace h3ccas
