#include "tests/integration/stack.h"

#include "host/http/client.h"

#include <filesystem>
#include <system_error>

Stack::~Stack() {
  agent_.stop();
  server_.stop();
  for (auto& [name, sim] : sims_)
    sim.second->stop();
}

std::uint16_t Stack::start_sim(const std::string& name, const std::string& world_file,
                               const std::string& tls_cert, const std::string& tls_key) {
  std::string ready = dir_.file(name + ".ready"), out = dir_.file(name + ".out");
  std::vector<std::string> argv = {"cas-sim", "--world", world_file, "--listen", "127.0.0.1:0"};
  argv.insert(argv.end(), {"--cvd-listen", "127.0.0.1:0", "--ready-file", ready, "--data",
                           dir_.file(name + "-data"), "--log", dir_.file(name + ".log")});
  if (!tls_cert.empty())
    argv.insert(argv.end(), {"--tls-cert", tls_cert, "--tls-key", tls_key});
  auto process = std::make_unique<Test_Process>();
  JSON_Value info;
  if (!process->start(argv, env(), out) || !process->wait_ready(ready, info)) {
    failed("cas-sim '" + name + "' did not start (see " + out + ")");
    return 0;
  }
  cvd_ports_[name] = info.value("cvd_port", std::uint16_t{0});
  return (sims_[name] = {info.value("http_port", std::uint16_t{0}), std::move(process)}).first;
}

std::uint16_t Stack::cvd_port(const std::string& name) const {
  auto it = cvd_ports_.find(name);
  return it == cvd_ports_.end() ? 0 : it->second;
}

bool Stack::start_server_and_agent(const std::vector<std::string>& agent_env) {
  std::string data = dir_.file("server"), ready = dir_.file("server.ready");
  JSON_Value info;
  if (!server_.start(
          {"brimlet-server", "--listen", "127.0.0.1:0", "--data", data, "--ready-file", ready},
          env(), dir_.file("server.out")) ||
      !server_.wait_ready(ready, info))
    return failed("brimlet-server did not start");
  // The agent's key, and an administrator's for the CLI.
  JSON_Value server = {{"host", "127.0.0.1"}, {"port", info["port"]}, {"ssl", false}};
  JSON_Value admin = server;
  for (JSON_Value* conf : {&server, &admin}) {
    bool agent = conf == &server;
    Run_Result key = run_program(
        {"brimlet-server", "enroll", "--data", data, "--host-id",
         agent ? agent_host_id() : "admin-under-test", "--role", agent ? "agent" : "admin"},
        "", env());
    if (key.exit_code != 0)
      return failed("brimlet-server enroll failed: " + key.err);
    (*conf)["access_key"] = key.out.substr(0, key.out.find_first_of("\r\n"));
  }
  std::string etc = dir_.path() + "/etc/opt/quorvex/brimlet5";
  std::string sdk = dir_.path() + "/opt/quorvex/brimlet5/cvdsdk/1.0.0";
  std::error_code ec;
  for (const std::string& d : {etc + "/h3c-cas/servant", sdk})
    if (std::filesystem::create_directories(d, ec), ec)
      return failed("cannot create " + d + ": " + ec.message());
  std::filesystem::create_symlink(std::string(BRIMLET_LIB_DIR) + "/libcvd.so", sdk + "/libcvd.so",
                                  ec);
  if (ec)
    return failed("cannot install libcvd.so in " + sdk + ": " + ec.message());
  write_text_file(etc + "/host_id", std::string(agent_host_id()) + "\n");
  JSON_Value conf = {{"listen", "127.0.0.1:0"}, {"backup_server", server}};
  conf.update({{"host_id_file", etc + "/host_id"}, {"log_file", dir_.file("agent.log")}});
  conf["modules"] = JSON_Value::array({std::string(BRIMLET_LIB_DIR) + "/h3ccas.module.json"});
  write_text_file(
      etc + "/h3c-cas/servant/svc.conf",
      JSON_Value{{"modules", conf["modules"]}, {"log_file", dir_.file("servant.log")}}.dump(2));
  for (auto [name, text] : {std::pair{"/cli.json", JSON_Value{{"backup_server", admin}}.dump(2)},
                            std::pair{"/agent.json", conf.dump(2)}}) {
    write_text_file(etc + name, text);
    std::filesystem::permissions(
        etc + name, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
  agent_key_ = server["access_key"];
  ready = dir_.file("agent.ready");
  std::vector<std::string> environment = env();
  environment.insert(environment.end(), agent_env.begin(), agent_env.end());
  if (!agent_.start({"brimlet-agent", "--ready-file", ready}, environment,
                    dir_.file("agent.out")) ||
      !agent_.wait_ready(ready, info))
    return failed("brimlet-agent did not start (see " + dir_.file("agent.out") + ")");
  agent_port_ = info.value("port", std::uint16_t{0});
  return true;
}

Run_Result Stack::cli(const std::vector<std::string>& args, const std::string& input) const {
  std::vector<std::string> argv = args;
  argv.insert(argv.begin(), "brimlet");
  return run_program(argv, input, env());
}

std::string Stack::add_cvm(const std::string& name, std::uint16_t port, const std::string& user,
                           const std::string& password, bool ssl) const {
  std::vector<std::string> args = {"--json", "cvm", "add", "--name", name, "--host", "127.0.0.1"};
  args.insert(args.end(), {"--port", std::to_string(port), "--username", user, "--password-stdin"});
  if (ssl)
    args.push_back("--ssl");
  Run_Result r = cli(args, password + "\n");
  JSON_Value out = JSON_Value::parse(r.out, nullptr, false);
  if (r.exit_code == 0 && out.is_object() && out.contains("uuid"))
    return out.value("uuid", "");
  failed("brimlet cvm add '" + name + "' failed: " + r.err);
  return "";
}

JSON_Value Stack::sim_control(const std::string& name, const std::string& method,
                              const std::string& path, const JSON_Value& body) const {
  auto sim = sims_.find(name);
  std::uint16_t port = sim == sims_.end() ? 0 : sim->second.first;
  JSON_HTTP_Session json(HTTP_Session_Factory::create("127.0.0.1", port, false), 1, 30);
  HTTP_Request req(http_method_from_string(method), path);
  HTTP_Response resp;
  JSON_Value out;
  if (port && json.send(req, body.is_null() ? nullptr : &body, resp, &out) &&
      resp.status() / 100 == 2)
    return out;
  failed(method + " " + path + " on simulator '" + name + "' answered " +
         std::to_string(resp.status()) + ": " + resp.body());
  return nullptr;
}

namespace {

void post_json_rpc(std::uint16_t port, const std::string& key, const std::string& method,
                   const JSON_Value& params, HTTP_Response& resp) {
  std::string request =
      JSON_Value{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}}.dump();
  HTTP_Request req(HTTP_Method::POST, "/jsonrpc");
  if (!key.empty())
    req.headers().put("X-Access-Key", key);
  HTTP_Session_Factory::create("127.0.0.1", port, false)->send(req, &request, resp);
}

}  // namespace

int Stack::agent_status(const std::string& method, const JSON_Value& params,
                        const std::string& key) const {
  HTTP_Response resp;
  post_json_rpc(agent_port_, key, method, params, resp);
  return resp.status();
}

JSON_Value Stack::agent_call(const std::string& method, const JSON_Value& params) const {
  HTTP_Response resp;
  post_json_rpc(agent_port_, agent_key_, method, params, resp);
  JSON_Value answer = JSON_Value::parse(resp.body(), nullptr, false);
  if (resp.status() == 200 && answer.is_object())
    return answer;
  failed(method + " on the agent answered " + std::to_string(resp.status()) + " without JSON-RPC");
  return nullptr;
}

bool make_test_certificate(const std::string& cert, const std::string& key) {
  return run_program({"/usr/bin/openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj",
                      "/CN=localhost", "-days", "2", "-keyout", key, "-out", cert})
             .exit_code == 0;
}
