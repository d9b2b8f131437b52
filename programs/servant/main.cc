// brimlet-servant: one worker process started by Servant (host/servant/servant.h). Loads modules
// through their manifests, serves only their "servant_jsonrpc" methods, on frames over the socket
// it inherited (descriptor number in $BRIMLET_SERVANT_FD), and ends when that socket closes or on
// SIGTERM. Logs to stderr, which the parent hands on to the job's log, and to a file if
// configured.
//
// Service configuration (--config FILE):
//   {"modules": ["<dir>/h3ccas.module.json"],   manifests to load
//    "log_file": "<path>",                      optional, appended to
//    "debug": false,                            optional, debug lines too
//    "threads": 4}                              optional, request worker threads
#include "host/core/command_line.h"
#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/service.h"
#include "host/core/text.h"
#include "host/jsonrpc/router.h"
#include "host/module/module.h"
#include "host/servant/frame.h"
#include "host/servant/servant.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Servant_Config {
  std::vector<std::string> modules;
  std::string log_file;
  bool debug = false;
  int threads = 4;
};

bool load_config(const std::string& path, Servant_Config& conf) {
  std::string text;
  if (!read_file(path, text)) {
    fprintf(stderr, "brimlet-servant: cannot read configuration '%s'.\n", path.c_str());
    return false;
  }
  try {
    JSON_Value raw = JSON_Value::parse(text);
    JSON_Value modules = JSON_Value::array();
    json_extract_array(raw, "modules", modules);
    for (const auto& m : modules) {
      if (!m.is_string())
        json_throw_type("modules", "array of strings");
      conf.modules.push_back(m.get<std::string>());
    }
    json_extract(raw, "log_file", conf.log_file, false);
    json_extract(raw, "debug", conf.debug, false);
    json_extract(raw, "threads", conf.threads, false);
  } catch (const std::exception& e) {
    fprintf(stderr, "brimlet-servant: invalid configuration '%s': %s.\n", path.c_str(), e.what());
    return false;
  }
  if (conf.threads < 1 || conf.threads > 256) {
    fprintf(stderr, "brimlet-servant: 'threads' must be 1 to 256.\n");
    return false;
  }
  return true;
}

// Hands each request frame to its handler and keeps the channels of unanswered requests.
class Dispatcher {
 public:
  Dispatcher(int fd, std::shared_ptr<JSON_RPC_Router> router)
      : writer_(std::make_shared<Frame_Writer>(fd)), router_(std::move(router)) {}

  void dispatch(const std::string& text) {
    JSON_Value value = JSON_Value::parse(text, nullptr, false);
    if (value.is_discarded()) {
      LOG_MSG((LM_ERROR, "Received a frame that is not JSON.\n"));
      reply_error(JSON_RPC_PARSE_ERROR, nullptr, "Parse error.");
      return;
    }
    int code = 0;
    std::string message;
    auto obj = parse_json_rpc(value, code, message);
    if (obj && !obj->is_request()) {
      obj.reset();
      message = "Only requests are served.";
    }
    if (!obj) {
      LOG_MSG((LM_ERROR, "Received an invalid JSON-RPC request: %s\n", message.c_str()));
      reply_error(JSON_RPC_INVALID_REQUEST, nullptr, message.c_str());
      return;
    }
    const auto& req = static_cast<const JSON_RPC_Request&>(*obj);
    auto handler = router_->find(req.method());
    if (!handler) {
      LOG_MSG((LM_ERROR, "No method '%s' in this servant.\n", req.method().c_str()));
      if (!req.is_notification())
        reply_error(JSON_RPC_METHOD_NOT_FOUND, req.id(), "Method not found.");
      return;
    }
    std::uint64_t serial;
    std::shared_ptr<Frame_Channel> chn;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      serial = ++last_serial_;
      chn = std::make_shared<Frame_Channel>(writer_, [this, serial] { finished(serial); });
      open_[serial] = chn;
    }
    if (handler->handle_object(chn, obj) != 0)
      chn->done();
  }

  // Drops the channels of unanswered requests (a handler that has not started yet then sees its
  // requester gone); their count.
  int abandon() {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = static_cast<int>(open_.size());
    open_.clear();
    return n;
  }

 private:
  void finished(std::uint64_t serial) {
    std::lock_guard<std::mutex> lock(mutex_);
    open_.erase(serial);
  }

  void reply_error(int code, const JSON_Value& id, const char* message) {
    JSON_RPC_Response resp(id);
    resp.set_error(code, message);
    if (!writer_->write(frame_text(resp)))
      LOG_MSG((LM_ERROR, "Failed to answer on the servant channel: %m.\n"));
  }

  std::shared_ptr<Frame_Writer> writer_;
  std::shared_ptr<JSON_RPC_Router> router_;
  std::mutex mutex_;
  std::uint64_t last_serial_ = 0;
  std::map<std::uint64_t, std::shared_ptr<Frame_Channel>> open_;
};

enum class Loop_End { CLOSED, SIGNALLED, BAD_STREAM };

Loop_End serve(int fd, int signal_fd, Dispatcher& dispatcher) {
  Frame_Decoder decoder;
  char buf[65536];
  for (;;) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {signal_fd, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR)
        continue;
      LOG_MSG((LM_ERROR, "Failed to wait on the servant channel: %m.\n"));
      return Loop_End::BAD_STREAM;
    }
    if (fds[1].revents) {
      signalfd_siginfo info{};
      if (read(signal_fd, &info, sizeof info) == sizeof info)
        LOG_MSG((LM_INFO, "Stopping on signal %d.\n", static_cast<int>(info.ssi_signo)));
      return Loop_End::SIGNALLED;
    }
    if (!fds[0].revents)
      continue;
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (n <= 0) {
      if (n < 0 || decoder.partial()) {
        LOG_MSG((LM_ERROR, "The servant channel ended in the middle of a frame.\n"));
        return Loop_End::BAD_STREAM;
      }
      return Loop_End::CLOSED;
    }
    if (!decoder.feed(buf, static_cast<std::size_t>(n))) {
      LOG_MSG((LM_ERROR, "Received a frame of invalid length on the servant channel.\n"));
      return Loop_End::BAD_STREAM;
    }
    for (std::string text; decoder.next(text);)
      dispatcher.dispatch(text);
  }
}

}  // namespace

// Exit status: 0 the channel closed or a stop signal came, 1 failure, 2 usage error.
int main(int argc, char** argv) {
  std::string config_path;
  bool debug = false;
  CLI::App app(std::string("Started by the agent, one per task: serves the servant methods of the "
                           "modules in the configuration on the socket whose descriptor is in $") +
                   SERVANT_ENV_FD + ".",
               "brimlet-servant");
  app.add_option("--config", config_path, "the service configuration")->required();
  app.add_flag("--debug", debug, "log debug lines too");
  if (int status = parse_command_line(app, argc, argv); status >= 0)
    return status;
  Servant_Config conf;
  if (!load_config(config_path, conf))
    return 1;

  const char* label = std::getenv(SERVANT_ENV_LABEL);
  const char* starter = std::getenv(SERVANT_ENV_STARTER);
  Log_Options log;
  log.program = std::string("brimlet-servant") + (label && *label ? std::string(" ") + label : "");
  log.file = conf.log_file;
  log.debug = conf.debug || debug;
  if (!open_log(log))
    return 1;

  const char* fd_text = std::getenv(SERVANT_ENV_FD);
  const char* stop = nullptr;
  int fd = fd_text ? natoi<int>(fd_text, fd_text + std::strlen(fd_text), &stop) : -1;
  if (!fd_text || errno != 0 || *stop != '\0' || fd < 0 || fcntl(fd, F_GETFD) < 0) {
    LOG_MSG(
        (LM_ERROR, "No servant channel: $%s is '%s'.\n", SERVANT_ENV_FD, fd_text ? fd_text : ""));
    return 1;
  }
  // Processes that handlers start must not hold the channel open after we are gone.
  fcntl(fd, F_SETFD, FD_CLOEXEC);

  block_stop_signals();
  use_utf8_locale();
  sigset_t stop_set;
  sigemptyset(&stop_set);
  sigaddset(&stop_set, SIGTERM);
  sigaddset(&stop_set, SIGINT);
  sigaddset(&stop_set, SIGHUP);
  Unique_Fd signal_fd(signalfd(-1, &stop_set, SFD_CLOEXEC));
  if (!signal_fd) {
    LOG_MSG((LM_ERROR, "Failed to watch stop signals: %m.\n"));
    return 1;
  }
  set_json_rpc_worker_threads(conf.threads);

  auto router = std::make_shared<JSON_RPC_Router>();
  std::vector<std::shared_ptr<Module>> modules;
  std::string methods;
  for (const auto& manifest : conf.modules) {
    auto module = Module::load(manifest);
    if (!module)
      return 1;
    for (const auto& method : module->servant_json_rpc_methods()) {
      auto handler = module->make_servant_json_rpc_handler(method);
      if (!handler)
        return 1;
      router->add(method, handler);
      methods += (methods.empty() ? "" : ", ") + method;
    }
    modules.push_back(module);
  }
  LOG_MSG((LM_DEBUG, "Servant of '%s' serving: %s.\n", starter ? starter : "", methods.c_str()));

  Dispatcher dispatcher(fd, router);
  Loop_End end = serve(fd, signal_fd.get(), dispatcher);
  int unanswered = dispatcher.abandon();
  if (unanswered > 0) {
    // Their handlers may run for hours and nobody waits for the answers any more.
    LOG_MSG((LM_WARNING, "Leaving %d unanswered requests.\n", unanswered));
    _exit(1);
  }
  stop_json_rpc_workers();
  router->clear();
  return end == Loop_End::BAD_STREAM ? 1 : 0;
}
