// A module for the servant tests. Its "servant_jsonrpc" methods behave well or badly on request:
//   echo     answers its params, pid and label
//   env      answers the values of the environment variables named in "names"
//   log      logs "text" through the log and raw on stderr, then answers
//   hang     writes its pid into "<dir>/<pid>" (when "dir" is given), then never answers
//   crash    aborts
//   flaky    aborts unless file "marker" exists (and creates it), so a second run succeeds
//   garbage  writes "kind" of rubbish on the channel: "text" (a frame that is not JSON),
//            "length" (an impossible frame length), "stranger" (a response to another request)
//   gather   waits in "dir" until "expect" servants are there (or "wait_ms" passed) and answers
//            the most it saw at once, in all and of its "owner"
#include "host/core/log.h"
#include "host/jsonrpc/jsonrpc.h"
#include "host/module/module.h"
#include "host/servant/frame.h"
#include "host/servant/servant.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void crash() {
  rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  abort();
}

int channel_fd() {
  const char* fd = getenv(SERVANT_ENV_FD);
  return fd ? atoi(fd) : -1;
}

// Servants in `dir` now: in all, and those of `owner`.
void count_present(const std::string& dir, const std::string& owner, int& total, int& own) {
  total = own = 0;
  DIR* d = opendir(dir.c_str());
  if (!d)
    return;
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name == "." || name == "..")
      continue;
    ++total;
    if (name.rfind(owner + ".", 0) == 0)
      ++own;
  }
  closedir(d);
}

JSON_Value gather(const JSON_Value& p) {
  const std::string dir = p["dir"], owner = p["owner"];
  const int expect = p["expect"];
  const auto end = Clock::now() + std::chrono::milliseconds(p["wait_ms"].get<int>());
  const std::string marker = dir + "/" + owner + "." + std::to_string(getpid());
  std::ofstream(marker).put('x');
  int max_total = 0, max_own = 0;
  Clock::time_point reached{};
  // Once the expected number is there, stay a little so that the others see it too.
  while (Clock::now() < end && (reached == Clock::time_point{} ||
                                Clock::now() - reached < std::chrono::milliseconds(300))) {
    int total = 0, own = 0;
    count_present(dir, owner, total, own);
    max_total = std::max(max_total, total);
    max_own = std::max(max_own, own);
    if (total >= expect && reached == Clock::time_point{})
      reached = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  unlink(marker.c_str());
  return {{"max_total", max_total}, {"max_owner", max_own}};
}

class Test_Handler : public JSON_RPC_Thread_Handler {
 protected:
  int handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                      std::shared_ptr<JSON_RPC_Object> obj) override {
    const JSON_RPC_Request* req = answerable_request(chn, obj);
    if (!req)
      return -1;
    const JSON_Value& p = req->params();
    const std::string& m = req->method();
    JSON_Value result = JSON_Value::object();
    if (m == "echo") {
      const char* label = getenv(SERVANT_ENV_LABEL);
      result = {{"echo", p}, {"pid", getpid()}, {"label", label ? label : ""}};
    } else if (m == "env") {
      for (const auto& name : p["names"]) {
        const char* v = getenv(name.get<std::string>().c_str());
        result[name.get<std::string>()] = v ? JSON_Value(v) : JSON_Value();
      }
    } else if (m == "log") {
      const std::string text = p["text"];
      LOG_MSG((LM_WARNING, "%s\n", text.c_str()));
      fprintf(stderr, "raw %s\n", text.c_str());
    } else if (m == "hang") {
      if (p.contains("dir"))
        std::ofstream(p["dir"].get<std::string>() + "/" + std::to_string(getpid())) << getpid();
      for (;;)
        pause();
    } else if (m == "crash") {
      crash();
    } else if (m == "flaky") {
      const std::string marker = p["marker"];
      if (access(marker.c_str(), F_OK) != 0) {
        std::ofstream(marker).put('x');
        crash();
      }
      result["recovered"] = true;
    } else if (m == "garbage") {
      const std::string kind = p["kind"];
      if (kind == "text") {
        write_frame(channel_fd(), "this is not JSON");
      } else if (kind == "length") {
        const char header[] = "\xff\xff\xff\xff{}";
        (void)!write(channel_fd(), header, sizeof header - 1);
      } else {
        JSON_RPC_Response other(JSON_Value(987654));
        other.set_result(JSON_Value::object());
        write_frame(channel_fd(), frame_text(other));
      }
      return 0;
    } else if (m == "gather") {
      result = gather(p);
    }
    auto resp = JSON_RPC_Channel::create_response(*req);
    resp->set_result(result);
    return chn->send(*resp);
  }
};

}  // namespace

MODULE_EXPORT void _gobble_Servant_Test_Handler(JSON_RPC_Handler* p) {
  delete p;
}
MODULE_EXPORT JSON_RPC_Handler* _make_Servant_Test_Handler(void (**gobble)(JSON_RPC_Handler*)) {
  if (gobble)
    *gobble = _gobble_Servant_Test_Handler;
  return new Test_Handler;
}
