// A servant: one brimlet-servant process that serves a module's servant methods to the process
// that started it. Requests and responses travel as frames (host/servant/frame.h) over a socket
// the servant inherits as descriptor 3, never on its command line, so parameters (credentials
// among them) stay out of `ps`. The servant's stderr comes back through a pipe and is handed on
// line by line.
#pragma once

#include "host/jsonrpc/jsonrpc.h"
#include "host/servant/frame.h"

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

class ACE_Process_Options;

// Environment of a servant, set by Servant::start(): the channel's descriptor number, what it
// works on and who started it (both for its log).
constexpr const char SERVANT_ENV_FD[] = "BRIMLET_SERVANT_FD";
constexpr const char SERVANT_ENV_LABEL[] = "BRIMLET_SERVANT_LABEL";
constexpr const char SERVANT_ENV_STARTER[] = "BRIMLET_SERVANT_STARTER";

// Puts `value` in front of the value `name` will have in the child: the one already set on
// `options`, else the inherited one, joined with ':'. Like ACE_Process_Options::setenv, 0 on
// success and -1 with errno on failure, nothing logged.
int prepend_process_options_env(ACE_Process_Options& options, const char* name, const char* value);

class Servant {
 public:
  enum Flag : unsigned {
    DEBUG_LOG = 0x1,  // the servant logs debug lines too
  };
  // One line of the servant's log (its stderr), without the line end.
  using Log_Msg_Callback = std::function<void(const std::string& line)>;

  Servant();
  // Ends the process (stop()).
  ~Servant();
  Servant(const Servant&) = delete;
  Servant& operator=(const Servant&) = delete;

  // Prepares a fresh start: ends a process still running and drops earlier options, flags and
  // callback. `starter`: who starts it. `conf_path`: the servant's service configuration (JSON,
  // see programs/servant/main.cc). `work_dir`: its working directory (null: ours). `program`:
  // the servant program (null: "brimlet-servant" beside the running program). `label`: what it
  // works on, shown in its log lines (null: "servant"). The two paths may not hold blanks or
  // quotes, where ACE splits a command line.
  void reset(const char* starter, const char* conf_path, const char* work_dir, const char* program,
             const char* label);
  // Where the servant's log lines go; without one they go to this process's log.
  void set_log_msg_callback(Log_Msg_Callback callback);
  void set_flags(unsigned flags);
  // Seconds a cancelled call still waits for the answer (0, the default: none), for a servant
  // that sees the stop by itself and has to clean up before it answers.
  void set_stop_grace(int seconds) { stop_grace_ = seconds; }
  // Environment and the rest of the start-up options; start() adds the command line and the
  // SERVANT_ENV_* variables.
  ACE_Process_Options& get_process_options();

  // Starts the process. False after one log line.
  bool start();
  // Sends one request and waits for its response, at most `timeout_seconds` (0: no limit) and
  // only while `cancelled` (checked every 100 ms) says false, then for the stop grace. Null after
  // one log line when the servant ended, did not answer in time, answered something that is not
  // the response to this request, or was cancelled; the process has then been ended.
  std::shared_ptr<JSON_RPC_Response> call(const std::string& method, const JSON_Value& params,
                                          int timeout_seconds,
                                          const std::function<bool()>& cancelled = nullptr);
  // Ends the process: closes the channel (an idle servant leaves on its own), then SIGTERM after
  // 2 seconds and SIGKILL after 3 more; the log lines it wrote meanwhile are handed on.
  void stop();

  pid_t pid() const { return pid_; }
  const std::string& label() const { return label_; }
  // The waitpid status once ended, -1 before.
  int exit_status() const { return exit_status_; }
  // "brimlet-servant" beside the running program.
  static std::string default_program();

 private:
  // Reads what stderr has now; false at its end.
  bool read_log();
  void forward_log_line(const std::string& line);
  // Waits up to `ms` for the process to end, handing on its log meanwhile.
  bool wait_exit(int ms);
  std::string exit_text() const;

  std::unique_ptr<ACE_Process_Options> options_;
  std::string starter_, conf_path_, work_dir_, program_, label_;
  unsigned flags_ = 0;
  int stop_grace_ = 0;
  Log_Msg_Callback log_callback_;
  pid_t pid_ = -1;
  int exit_status_ = -1;
  Unique_Fd channel_;
  Unique_Fd log_fd_;
  std::string log_partial_;
  long next_id_ = 1;
};
