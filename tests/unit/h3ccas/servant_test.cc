#include "h3ccas/common.h"
#include "h3ccas/servant/cvd_connection.h"
#include "h3ccas/servant/cvd_loader.h"
#include "h3ccas/servant/exec_handler.h"

#include "host/core/paths.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace h3ccas {
namespace {

// Sets (or, with nullopt, removes) an environment variable for the life of the object.
class Scoped_Env {
 public:
  Scoped_Env(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = std::getenv(name))
      old_ = old;
    apply(value);
  }
  ~Scoped_Env() { apply(old_); }
  Scoped_Env(const Scoped_Env&) = delete;
  Scoped_Env& operator=(const Scoped_Env&) = delete;

 private:
  void apply(const std::optional<std::string>& value) {
    if (value)
      setenv(name_, value->c_str(), 1);
    else
      unsetenv(name_);
  }
  const char* name_;
  std::optional<std::string> old_;
};

// Each test gets its own install root and a journal of the stub library's calls.
class Servant_Test : public ::testing::Test {
 protected:
  std::vector<std::string> journal() const {
    std::vector<std::string> lines;
    std::ifstream in(dir_.file("journal"));
    for (std::string line; std::getline(in, line);)
      lines.push_back(line);
    return lines;
  }
  std::string init_line() const {
    return "init starter " + dir_.path() + "/var/log/brimlet5/cvd-sdk.log " + dir_.file("cvd.conf");
  }

  Temp_Dir dir_;
  Scoped_Env root_{"BRIMLET_ROOT", dir_.path()};
  Scoped_Env journal_{"CVD_STUB_JOURNAL", dir_.file("journal")};
  Scoped_Env conf_{"CAS_CVD_SDK_CONF_PATH", dir_.file("cvd.conf")};
  Scoped_Env init_result_{"CVD_STUB_INIT_RESULT", std::nullopt};
};

bool any_function_loaded() {
  return cvd_init || cvd_deinit || cvd_connect || cvd_disconnect || cvd_disk_open ||
         cvd_disk_close || cvd_disk_read || cvd_disk_write;
}

using Loader_Test = Servant_Test;

// Each failure is one message naming what is missing, and nothing stays loaded.
TEST_F(Loader_Test, FailuresNameWhatIsMissing) {
  struct Case {
    std::optional<std::string> path;
    const char* init_result;
    std::string message;
  };
  const Case cases[] = {
      {std::nullopt, nullptr, "Failed to load CAS libcvd '': CAS_CVD_SDK_PATH is not set\n"},
      {dir_.file("libcvd.so"), nullptr,
       "Failed to load CAS libcvd '" + dir_.file("libcvd.so") + "': " + dir_.file("libcvd.so") +
           ": cannot open shared object file"},
      {std::string(CVD_STUB_NO_OPEN_PATH), nullptr,
       "Failed to load CAS libcvd symbol cvd_disk_open: "},
      {std::string(CVD_STUB_PATH), "-5", "Failed to init CAS libcvd, error=-5.\n"},
  };
  for (const auto& c : cases) {
    Scoped_Env path("CAS_CVD_SDK_PATH", c.path);
    Scoped_Env result("CVD_STUB_INIT_RESULT",
                      c.init_result ? std::optional<std::string>(c.init_result) : std::nullopt);
    Log_Capture log;
    {
      CVD_Loader loader;
      EXPECT_FALSE(loader.init());
      EXPECT_FALSE(loader.inited());
      EXPECT_FALSE(any_function_loaded()) << c.message;
    }
    EXPECT_TRUE(log.contains(c.message)) << log.text();
  }
  // Only the stub whose cvd_init refused was initialised, and a refused one is not finished.
  EXPECT_EQ(journal(), std::vector<std::string>{init_line()});
}

TEST_F(Loader_Test, InitialisesOnceAndFinishesOnDestruction) {
  {
    CVD_Loader loader;
    {
      // A library that appears later is picked up by the next attempt.
      Scoped_Env path("CAS_CVD_SDK_PATH", dir_.file("libcvd.so"));
      EXPECT_FALSE(loader.init());
    }
    Scoped_Env path("CAS_CVD_SDK_PATH", std::string(CVD_STUB_PATH));
    ASSERT_TRUE(loader.init());
    EXPECT_TRUE(loader.inited());
    EXPECT_TRUE(loader.init());
    EXPECT_TRUE(cvd_init && cvd_deinit && cvd_connect && cvd_disconnect && cvd_disk_open &&
                cvd_disk_close && cvd_disk_read && cvd_disk_write);
    EXPECT_EQ(journal(), std::vector<std::string>{init_line()});
  }
  EXPECT_EQ(journal(), (std::vector<std::string>{init_line(), "deinit"}));
  EXPECT_FALSE(any_function_loaded());
}

// A loaded stub per test.
class Connection_Test : public Servant_Test {
 protected:
  void SetUp() override { ASSERT_TRUE(loader_.init()); }
  Scoped_Env path_{"CAS_CVD_SDK_PATH", std::string(CVD_STUB_PATH)};
  CVD_Loader loader_;
};

TEST_F(Connection_Test, ConnectsOpensReadsAndReleasesEverything) {
  CVM_Info cvm = make_cvm(8443, "operator", "s3cret");
  Log_Capture log;
  {
    CVD_Connection conn;
    EXPECT_FALSE(conn.connected());
    ASSERT_TRUE(conn.connect(cvm, "10.1.1.3", "web01"));
    EXPECT_TRUE(conn.connected());
    EXPECT_TRUE(log.contains("Connecting to '10.1.1.3' for disk access.\n"));
    EXPECT_TRUE(log.contains("'10.1.1.3' connected for disk access, cost "));
    EXPECT_FALSE(conn.connect(cvm, "10.1.1.3", "web01"));
    EXPECT_TRUE(log.contains("Unexpected error in h3ccas/servant/cvd_connection.cc:"));
    EXPECT_TRUE(log.contains(", conn_ is true:\n"));

    CVD_Disk_Handle snap = conn.open("/vms/images/web01", "snap1", CVD_OPEN_READ);
    ASSERT_TRUE(snap);
    EXPECT_TRUE(log.contains("Opening disk '/vms/images/web01', snapshot = 'snap1'.\n"));
    EXPECT_TRUE(log.contains("Disk '/vms/images/web01' with snapshot = 'snap1' is opened, cost "));
    char buf[4];
    EXPECT_EQ(cvd_disk_read(snap.get(), 27, sizeof buf, buf), 4);
    EXPECT_EQ(std::string(buf, 4), "bcde");
    {
      CVD_Disk_Handle live = conn.open("/vms/images/web01-data", nullptr, CVD_OPEN_READ_WRITE);
      ASSERT_TRUE(live);
      EXPECT_TRUE(log.contains("Opening disk '/vms/images/web01-data', snapshot = ''.\n"));
    }
    EXPECT_FALSE(conn.open("/missing", nullptr, CVD_OPEN_READ));
    EXPECT_TRUE(log.contains("Failed to open disk '/missing' on CAS, error=-2.\n"));
    snap.reset();
  }
  EXPECT_EQ(journal(), (std::vector<std::string>{
                           init_line(),
                           "connect 10.1.1.3 8192 operator s3cret web01 0",
                           "open /vms/images/web01 snap1 1",
                           "open /vms/images/web01-data - 2",
                           "close /vms/images/web01-data",
                           "open /missing - 1",
                           "close /vms/images/web01",
                           "disconnect 10.1.1.3",
                       }));
}

TEST_F(Connection_Test, ARefusedConnectionHoldsNothing) {
  Log_Capture log;
  {
    CVD_Connection conn;
    EXPECT_FALSE(conn.connect(make_cvm(8443, "admin", "pw"), "unreachable", ""));
    EXPECT_FALSE(conn.connected());
    EXPECT_TRUE(
        log.contains("Failed to connect to cvd-ds service of CVK 'unreachable', error=-111.\n"));
    EXPECT_FALSE(conn.open("/vms/images/web01", nullptr, CVD_OPEN_READ));
    EXPECT_TRUE(log.contains("conn_ != nullptr:\n"));
  }
  EXPECT_EQ(journal(),
            (std::vector<std::string>{init_line(), "connect unreachable 8192 admin pw  0"}));
}

// The real stand-in against the disk service of a running cas-sim.
TEST_F(Servant_Test, ReadsADiskOfTheSimulator) {
  write_text_file(dir_.file("world.json"), R"({
      "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}],
      "pools": [{"name": "p1", "type": "dir", "path": "/p1", "capacity_mib": 100}],
      "hosts": [{"id": 1, "name": "cvk", "ip": "127.0.0.1", "vms": [{"id": 1, "uuid": "u",
        "name": "v", "disks": [{"device_name": "vda", "size_mib": 4, "pool": "p1",
        "path": "/p1/data", "content": {"pattern": "random", "seed": 5}}]}]}]})");
  Test_Process sim;
  ASSERT_TRUE(sim.start(
      {"cas-sim", "--world", dir_.file("world.json"), "--ready-file", dir_.file("ready.json"),
       "--cvd-listen", "127.0.0.1:0", "--data", dir_.file("data")},
      {}, dir_.file("sim.out")));
  JSON_Value ready;
  ASSERT_TRUE(sim.wait_ready(dir_.file("ready.json"), ready));
  write_text_file(dir_.file("cvd.conf"), "network_timeout = 60;\nlog_level = \"info\";\n");
  ASSERT_TRUE(make_dirs(dir_.path() + "/var/log/brimlet5", 0755));

  Scoped_Env path("CAS_CVD_SDK_PATH", std::string(BRIMLET_LIB_DIR "/libcvd.so"));
  CVD_Loader loader;
  ASSERT_TRUE(loader.init());
  const std::uint64_t size = 4 << 20;
  std::string read(size, '\0');
  {
    CVD_Connection wrong_password(ready["cvd_port"].get<int>());
    Log_Capture log;
    EXPECT_FALSE(wrong_password.connect(make_cvm(8443, "admin", "nope"), "127.0.0.1", "v"));
    EXPECT_TRUE(
        log.contains("Failed to connect to cvd-ds service of CVK '127.0.0.1', error=-13.\n"))
        << log.text();

    CVD_Connection conn(ready["cvd_port"].get<int>());
    ASSERT_TRUE(conn.connect(make_cvm(8443, "admin", "Adm1n pass"), "127.0.0.1", "v"));
    CVD_Disk_Handle disk = conn.open("/p1/data", nullptr, CVD_OPEN_READ);
    ASSERT_TRUE(disk);
    const std::uint64_t step = 1 << 20;
    for (std::uint64_t at = 0; at < size; at += step)
      ASSERT_EQ(cvd_disk_read(disk.get(), at, step, &read[at]), static_cast<std::int64_t>(step));
    EXPECT_FALSE(conn.open("/p1/none", nullptr, CVD_OPEN_READ));
  }
  // The simulator keeps the disk as an image file.
  std::string image;
  ASSERT_TRUE(read_file(dir_.file("data") + "/disks/p1/data", image));
  EXPECT_EQ(image.size(), size);
  EXPECT_TRUE(read == image);
  EXPECT_NE(read.find_first_not_of('\0'), std::string::npos);
  std::string sdk_log;
  EXPECT_TRUE(read_file(dir_.path() + "/var/log/brimlet5/cvd-sdk.log", sdk_log));
  EXPECT_NE(sdk_log.find("starter"), std::string::npos) << sdk_log;
}

class Recording_Channel : public JSON_RPC_Channel {
 public:
  int send(const JSON_RPC_Object& obj) override {
    sent.push_back(obj.to_json());
    return 0;
  }
  std::vector<JSON_Value> sent;
};

class Exposed_Exec_Handler : public Exec_Handler {
 public:
  using Exec_Handler::Exec_Handler;
  using Exec_Handler::handle_object_i;
};

JSON_Value error_reply(int code, const char* message) {
  return {{"jsonrpc", "2.0"},
          {"id", 7},
          {"error", {{"code", code}, {"message", message}, {"data", nullptr}}}};
}

// Valid parameters of each action, as the agent sends them.
JSON_Value exec_params(const char* action) {
  JSON_Value params;
  if (std::string(action) == "restore") {
    VM_Restore_Params p;
    p.cvm_ = make_cvm(8443, "admin", "pw");
    params = p.dump();
  } else {
    VM_Backup_Params p;
    p.cvm_ = make_cvm(8443, "admin", "pw");
    params = p.dump();
  }
  params["action"] = action;
  return params;
}

class Exec_Test : public Servant_Test {
 protected:
  // The replies to a request with `params`, one at a time.
  std::vector<JSON_Value> exchange(const JSON_Value& params) {
    auto chn = std::make_shared<Recording_Channel>();
    auto req = std::make_shared<JSON_RPC_Request>("h3ccas.exec", params, 7);
    EXPECT_EQ(handler_.handle_object_i(chn, req), 0) << params;
    return chn->sent;
  }
  void expect_replies(const std::vector<std::pair<JSON_Value, JSON_Value>>& cases) {
    for (const auto& [params, reply] : cases)
      EXPECT_EQ(exchange(params), std::vector<JSON_Value>{reply}) << params;
  }

  CVD_Loader loader_;
  Exposed_Exec_Handler handler_{loader_};
};

// The servant keeps answering while libcvd is missing; only well-formed requests need it.
TEST_F(Exec_Test, WithoutLibcvd) {
  Scoped_Env path("CAS_CVD_SDK_PATH", dir_.file("libcvd.so"));
  const auto load_failed = error_reply(-32603, "Failed to load CAS libcvd.");
  expect_replies({
      {JSON_Value::array({1}), error_reply(-32602, "Invalid params: params type must be object.")},
      {JSON_Value::object(),
       error_reply(-32602, "Invalid params: 'action' is expected as string in params.")},
      {{{"action", 5}},
       error_reply(-32602, "Invalid params: 'action' is expected as string in params.")},
      {exec_params("backup"), load_failed},
      {exec_params("restore"), load_failed},
      {{{"action", "verify"}}, load_failed},
  });
  EXPECT_FALSE(loader_.inited());
}

TEST_F(Exec_Test, WithLibcvd) {
  Scoped_Env path("CAS_CVD_SDK_PATH", std::string(CVD_STUB_PATH));
  JSON_Value bad_backup = exec_params("backup");
  bad_backup.erase("cvd_target_addr");
  JSON_Value bad_restore = exec_params("restore");
  bad_restore["disks"] = JSON_Value::array({JSON_Value{{"source_path", "/vms/images/web01"}}});
  Log_Capture log;
  expect_replies({
      {{{"action", "verify"}}, error_reply(-32602, "Invalid value on params.action.")},
      {{{"action", "Backup"}}, error_reply(-32602, "Invalid value on params.action.")},
      {bad_backup, error_reply(-32602, "")},
      {bad_restore, error_reply(-32602, "")},
      {exec_params("backup"), error_reply(-32603, "VM backup is not available yet.")},
      {exec_params("restore"), error_reply(-32603, "VM restore is not available yet.")},
  });
  EXPECT_TRUE(log.contains("Invalid CAS backup params: missing key 'cvd_target_addr'.\n"));
  EXPECT_TRUE(
      log.contains("Invalid CAS VM restore params for disks: missing key 'target_pool_name'.\n"));
  EXPECT_TRUE(loader_.inited());
  // libcvd was initialised once for all the requests.
  EXPECT_EQ(journal(), std::vector<std::string>{init_line()});
}

TEST_F(Exec_Test, NothingIsSentForResponsesOrAbsentRequesters) {
  Log_Capture log;
  auto chn = std::make_shared<Recording_Channel>();
  EXPECT_EQ(handler_.handle_object_i(chn, std::make_shared<JSON_RPC_Response>(JSON_Value(3))), -1);
  EXPECT_TRUE(log.contains("obj is not JSON-RPC request!\n"));
  auto req = std::make_shared<JSON_RPC_Request>("h3ccas.exec", exec_params("backup"), 4);
  EXPECT_EQ(handler_.handle_object_i(nullptr, req), -1);
  EXPECT_TRUE(log.contains("Abort handling JSON-RPC request, requester has gone.\n"));
  EXPECT_TRUE(chn->sent.empty());
  EXPECT_FALSE(loader_.inited());
}

}  // namespace
}  // namespace h3ccas
