// brimlet: the command line for administrators. Registry commands go to the backup server, module
// commands to the local agent; both are found through the agent's configuration.
#include "host/core/crypto.h"
#include "host/core/identity.h"
#include "host/core/json.h"
#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/service.h"
#include "host/core/text.h"
#include "host/http/client.h"
#include "programs/cli/table.h"
#include "programs/common/agent_files.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

namespace {

const char usage_text[] =
    "usage: brimlet [--config FILE] [--json] COMMAND ...\n"
    "\n"
    "  cvm add --host HOST --username USER [--port 443] [--ssl] [--name NAME] [--password-stdin]\n"
    "                       register a CVM; the password is asked for (or read from stdin)\n"
    "  cvm list             list registered CVMs\n"
    "  cvm remove CVM       remove a registered CVM (uuid or name)\n"
    "  cvm test CVM         log in to a registered CVM through the agent\n"
    "\n"
    "  --config FILE        the agent configuration (default %s)\n"
    "  --json               machine-readable output\n";

// Failures print one line to stderr; the exit status says the kind.
enum Exit { OK = 0, FAILED = 1, USAGE = 2 };

struct Cli {
  std::string config_path = agent_files::default_config();
  bool json = false;
  std::vector<std::string> args;
  std::size_t next = 0;

  bool more() const { return next < args.size(); }
  std::string take() { return more() ? args[next++] : std::string(); }
};

int fail(const std::string& message) {
  fprintf(stderr, "brimlet: %s\n", message.c_str());
  return FAILED;
}

int usage_error(const std::string& message) {
  fprintf(stderr, "brimlet: %s\n", message.c_str());
  fprintf(stderr, usage_text, agent_files::default_config().c_str());
  return USAGE;
}

bool load_agent_config(const Cli& cli, std::string& error) {
  std::string text;
  if (!read_file(cli.config_path, text)) {
    error = "cannot read the agent configuration '" + cli.config_path + "'";
    return false;
  }
  try {
    if (!apply_agent_identity(JSON_Value::parse(text))) {
      error = "cannot read this agent's host id";
      return false;
    }
  } catch (const std::exception& e) {
    error = "invalid agent configuration '" + cli.config_path + "': " + e.what();
    return false;
  }
  return true;
}

// One request to the backup server; `error` gets the server's own message on failure.
bool server_call(HTTP_Request& req, const JSON_Value* body, JSON_Value& out, std::string& error) {
  HTTP_Response resp;
  if (!Upstream_JSON_RESTful_Client::instance()->send(req, body, resp, out)) {
    error = "cannot reach the backup server at " + WebSocket_Options::instance()->host + ":" +
            std::to_string(WebSocket_Options::instance()->port);
    return false;
  }
  if (resp.status() / 100 == 2)
    return true;
  error = "backup server answered " + std::to_string(resp.status());
  if (out.is_object() && out.contains("error") && out["error"].is_string())
    error += ": " + out["error"].get<std::string>();
  return false;
}

bool agent_call(const std::string& method, const JSON_Value& params, JSON_Value& result,
                std::string& error) {
  std::string text;
  JSON_Value endpoint;
  if (!read_file(agent_files::endpoint_file(), text) ||
      (endpoint = JSON_Value::parse(text, nullptr, false)).is_discarded() ||
      !endpoint.is_object() || !endpoint.contains("port")) {
    error = "the agent is not running (no '" + agent_files::endpoint_file() + "')";
    return false;
  }
  auto session = HTTP_Session_Factory::create(endpoint.value("host", "127.0.0.1"),
                                              endpoint["port"].get<std::uint16_t>(),
                                              endpoint.value("ssl", false));
  if (!session) {
    error = "cannot set up a connection to the agent";
    return false;
  }
  JSON_HTTP_Session rpc(session, 1, 600);
  HTTP_Request req(HTTP_Method::POST, "/jsonrpc");
  req.headers().put("X-Access-Key", Host_Manager::instance()->access_key());
  JSON_Value body = {{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}};
  HTTP_Response resp;
  JSON_Value answer;
  if (!rpc.post(req, &body, resp, &answer)) {
    error = "cannot reach the agent";
    return false;
  }
  if (!answer.is_object()) {
    error = "the agent answered " + std::to_string(resp.status()) + " without JSON-RPC";
    return false;
  }
  if (answer.contains("error")) {
    const JSON_Value& e = answer["error"];
    error = "agent error " + std::to_string(e.value("code", 0)) + ": " + e.value("message", "");
    return false;
  }
  result = answer.value("result", JSON_Value());
  return true;
}

// Finds a registered CVM by uuid or name.
bool find_cvm(const std::string& key, JSON_Value& entry, std::string& error) {
  HTTP_Request req(HTTP_Method::GET, "/k4/r/h3ccas/cvm");
  JSON_Value out;
  if (!server_call(req, nullptr, out, error))
    return false;
  for (const auto& row : out.value("rows", JSON_Value::array()))
    if (row.value("uuid", "") == key || row.value("name", "") == key) {
      entry = row;
      return true;
    }
  error = "no registered CVM '" + key + "'";
  return false;
}

bool read_password(bool from_stdin, Secure_String& password) {
  bool tty = !from_stdin && isatty(STDIN_FILENO);
  termios saved{};
  if (tty) {
    fprintf(stderr, "CVM password: ");
    tcgetattr(STDIN_FILENO, &saved);
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  }
  password.clear();
  int c;
  while ((c = fgetc(stdin)) != EOF && c != '\n')
    password += static_cast<char>(c);
  if (!password.empty() && password.back() == '\r')
    password.pop_back();
  if (tty) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    fprintf(stderr, "\n");
  }
  return !password.empty();
}

int cvm_add(Cli& cli) {
  JSON_Value body = {{"port", 443}, {"ssl", false}};
  bool password_stdin = false;
  while (cli.more()) {
    std::string opt = cli.take();
    if (opt == "--ssl") {
      body["ssl"] = true;
    } else if (opt == "--password-stdin") {
      password_stdin = true;
    } else if (opt == "--password") {
      return usage_error(
          "passwords are never taken from the command line; use the prompt or "
          "--password-stdin");
    } else if ((opt == "--host" || opt == "--username" || opt == "--name" || opt == "--port") &&
               cli.more()) {
      std::string value = cli.take();
      if (opt == "--port") {
        const char* stop = nullptr;
        unsigned int port = natoi<unsigned int>(value.data(), value.data() + value.size(), &stop);
        if (errno || stop != value.data() + value.size() || port == 0 || port > 65535)
          return usage_error("invalid port '" + value + "'");
        body["port"] = port;
      } else {
        body[opt.substr(2)] = value;
      }
    } else {
      return usage_error("unknown or incomplete option '" + opt + "' for 'cvm add'");
    }
  }
  if (!body.contains("host") || !body.contains("username"))
    return usage_error("'cvm add' needs --host and --username");
  Secure_String password;
  if (!read_password(password_stdin, password))
    return fail("no password given");
  body["password"] = std::string(password.data(), password.size());
  HTTP_Request req(HTTP_Method::POST, "/k4/r/h3ccas/cvm");
  JSON_Value out;
  std::string error;
  bool ok = server_call(req, &body, out, error);
  body["password"] = "";
  if (!ok)
    return fail(error);
  if (cli.json)
    std::cout << out.dump(2) << "\n";
  else
    std::cout << "Registered CVM " << body["host"].get<std::string>() << " as "
              << out.value("uuid", "?") << "\n";
  return OK;
}

int cvm_list(Cli& cli) {
  HTTP_Request req(HTTP_Method::GET, "/k4/r/h3ccas/cvm");
  JSON_Value out;
  std::string error;
  if (!server_call(req, nullptr, out, error))
    return fail(error);
  JSON_Value rows = out.value("rows", JSON_Value::array());
  if (cli.json) {
    std::cout << rows.dump(2) << "\n";
    return OK;
  }
  Table table({"UUID", "NAME", "HOST", "PORT", "SSL", "USERNAME"});
  for (const auto& r : rows)
    table.add({r.value("uuid", ""), r.value("name", ""), r.value("host", ""),
               std::to_string(r.value("port", 0)), r.value("ssl", false) ? "yes" : "no",
               r.value("username", "")});
  table.print(std::cout);
  return OK;
}

int cvm_remove(Cli& cli) {
  if (!cli.more())
    return usage_error("'cvm remove' needs a CVM uuid or name");
  JSON_Value entry, out;
  std::string error;
  if (!find_cvm(cli.take(), entry, error))
    return fail(error);
  HTTP_Request req(HTTP_Method::DELETE, "/k4/r/h3ccas/cvm");
  HTTP_Query_String_Builder(req.query()).append("uuid", entry.value("uuid", ""));
  if (!server_call(req, nullptr, out, error))
    return fail(error);
  if (cli.json)
    std::cout << JSON_Value{{"removed", entry["uuid"]}}.dump(2) << "\n";
  else
    std::cout << "Removed CVM " << entry.value("uuid", "") << "\n";
  return OK;
}

int cvm_test(Cli& cli) {
  if (!cli.more())
    return usage_error("'cvm test' needs a CVM uuid or name");
  JSON_Value entry, out, result;
  std::string error;
  if (!find_cvm(cli.take(), entry, error))
    return fail(error);
  // The entry with its password sealed for this agent: only the module can open it.
  HTTP_Request req(HTTP_Method::GET, "/k4/r/h3ccas/cvm");
  HTTP_Query_String_Builder(req.query())
      .append("uuid", entry.value("uuid", ""))
      .append("with_password", std::string(Host_ID::instance()->c_str()));
  if (!server_call(req, nullptr, out, error))
    return fail(error);
  JSON_Value rows = out.value("rows", JSON_Value::array());
  if (rows.empty())
    return fail("the backup server no longer has this CVM");
  if (!agent_call("h3ccas.test_login", rows[0], result, error))
    return fail(error);
  bool ok = result.is_object() && result.value("result", false);
  if (cli.json) {
    std::cout << result.dump(2) << "\n";
  } else if (ok) {
    std::cout << "Login to " << entry.value("host", "") << " succeeded, CVM version "
              << result.value("version", "") << "\n";
  } else {
    std::string message = result.is_object() ? result.value("message", "") : "";
    fprintf(stderr, "brimlet: login to %s failed: %s\n", entry.value("host", "").c_str(),
            message.c_str());
  }
  return ok ? OK : FAILED;
}

}  // namespace

int main(int argc, char** argv) {
  Cli cli;
  for (int i = 1; i < argc; ++i)
    cli.args.emplace_back(argv[i]);
  while (cli.more() && cli.args[cli.next].rfind("--", 0) == 0) {
    std::string opt = cli.take();
    if (opt == "--json") {
      cli.json = true;
    } else if (opt == "--config" && cli.more()) {
      cli.config_path = cli.take();
    } else if (opt == "--help") {
      printf(usage_text, agent_files::default_config().c_str());
      return OK;
    } else {
      return usage_error("unknown or incomplete option '" + opt + "'");
    }
  }
  // Host library log lines would clutter the terminal: the CLI reports one line of its own.
  Log_Options log;
  log.program = "brimlet";
  log.to_stderr = getenv("BRIMLET_CLI_DEBUG") != nullptr;
  log.debug = log.to_stderr;
  open_log(log);

  std::string area = cli.take(), verb = cli.take();
  if (area.empty())
    return usage_error("no command given");
  if (area != "cvm")
    return usage_error("unknown command '" + area + "'");
  std::string error;
  if (!load_agent_config(cli, error))
    return fail(error);
  if (verb == "add")
    return cvm_add(cli);
  if (verb == "list")
    return cvm_list(cli);
  if (verb == "remove")
    return cvm_remove(cli);
  if (verb == "test")
    return cvm_test(cli);
  return usage_error("unknown command 'cvm " + verb + "'");
}
