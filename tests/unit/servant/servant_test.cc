#include "host/servant/servant.h"
#include "host/module/module.h"
#include "host/servant/frame.h"
#include "tests/support/process.h"
#include "tests/unit/servant/fixture.h"

#include <ace/Process.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

extern char** environ;

namespace {

TEST(Frame_Decoder, SplitsFramesHoweverTheBytesArriveAndRefusesImpossibleLengths) {
  const std::vector<std::string> texts = {"{}", R"({"a":1})", std::string(70000, 'x')};
  std::string stream;
  for (const auto& t : texts)
    stream += encode_frame(t);
  for (std::size_t chunk : {std::size_t(1), std::size_t(3), std::size_t(4096), stream.size()}) {
    Frame_Decoder d;
    std::vector<std::string> got;
    for (std::size_t i = 0; i < stream.size(); i += chunk) {
      ASSERT_TRUE(d.feed(stream.data() + i, std::min(chunk, stream.size() - i)));
      for (std::string t; d.next(t);)
        got.push_back(t);
    }
    EXPECT_EQ(got, texts) << "chunk " << chunk;
    EXPECT_FALSE(d.partial());
  }
  Frame_Decoder cut;
  std::string t, half = encode_frame("{\"a\":1}").substr(0, 6);
  ASSERT_TRUE(cut.feed(half.data(), half.size()));
  EXPECT_FALSE(cut.next(t));
  EXPECT_TRUE(cut.partial());

  const std::pair<std::string, bool> lengths[] = {
      {std::string("\0\0\0\0", 4), false},                       // empty frame
      {std::string("\0\0\0\x11", 4), true},                      // 17 bytes: within a max of 17
      {std::string("\0\0\0\x12", 4), false},                     // one above the maximum
      {"\xff\xff\xff\xff", false},                               // 4 GiB
      {encode_frame("{}") + std::string("\0\0\0\0", 4), false},  // bad length after a good frame
  };
  for (const auto& c : lengths) {
    Frame_Decoder d(17);
    EXPECT_EQ(d.feed(c.first.data(), c.first.size()), c.second) << c.first.size();
    EXPECT_EQ(d.bad(), !c.second);
    EXPECT_EQ(d.feed("{}", 2), c.second);  // a bad stream stays bad
  }
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  Unique_Fd a(pair[0]), b(pair[1]);
  for (const std::string& payload : {std::string(), std::string(JSON_RPC_FRAME_MAX + 1, ' ')}) {
    EXPECT_FALSE(write_frame(a.get(), payload));
    EXPECT_EQ(errno, EMSGSIZE);
  }
}

TEST(Servant_Env, PrependsToTheValueTheChildWouldSee) {
  setenv("SERVANT_TEST_PATH", "/inherited", 1);
  unsetenv("SERVANT_TEST_NONE");
  ACE_Process_Options o;
  ASSERT_EQ(prepend_process_options_env(o, "SERVANT_TEST_PATH", "/a"), 0);
  ASSERT_EQ(prepend_process_options_env(o, "SERVANT_TEST_PATH", "/b"), 0);
  ASSERT_EQ(prepend_process_options_env(o, "SERVANT_TEST_NONE", "/c"), 0);
  std::vector<std::string> env;
  for (char* const* e = o.env_argv(); *e; ++e)
    env.push_back(*e);
  // The child takes the last assignment of a name.
  EXPECT_EQ(env, (std::vector<std::string>{"SERVANT_TEST_PATH=/a:/inherited",
                                           "SERVANT_TEST_PATH=/b:/a:/inherited",
                                           "SERVANT_TEST_NONE=/c"}));
  EXPECT_EQ(prepend_process_options_env(o, "BAD=NAME", "/x"), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(Servant_Module, ServantMethodsAreTheirOwnSection) {
  Temp_Dir dir;
  write_servant_conf(dir, dir.file("svc.json"));
  auto m = Module::load(dir.file("servant_test.module.json"));
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->json_rpc_methods(), std::vector<std::string>{"agent.only"});
  EXPECT_EQ(m->servant_json_rpc_methods().size(), std::size(TEST_SERVANT_METHODS));
  EXPECT_NE(m->make_servant_json_rpc_handler("echo"), nullptr);
  EXPECT_EQ(m->make_servant_json_rpc_handler("agent.only"), nullptr);
  EXPECT_EQ(m->make_json_rpc_handler("echo"), nullptr);
  for (const char* methods : {R"({"x":1})", R"(["x"])", R"({"x":"Nope"})"}) {
    write_text_file(dir.file("bad.module.json"), std::string(R"({"name":"t","library":")") +
                                                     SERVANT_TEST_MODULE_PATH +
                                                     R"(","servant_jsonrpc":)" + methods + "}");
    EXPECT_EQ(Module::load(dir.file("bad.module.json")), nullptr) << methods;
  }
}

class Servant_Process_Test : public ::testing::Test {
 protected:
  void SetUp() override { conf_ = write_servant_conf(dir_, dir_.file("svc.json")); }

  void start(Servant& s, const std::string& conf) {
    s.reset("tester", conf.c_str(), nullptr, nullptr, "vm 01");
    s.set_log_msg_callback([this](const std::string& line) { log_ += line; });
    ASSERT_TRUE(s.start());
  }
  bool logged(const std::string& text) const { return log_.find(text) != std::string::npos; }

  Temp_Dir dir_;
  std::string conf_, log_;
};

TEST_F(Servant_Process_Test, AnswersRequestsAndForwardsItsLog) {
  Servant s;
  start(s, conf_);
  pid_t pid = s.pid();
  auto resp = s.call("echo", {{"vm", "web01"}}, 30);
  ASSERT_NE(resp, nullptr);
  EXPECT_EQ(resp->result(),
            (JSON_Value{{"echo", {{"vm", "web01"}}}, {"pid", pid}, {"label", "vm 01"}}));
  // The agent's methods are not the servant's; neither is anything else.
  for (const char* method : {"agent.only", "no.such"}) {
    resp = s.call(method, JSON_Value::object(), 30);
    ASSERT_NE(resp, nullptr) << method;
    EXPECT_EQ(resp->error()["code"], JSON_RPC_METHOD_NOT_FOUND);
  }
  ASSERT_NE(s.call("log", {{"text", "disk 2 of 3 copied"}}, 30), nullptr);
  // Still the same process, after all of that.
  EXPECT_EQ(s.call("echo", JSON_Value::object(), 30)->result()["pid"], pid);
  s.stop();
  EXPECT_TRUE(logged("WARNING"));
  EXPECT_TRUE(logged("disk 2 of 3 copied"));
  EXPECT_TRUE(logged("raw disk 2 of 3 copied"));
  // An idle servant leaves on its own when its channel closes.
  EXPECT_TRUE(WIFEXITED(s.exit_status()) && WEXITSTATUS(s.exit_status()) == 0) << s.exit_status();
  EXPECT_TRUE(process_gone(pid));
  EXPECT_EQ(s.call("echo", JSON_Value::object(), 30), nullptr);
}

TEST_F(Servant_Process_Test, ACrashHangGarbageOrCancelIsAFailedCallAndAnEndedProcess) {
  struct Case {
    const char* method;
    JSON_Value params;
    int timeout;
    bool cancel;
  } cases[] = {
      {"crash", JSON_Value::object(), 30, false},   {"hang", JSON_Value::object(), 1, false},
      {"hang", JSON_Value::object(), 0, true},      {"garbage", {{"kind", "text"}}, 30, false},
      {"garbage", {{"kind", "length"}}, 30, false}, {"garbage", {{"kind", "stranger"}}, 30, false},
  };
  for (const auto& c : cases) {
    Servant s;
    start(s, conf_);
    pid_t pid = s.pid();
    int polls = 0;
    auto cancelled = [&polls] { return ++polls >= 3; };
    EXPECT_EQ(c.cancel ? s.call(c.method, c.params, c.timeout, cancelled)
                       : s.call(c.method, c.params, c.timeout),
              nullptr)
        << c.method << c.params;
    EXPECT_EQ(polls >= 3, c.cancel);
    EXPECT_EQ(s.pid(), -1) << c.method;
    EXPECT_NE(s.exit_status(), -1) << c.method;
    EXPECT_TRUE(process_gone(pid)) << c.method;
  }
}

TEST_F(Servant_Process_Test, RefusesToStartWithoutItsProgramOrConfiguration) {
  Servant s;
  s.reset("tester", nullptr, nullptr, nullptr, "x");
  EXPECT_FALSE(s.start());
  s.reset("tester", conf_.c_str(), nullptr, dir_.file("no-such-servant").c_str(), "x");
  EXPECT_FALSE(s.start());
  s.reset("tester", "/path with blanks/svc.json", nullptr, nullptr, "x");
  EXPECT_FALSE(s.start());
  // A configuration that cannot be loaded: the servant leaves at once, and says why.
  write_text_file(dir_.file("broken.json"), R"({"modules": 5})");
  start(s, dir_.file("broken.json"));
  EXPECT_EQ(s.call("echo", JSON_Value::object(), 30), nullptr);
  EXPECT_TRUE(logged("invalid configuration"));
}

// brimlet-servant on a socket of the test's own, to feed it what Servant never sends.
class Raw_Servant {
 public:
  explicit Raw_Servant(const std::string& conf) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
      return;
    sock_ = Unique_Fd(pair[0]);
    Unique_Fd theirs(pair[1]);
    // Everything the child needs is made before fork.
    std::string program = bin_path("brimlet-servant");
    std::vector<std::string> env_text = {std::string(SERVANT_ENV_FD) + "=3"};
    for (char** e = environ; *e; ++e)
      env_text.push_back(*e);
    std::vector<char*> env;
    for (auto& e : env_text)
      env.push_back(&e[0]);
    env.push_back(nullptr);
    const char* argv[] = {program.c_str(), "--config", conf.c_str(), nullptr};
    pid_ = fork();
    if (pid_ == 0) {
      if (theirs.get() == 3)
        fcntl(3, F_SETFD, 0);
      else
        dup2(theirs.get(), 3);
      execve(argv[0], const_cast<char**>(argv), env.data());
      _exit(127);
    }
  }
  ~Raw_Servant() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  bool send_frame(const std::string& payload, bool raw = false) {
    std::string bytes = raw ? payload : encode_frame(payload);
    return ::send(sock_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  // The next frame as JSON (null on time-out or end).
  JSON_Value receive() {
    Frame_Decoder d;
    std::string text;
    while (!d.next(text)) {
      pollfd p{sock_.get(), POLLIN, 0};
      char buf[4096];
      ssize_t n = poll(&p, 1, 10000) == 1 ? read(sock_.get(), buf, sizeof buf) : 0;
      if (n <= 0 || !d.feed(buf, static_cast<std::size_t>(n)))
        return nullptr;
    }
    return JSON_Value::parse(text, nullptr, false);
  }
  // waitpid status once it has ended on its own.
  int wait_exit() {
    int status = -1;
    if (waitpid(pid_, &status, 0) == pid_)
      pid_ = -1;
    return status;
  }
  void close_channel() { sock_.reset(); }
  pid_t pid() const { return pid_; }

 private:
  Unique_Fd sock_;
  pid_t pid_ = -1;
};

TEST_F(Servant_Process_Test, BadFramesAreAnsweredOrEndTheServantCleanly) {
  Raw_Servant s(conf_);
  const std::pair<const char*, int> answered[] = {
      {"{\"jsonrpc\":\"2.0\",", JSON_RPC_PARSE_ERROR},
      {"[1,2]", JSON_RPC_INVALID_REQUEST},
      {R"({"jsonrpc":"2.0","result":{},"id":1})", JSON_RPC_INVALID_REQUEST},
      {R"({"jsonrpc":"2.0","method":"nothing","id":2})", JSON_RPC_METHOD_NOT_FOUND},
  };
  for (const auto& c : answered) {
    ASSERT_TRUE(s.send_frame(c.first));
    EXPECT_EQ(s.receive()["error"]["code"], c.second) << c.first;
  }
  // Still serving.
  ASSERT_TRUE(s.send_frame(R"({"jsonrpc":"2.0","method":"echo","params":{},"id":3})"));
  EXPECT_EQ(s.receive()["id"], 3);
  // A length it cannot take: nothing after it can be trusted, so it leaves, without crashing.
  ASSERT_TRUE(s.send_frame(std::string("\x7f\x00\x00\x00{}", 6), true));
  int status = s.wait_exit();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
}

TEST_F(Servant_Process_Test, LeavesCleanlyOnSigtermAndOnAClosedChannel) {
  for (bool by_signal : {true, false}) {
    Raw_Servant s(conf_);
    ASSERT_TRUE(s.send_frame(R"({"jsonrpc":"2.0","method":"echo","id":1})"));
    ASSERT_EQ(s.receive()["id"], 1);
    if (by_signal)
      kill(s.pid(), SIGTERM);
    else
      s.close_channel();
    int status = s.wait_exit();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << by_signal << " " << status;
  }
}

}  // namespace
