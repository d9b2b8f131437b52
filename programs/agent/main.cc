// brimlet-agent: loads modules from their manifests and serves their JSON-RPC methods over HTTP.
#include "host/catalog/server_api.h"
#include "host/core/command_line.h"
#include "host/core/crypto.h"
#include "host/core/identity.h"
#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/service.h"
#include "host/http/client.h"
#include "host/http/server.h"
#include "host/job/runs.h"
#include "host/jsonrpc/router.h"
#include "host/module/module.h"
#include "programs/common/agent_files.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

struct Agent_Config {
  std::string listen = "127.0.0.1:0";
  std::string tls_cert, tls_key;
  std::vector<std::string> modules;
  std::string log_file;
  bool debug = false;
  int threads = 16;
  int request_timeout = 600;
  JSON_Value raw;
};

bool load_config(const std::string& path, Agent_Config& conf) {
  std::string text;
  if (!read_file(path, text)) {
    fprintf(stderr, "brimlet-agent: cannot read configuration '%s'.\n", path.c_str());
    return false;
  }
  try {
    conf.raw = JSON_Value::parse(text);
    json_extract(conf.raw, "listen", conf.listen, false);
    json_extract(conf.raw, "tls_cert", conf.tls_cert, false);
    json_extract(conf.raw, "tls_key", conf.tls_key, false);
    json_extract(conf.raw, "log_file", conf.log_file, false);
    json_extract(conf.raw, "debug", conf.debug, false);
    json_extract(conf.raw, "threads", conf.threads, false);
    json_extract(conf.raw, "request_timeout", conf.request_timeout, false);
    JSON_Value modules = JSON_Value::array();
    json_extract_array(conf.raw, "modules", modules, false);
    for (const auto& m : modules) {
      if (!m.is_string())
        json_throw_type("modules", "array of strings");
      conf.modules.push_back(m.get<std::string>());
    }
  } catch (const std::exception& e) {
    fprintf(stderr, "brimlet-agent: invalid configuration '%s': %s.\n", path.c_str(), e.what());
    return false;
  }
  if (conf.threads < 1 || conf.request_timeout < 1) {
    fprintf(stderr, "brimlet-agent: 'threads' and 'request_timeout' must be positive.\n");
    return false;
  }
  return true;
}

// "agent.info": who this agent is and what it serves.
class Agent_Info_Handler : public JSON_RPC_Handler {
 public:
  explicit Agent_Info_Handler(JSON_Value info) : info_(std::move(info)) {}
  int handle_object(std::shared_ptr<JSON_RPC_Channel> chn,
                    std::shared_ptr<JSON_RPC_Object> obj) override {
    auto resp = JSON_RPC_Channel::create_response(static_cast<JSON_RPC_Request&>(*obj));
    if (!resp)
      return chn->send_error(JSON_RPC_INTERNAL_ERROR, obj->id(), "Out of memory.");
    resp->set_result(info_);
    return chn->send(*resp);
  }

 private:
  JSON_Value info_;
};

// "job.run", "job.status", "job.stop", "job.list", "job.log": the agent's jobs.
class Job_RPC_Handler : public JSON_RPC_Handler {
 public:
  Job_RPC_Handler(std::shared_ptr<Job_Runs> runs, std::string method)
      : runs_(std::move(runs)), method_(std::move(method)) {}
  int handle_object(std::shared_ptr<JSON_RPC_Channel> chn,
                    std::shared_ptr<JSON_RPC_Object> obj) override {
    const JSON_RPC_Request* req = answerable_request(chn, obj);
    if (!req)
      return -1;
    if (!req->params().is_object() && !req->params().is_null())
      return chn->send_error(JSON_RPC_INVALID_PARAMS, req->id(),
                             "Invalid params: params type must be object.");
    const JSON_Value params = req->params().is_null() ? JSON_Value::object() : req->params();
    JSON_Value result;
    std::string error;
    try {
      if (!call(params, result, error))
        return chn->send_error(JSON_RPC_INVALID_PARAMS, req->id(), error.c_str());
    } catch (const std::exception& e) {
      return chn->send_error(JSON_RPC_INVALID_PARAMS, req->id(),
                             (std::string("Invalid params: ") + e.what() + ".").c_str());
    }
    auto resp = JSON_RPC_Channel::create_response(*req);
    if (!resp)
      return chn->send_error(JSON_RPC_INTERNAL_ERROR, req->id(), "Internal error, out of memory.");
    resp->set_result(std::move(result));
    return chn->send(*resp);
  }

 private:
  // Throws JSON_Error on missing or mistyped params.
  bool call(const JSON_Value& params, JSON_Value& result, std::string& error) {
    if (method_ == "job.list") {
      result = {{"runs", runs_->list()}};
      return true;
    }
    if (method_ == "job.run") {
      JSON_Value def;
      json_extract(params, "definition", def);
      return runs_->run(def.is_string() ? def.get<std::string>() : def.dump(), result, error);
    }
    std::string run_id;
    json_extract(params, "run_id", run_id);
    if (method_ == "job.status")
      return runs_->status(run_id, result, error);
    if (method_ == "job.stop") {
      result = {{"run_id", run_id}, {"stopping", true}};
      return runs_->stop(run_id, error);
    }
    std::uint64_t offset = 0;
    json_extract(params, "offset", offset, false);
    return runs_->log(run_id, offset, result, error);
  }

  std::shared_ptr<Job_Runs> runs_;
  std::string method_;
};

}  // namespace

// Exit status: 0 stopped by a signal, 1 failed to start, 2 usage error.
int main(int argc, char** argv) {
  std::string config_path = agent_files::default_config();
  std::string listen_override, ready_file;
  CLI::App app(
      "Serves the JSON-RPC methods of the modules named in the configuration on POST "
      "/jsonrpc.",
      "brimlet-agent");
  app.add_option("--config", config_path, "the agent configuration")->capture_default_str();
  app.add_option("--listen", listen_override, "HOST:PORT to serve on instead of the configured");
  app.add_option("--ready-file", ready_file, "written with {\"host\", \"port\"} once serving");
  if (int status = parse_command_line(app, argc, argv); status >= 0)
    return status;

  Agent_Config conf;
  if (!load_config(config_path, conf))
    return 1;
  if (!listen_override.empty())
    conf.listen = listen_override;
  HTTP_Server::Options opts;
  if (!parse_listen(conf.listen, opts.host, opts.port)) {
    fprintf(stderr, "brimlet-agent: invalid listen address '%s'.\n", conf.listen.c_str());
    return 1;
  }
  // Off loopback the agent carries module secrets (CVM passwords) on the wire: TLS is required,
  // and so is the access key (below).
  if (!is_loopback(opts.host) && (conf.tls_cert.empty() || conf.tls_key.empty())) {
    fprintf(stderr, "brimlet-agent: listening on '%s' needs 'tls_cert' and 'tls_key'.\n",
            opts.host.c_str());
    return 1;
  }
  opts.tls_cert = conf.tls_cert;
  opts.tls_key = conf.tls_key;
  opts.threads = conf.threads;

  Log_Options log;
  log.program = "brimlet-agent";
  log.file = conf.log_file.empty() ? brimlet_paths::log_dir() + "/agent.log" : conf.log_file;
  log.debug = conf.debug;
  if (!make_dirs(log.file.substr(0, log.file.rfind('/')), 0750) || !open_log(log))
    return 1;

  block_stop_signals();
  use_utf8_locale();
  try {
    if (!apply_agent_identity(conf.raw))
      return 1;
    Upstream_JSON_RESTful_Client::instance()->configure_from_identity();
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid agent configuration '%s': %s.\n", config_path.c_str(), e.what()));
    return 1;
  }
  set_json_rpc_worker_threads(conf.threads);

  auto router = std::make_shared<JSON_RPC_Router>();
  auto runs = std::make_shared<Job_Runs>();
  std::vector<std::shared_ptr<Module>> modules;
  std::vector<std::shared_ptr<Instance_Handler>> instance_handlers;
  JSON_Value info = {{"host_id", Host_ID::instance()->c_str()},
                     {"modules", JSON_Value::array()},
                     {"instances", JSON_Value::array()}};
  for (const auto& manifest : conf.modules) {
    auto module = Module::load(manifest);
    if (!module)
      return 1;
    JSON_Value entry = {{"name", module->name()}, {"methods", JSON_Value::array()}};
    for (const auto& method : module->json_rpc_methods()) {
      auto handler = module->make_json_rpc_handler(method);
      if (!handler)
        return 1;
      router->add(method, handler);
      entry["methods"].push_back(method);
    }
    Job_Module jobs;
    if (Job_Module::load(*module, jobs)) {
      entry["jobs"] = true;
      runs->add_module(std::move(jobs));
    } else if (module->manifest().contains("jobs")) {
      return 1;
    }
    if (auto ih = module->make_instance_handler()) {
      std::map<std::string, std::shared_ptr<Instance>> found;
      if (ih->init() == 0 && ih->probe_instances(found) == 0)
        for (auto& [name, inst] : found)
          info["instances"].push_back(
              {{"name", name}, {"type", inst->type}, {"options", inst->options}});
      instance_handlers.push_back(ih);
    }
    info["modules"].push_back(entry);
    modules.push_back(module);
    LOG_MSG((LM_INFO, "Loaded module '%s' from '%s'.\n", module->name().c_str(), manifest.c_str()));
  }
  router->add("agent.info", std::make_shared<Agent_Info_Handler>(info));
  for (const char* method : {"job.run", "job.status", "job.stop", "job.list", "job.log"})
    router->add(method, std::make_shared<Job_RPC_Handler>(runs, method));

  // Every caller, on loopback too, proves itself with this agent's access key: any local process
  // could otherwise browse a CVM or run a job with the credentials the agent holds.
  const std::string key = Host_Manager::instance()->access_key();
  if (key.empty())
    LOG_MSG((LM_WARNING, "The agent configuration gives no access key: every call is refused.\n"));
  HTTP_Authorizer authorize = [key](const HTTP_Server_Request& req) {
    const std::string* given = req.headers.get(server_api::access_key_header);
    return !key.empty() && given && secrets_equal(*given, key);
  };
  HTTP_Server server;
  serve_json_rpc(server, "/jsonrpc", router, conf.request_timeout, authorize);
  if (!server.start(opts))
    return 1;

  JSON_Value endpoint = {
      {"host", opts.host}, {"port", server.port()}, {"ssl", !opts.tls_cert.empty()}};
  std::string endpoint_file = agent_files::endpoint_file();
  if (!make_dirs(endpoint_file.substr(0, endpoint_file.rfind('/')), 0750) ||
      !write_ready_file(endpoint_file, endpoint) ||
      (!ready_file.empty() && !write_ready_file(ready_file, endpoint)))
    return 1;
  LOG_MSG((LM_INFO, "Agent %s listening on %s:%d.\n", Host_ID::instance()->c_str(),
           opts.host.c_str(), server.port()));

  int sig = wait_stop_signal();
  LOG_MSG((LM_INFO, "Stopping on signal %d.\n", sig));
  server.stop();
  stop_json_rpc_workers();
  router->clear();
  runs.reset();  // the last holder: stops the runs still going and waits for them
  for (auto& ih : instance_handlers)
    ih->fini();
  instance_handlers.clear();
  unlink(endpoint_file.c_str());
  return 0;
}
