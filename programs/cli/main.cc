// brimlet: the command line for administrators. Registry, pool and catalog commands go to the
// backup server, module commands to the local agent; both are found through the agent's
// configuration.
#include "host/core/crypto.h"
#include "host/core/identity.h"
#include "host/core/log.h"
#include "host/core/service.h"
#include "host/core/text.h"
#include "programs/cli/catalog.h"
#include "programs/cli/cli.h"
#include "programs/cli/inventory.h"
#include "programs/cli/table.h"
#include "programs/common/agent_files.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

namespace {

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
  cli.config_path = agent_files::default_config();
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
  // Names from CAS are UTF-8; tables measure them in terminal columns.
  use_utf8_locale();

  using Command = int (*)(Cli&);
  std::string area = cli.take();
  Command command = nullptr;
  if (area == "cvm") {
    std::string verb = cli.take();
    command = verb == "add"      ? cvm_add
              : verb == "list"   ? cvm_list
              : verb == "remove" ? cvm_remove
              : verb == "test"   ? cvm_test
                                 : nullptr;
    if (!command)
      return usage_error("unknown command 'cvm " + verb + "'");
  } else if (area == "pool" || area == "sets") {
    std::string verb = cli.take();
    if (area == "pool")
      command = verb == "add" ? pool_add : verb == "list" ? pool_list : nullptr;
    else
      command = verb == "list" ? sets_list : verb == "show" ? sets_show : nullptr;
    if (!command)
      return usage_error("unknown command '" + area + " " + verb + "'");
  } else if (area == "ls") {
    command = inventory_ls;
  } else if (area == "search") {
    command = inventory_search;
  } else if (area == "verify") {
    command = inventory_verify;
  } else {
    return usage_error(area.empty() ? "no command given" : "unknown command '" + area + "'");
  }
  std::string error;
  if (!load_agent_config(cli, error))
    return fail(error);
  try {
    return command(cli);
  } catch (const std::exception& e) {
    // A peer's answer of an unexpected shape.
    return fail(std::string("unexpected answer: ") + e.what());
  }
}
