// The whole system on loopback: cas-sim, brimlet-server and brimlet-agent under a private install
// root, driven through the brimlet CLI or JSON-RPC. Shared by the integration tests and benchmarks.
#pragma once

#include "host/core/json.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

class Stack {
 public:
  // Receives each failure below as one line saying what failed; results say so too.
  using Report = std::function<void(const std::string& what)>;
  explicit Stack(Report report) : report_(std::move(report)) {}
  ~Stack();

  // A simulator named `name` on `world_file` (TLS given cert and key); its HTTP port, 0 on failure.
  std::uint16_t start_sim(const std::string& name, const std::string& world_file,
                          const std::string& tls_cert = "", const std::string& tls_key = "");
  // brimlet-server and the agent, with its key in agent.json, and an administrator's key in
  // cli.json (both 0600); the servants' svc.conf and libcvd.so where the module looks for them.
  // `agent_env` is added to the agent's environment (its servants inherit it).
  bool start_server_and_agent(const std::vector<std::string>& agent_env = {});
  // The port of a simulator's disk service (0 when unknown).
  std::uint16_t cvd_port(const std::string& name) const;
  // The CLI with BRIMLET_ROOT set; `input` on its stdin.
  Run_Result cli(const std::vector<std::string>& args, const std::string& input = "") const;
  // `brimlet cvm add` of a CVM at 127.0.0.1:port; the uuid ("" on failure).
  std::string add_cvm(const std::string& name, std::uint16_t port, const std::string& user,
                      const std::string& password, bool ssl = false) const;
  // A request to a simulator's /sim/... control API; the parsed answer (null on failure).
  JSON_Value sim_control(const std::string& name, const std::string& method,
                         const std::string& path, const JSON_Value& body = nullptr) const;
  // A JSON-RPC call on the agent with its key: the whole answer (null when no JSON-RPC answer
  // came).
  JSON_Value agent_call(const std::string& method, const JSON_Value& params) const;
  // The HTTP status of a JSON-RPC call given `key` ("": no key header).
  int agent_status(const std::string& method, const JSON_Value& params,
                   const std::string& key) const;

  const Temp_Dir& dir() const { return dir_; }
  std::vector<std::string> env() const { return {"BRIMLET_ROOT=" + dir_.path()}; }
  pid_t agent_pid() const { return agent_.pid(); }
  static const char* agent_host_id() { return "agent-under-test"; }

 private:
  bool failed(const std::string& what) const { return report_(what), false; }

  Report report_;
  Temp_Dir dir_;
  std::map<std::string, std::pair<std::uint16_t, std::unique_ptr<Test_Process>>> sims_;
  std::map<std::string, std::uint16_t> cvd_ports_;
  Test_Process server_, agent_;
  std::uint16_t agent_port_ = 0;
  std::string agent_key_;
};

// A self-signed certificate for "localhost" made with the openssl command; false on failure.
bool make_test_certificate(const std::string& cert, const std::string& key);
