// The whole system on loopback: cas-sim, brimlet-server and brimlet-agent under a private install
// root, driven through the brimlet CLI as an administrator would, or through JSON-RPC. Used by the
// integration tests and the benchmarks.
#pragma once

#include "host/core/json.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class Stack {
 public:
  // Receives each failure of the functions below as one line saying what failed (a test fails
  // itself, a benchmark prints it); the functions also say so by their results.
  using Report = std::function<void(const std::string& what)>;
  explicit Stack(Report report) : report_(std::move(report)) {}
  ~Stack();

  // Starts a simulator on `world_file` (TLS when cert and key are given); its HTTP port, 0 on
  // failure. Several simulators may run at once (named by `name`).
  std::uint16_t start_sim(const std::string& name, const std::string& world_file,
                          const std::string& tls_cert = "", const std::string& tls_key = "");
  // brimlet-server; the agent's key in the agent configuration and an administrator's key in the
  // CLI's (cli.json, mode 0600); the agent.
  bool start_server_and_agent();

  // The CLI with BRIMLET_ROOT set; `input` on its stdin.
  Run_Result cli(const std::vector<std::string>& args, const std::string& input = "") const;
  // `brimlet cvm add` of a CVM reached at 127.0.0.1:port; the uuid ("" on failure).
  std::string add_cvm(const std::string& name, std::uint16_t port, const std::string& user,
                      const std::string& password, bool ssl = false) const;

  // A request to a simulator's control API (/sim/...); the parsed answer (null on failure).
  JSON_Value sim_control(const std::string& name, const std::string& method,
                         const std::string& path, const JSON_Value& body = nullptr) const;
  // A JSON-RPC call on the agent: the whole answer, with its "result" or "error" (null when no
  // JSON-RPC answer came).
  JSON_Value agent_call(const std::string& method, const JSON_Value& params) const;

  const Temp_Dir& dir() const { return dir_; }
  std::vector<std::string> env() const { return {"BRIMLET_ROOT=" + dir_.path()}; }
  pid_t agent_pid() const { return agent_.pid(); }
  static const char* agent_host_id() { return "agent-under-test"; }

 private:
  bool failed(const std::string& what) const {
    report_(what);
    return false;
  }

  Report report_;
  Temp_Dir dir_;
  // Simulators by name: HTTP port and process.
  std::map<std::string, std::pair<std::uint16_t, std::unique_ptr<Test_Process>>> sims_;
  Test_Process server_, agent_;
  std::uint16_t agent_port_ = 0;
};

// A self-signed certificate for "localhost" made with the openssl command; false on failure.
bool make_test_certificate(const std::string& cert, const std::string& key);
