// A module for the servant tests whose "servant_jsonrpc" methods behave well or badly on request:
// echo answers its params, pid and label; log logs "text" through the log and raw on stderr;
// hang creates "<dir>/<pid>.<tag>" (given "dir") and never answers; crash aborts; flaky aborts
// unless file "marker" exists (and creates it); garbage writes "kind" of rubbish on the channel:
// "text" (not JSON), "length" (an impossible frame length), "stranger" (another request's answer).
#include "host/core/log.h"
#include "host/jsonrpc/jsonrpc.h"
#include "host/module/module.h"
#include "host/servant/frame.h"
#include "host/servant/servant.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {
[[noreturn]] void crash() {
  rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
  abort();
}

int channel_fd() {
  return getenv(SERVANT_ENV_FD) ? atoi(getenv(SERVANT_ENV_FD)) : -1;
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
    } else if (m == "log") {
      const std::string text = p["text"];
      LOG_MSG((LM_WARNING, "%s\n", text.c_str()));
      fprintf(stderr, "raw %s\n", text.c_str());
    } else if (m == "hang") {
      if (p.contains("dir"))
        std::ofstream(p["dir"].get<std::string>() + "/" + std::to_string(getpid()) + "." +
                      p.value("tag", ""));
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
