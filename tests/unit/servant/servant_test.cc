#include "host/servant/servant.h"
#include "host/module/module.h"
#include "host/servant/frame.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/unit/servant/fixture.h"

#include <ace/Process.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tuple>
#include <vector>

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
  EXPECT_TRUE(cut.feed(half.data(), half.size()) && !cut.next(t) && cut.partial());
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

using Servant_Test = Servant_Fixture;

TEST_F(Servant_Test, EnvironmentIsPrependedAndBadServantSectionsAreRefused) {
  set_env("SERVANT_TEST_PATH", "/inherited");
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
  // A servant section that does not map names to the module's handlers is refused.
  for (const char* methods : {R"({"x":1})", R"(["x"])", R"({"x":"Nope"})"}) {
    write_text_file(dir_.file("bad.module.json"), std::string(R"({"name":"t","library":")") +
                                                      SERVANT_TEST_MODULE_PATH +
                                                      R"(","servant_jsonrpc":)" + methods + "}");
    EXPECT_EQ(Module::load(dir_.file("bad.module.json")), nullptr) << methods;
  }
}

class Servant_Process_Test : public Servant_Fixture {
 protected:
  void start(Servant& s, const std::string& conf) {
    s.reset("tester", conf.c_str(), nullptr, nullptr, "vm 01");
    s.set_log_msg_callback([this](const std::string& line) { log_ += line; });
    ASSERT_TRUE(s.start());
  }
  bool logged(const std::string& text) const { return log_.find(text) != std::string::npos; }
  std::string log_;
};

TEST_F(Servant_Process_Test, AnswersRequestsForwardsItsLogAndNeedsItsProgramAndConfiguration) {
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
  EXPECT_EQ(s.call("echo", JSON_Value::object(), 30)->result()["pid"], pid);
  s.stop();
  EXPECT_TRUE(logged("WARNING") && logged("raw disk 2 of 3 copied")) << log_;
  // An idle servant leaves on its own when its channel closes, before any signal.
  EXPECT_TRUE(WIFEXITED(s.exit_status()) && WEXITSTATUS(s.exit_status()) == 0) << s.exit_status();
  EXPECT_FALSE(logged("Stopping on signal")) << log_;
  EXPECT_TRUE(process_gone(pid));
  EXPECT_EQ(s.call("echo", JSON_Value::object(), 30), nullptr);
  // It needs its program and a configuration it can load; else it leaves at once, and says why.
  Servant bad;
  auto starts = [&bad](const char* conf, const std::string& program) {
    bad.reset("tester", conf, nullptr, program.empty() ? nullptr : program.c_str(), "x");
    return bad.start();
  };
  EXPECT_FALSE(starts(nullptr, "") || starts(conf_.c_str(), dir_.file("no-such-servant")) ||
               starts("/path with blanks/svc.json", ""));
  write_text_file(dir_.file("broken.json"), R"({"modules": 5})");
  start(bad, dir_.file("broken.json"));
  EXPECT_EQ(bad.call("echo", JSON_Value::object(), 30), nullptr);
  EXPECT_TRUE(logged("invalid configuration"));
}

// brimlet-servant on a socket of the test's own, to feed it what Servant never sends.
struct Raw_Servant {
  explicit Raw_Servant(const std::string& conf) {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    sock.reset(pair[0]);
    fcntl(pair[0], F_SETFD, FD_CLOEXEC);
    timeval timeout = {20, 0};
    setsockopt(pair[0], SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    EXPECT_TRUE(process.start({"brimlet-servant", "--config", conf},
                              {std::string(SERVANT_ENV_FD) + "=" + std::to_string(pair[1])}));
    close(pair[1]);
  }
  // Sends `bytes` (a frame unless `raw`); the next frame as JSON, null on time-out or end.
  JSON_Value exchange(const std::string& bytes, bool raw = false) {
    std::string sent = raw ? bytes : encode_frame(bytes);
    ::send(sock.get(), sent.data(), sent.size(), MSG_NOSIGNAL);
    Frame_Decoder d;
    std::string text;
    char buf[4096];
    for (ssize_t n; !d.next(text);)
      if ((n = read(sock.get(), buf, sizeof buf)) <= 0 || !d.feed(buf, std::size_t(n)))
        return nullptr;
    return JSON_Value::parse(text, nullptr, false);
  }
  Unique_Fd sock;
  Test_Process process;
};

TEST_F(Servant_Process_Test, ACrashHangGarbageOrCancelIsAFailedCallAndBadFramesEndItCleanly) {
  const std::tuple<const char*, const char*, int, bool, const char*> cases[] = {
      {"crash", nullptr, 30, false, "ended without answering 'crash': "},
      {"hang", nullptr, 1, false, "did not answer 'hang' within 1 seconds"},
      {"hang", nullptr, 0, true, "stopped while running 'hang'"},
      {"garbage", "text", 30, false, "answered 'garbage' with no response to it: this is not JSON"},
      {"garbage", "length", 30, false, "sent a malformed frame for 'garbage'"},
      {"garbage", "stranger", 30, false, "answered 'garbage' with no response to it: {"},
  };
  for (const auto& [method, kind, timeout, cancel, message] : cases) {
    const JSON_Value params = kind ? JSON_Value{{"kind", kind}} : JSON_Value::object();
    Log_Capture log;
    Servant s;
    start(s, conf_);
    pid_t pid = s.pid();
    int polls = 0;
    auto cancelled = [&polls] { return ++polls >= 3; };
    EXPECT_EQ(cancel ? s.call(method, params, timeout, cancelled) : s.call(method, params, timeout),
              nullptr)
        << method << params;
    EXPECT_EQ(polls >= 3, cancel);
    EXPECT_EQ(s.pid(), -1) << method;
    EXPECT_NE(s.exit_status(), -1) << method;
    EXPECT_TRUE(process_gone(pid)) << method;
    EXPECT_TRUE(log.contains(message)) << log.text();
  }
  Raw_Servant s(conf_);
  const std::pair<const char*, int> answered[] = {
      {"{\"jsonrpc\":\"2.0\",", JSON_RPC_PARSE_ERROR},
      {"[1,2]", JSON_RPC_INVALID_REQUEST},
      {R"({"jsonrpc":"2.0","result":{},"id":1})", JSON_RPC_INVALID_REQUEST},
      {R"({"jsonrpc":"2.0","method":"nothing","id":2})", JSON_RPC_METHOD_NOT_FOUND},
  };
  for (const auto& c : answered)
    EXPECT_EQ(s.exchange(c.first)["error"]["code"], c.second) << c.first;
  EXPECT_EQ(s.exchange(R"({"jsonrpc":"2.0","method":"echo","params":{},"id":3})")["id"], 3);
  // A length it cannot take: nothing after it can be trusted, so it leaves, without crashing.
  EXPECT_EQ(s.exchange(std::string("\x7f\x00\x00\x00{}", 6), true), nullptr);
  int status = s.process.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  Raw_Servant other(conf_);
  ASSERT_EQ(other.exchange(R"({"jsonrpc":"2.0","method":"echo","id":1})")["id"], 1);
  status = other.process.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
}  // namespace
