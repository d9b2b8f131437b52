// brimlet: the command line for administrators. Registry, pool and catalog commands go to the
// backup server with the key in the CLI's own configuration; module commands go to the local
// agent, found through the agent's configuration.
//
// Exit status: 0 success, 1 failure (one line on stderr), 2 usage error (one line and a pointer
// to the command's --help).
#include "host/catalog/server_api.h"
#include "host/core/command_line.h"
#include "host/core/crypto.h"
#include "host/core/log.h"
#include "host/core/service.h"
#include "programs/cli/backup.h"
#include "programs/cli/catalog.h"
#include "programs/cli/cli.h"
#include "programs/cli/inventory.h"
#include "programs/cli/jobs.h"
#include "programs/cli/restore.h"
#include "programs/cli/table.h"
#include "programs/common/agent_files.h"

#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <string>
#include <tuple>
#include <vector>

namespace {

struct Cvm_Add {
  std::string host, username, name;
  int port = 443;
  bool ssl = false, password_stdin = false;
};

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

int cvm_add(const Cli& cli, const Cvm_Add& args) {
  JSON_Value body = {
      {"host", args.host}, {"port", args.port}, {"ssl", args.ssl}, {"username", args.username}};
  if (!args.name.empty())
    body["name"] = args.name;
  Secure_String password;
  if (!read_password(args.password_stdin, password))
    return fail("no password given");
  body["password"] = std::string(password.data(), password.size());
  HTTP_Request req(HTTP_Method::POST, server_api::cvm_route);
  JSON_Value out;
  std::string error;
  bool ok = server_call(req, &body, out, error);
  body["password"] = "";
  if (!ok)
    return fail(error);
  if (cli.json)
    std::cout << out.dump(2) << "\n";
  else
    std::cout << "Registered CVM " << args.host << " as " << out.value("uuid", "?") << "\n";
  return OK;
}

int cvm_list(const Cli& cli) {
  HTTP_Request req(HTTP_Method::GET, server_api::cvm_route);
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

int cvm_remove(const Cli& cli, const std::string& key) {
  JSON_Value entry, out;
  std::string error;
  if (!find_cvm(key, entry, error))
    return fail(error);
  HTTP_Request req(HTTP_Method::DELETE, server_api::cvm_route);
  HTTP_Query_String_Builder(req.query()).append("uuid", entry.value("uuid", ""));
  if (!server_call(req, nullptr, out, error))
    return fail(error);
  if (cli.json)
    std::cout << JSON_Value{{"removed", entry["uuid"]}}.dump(2) << "\n";
  else
    std::cout << "Removed CVM " << entry.value("uuid", "") << "\n";
  return OK;
}

int cvm_test(const Cli& cli, const std::string& key) {
  JSON_Value entry, out, result;
  std::string error;
  if (!find_cvm(key, entry, error))
    return fail(error);
  // The entry with its password sealed for this agent, which the server hands to the agent's own
  // key only: the module opens it inside the agent.
  std::string host_id = agent_host_id();
  HTTP_Request req(HTTP_Method::GET, server_api::cvm_route);
  HTTP_Query_String_Builder(req.query())
      .append("uuid", entry.value("uuid", ""))
      .append("with_password", host_id);
  if (!server_call_as_agent(req, out, error))
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

const char ls_forms[] =
    "Listings:\n"
    "  ls CVM                     the CVM's hosts\n"
    "  ls CVM host HOST           one host's details\n"
    "  ls CVM vms HOST            the VMs of a host\n"
    "  ls CVM pools HOST          the storage pools of a host\n"
    "  ls CVM volumes HOST POOL   the volumes of a host's storage pool\n"
    "  ls CVM vswitches HOST      the virtual switches of a host\n"
    "  ls CVM profiles            the port profiles\n"
    "HOST is a host id or name.";

// CLI11 takes the word after an option as its value even when that is another option: a
// forgotten value must not make "--url" a pool's name.
const CLI::Validator a_value(
    [](std::string& value) { return value.rfind("--", 0) == 0 ? "needs a value" : std::string(); },
    "");

// Options the agent reads as JSON integers.
const CLI::Validator a_whole_number(
    [](std::string& value) {
      std::size_t end = 0;
      try {
        long n = std::stol(value, &end);
        if (end == value.size() && n >= INT32_MIN && n <= INT32_MAX)
          return std::string();
      } catch (const std::exception&) {
      }
      return "'" + value + "' is not a whole number";
    },
    "INT");

}  // namespace

int main(int argc, char** argv) {
  Cli cli;
  std::string agent_config = agent_files::default_config();
  std::function<int()> run;

  CLI::App app(
      "Registers CVMs and storage pools, tests logins, browses a CVM's inventory, backs "
      "VMs up, lists, verifies and restores backup sets.",
      "brimlet");
  app.require_subcommand(1);
  // Global flags may follow the command too: "brimlet cvm list --json".
  app.fallthrough();
  app.add_flag("--json", cli.json,
               "machine-readable output (the agent's or server's answer as is)");
  app.add_option("--config", agent_config, "the agent configuration")
      ->check(a_value)
      ->capture_default_str();
  // A leaf command: its callback picks what runs once the whole line has parsed.
  auto command = [&run](CLI::App* parent, const char* name, const char* description,
                        std::function<int()> body) {
    CLI::App* sub = parent->add_subcommand(name, description);
    sub->callback([&run, body] { run = body; });
    return sub;
  };

  CLI::App* cvm = app.add_subcommand("cvm", "registered CVMs");
  cvm->require_subcommand(1);
  Cvm_Add add_args;
  std::string cvm_key, password;
  CLI::Option* password_given = nullptr;
  CLI::App* add = command(cvm, "add", "register a CVM; the password is asked for", [&] {
    if (*password_given)
      return usage_error(cli,
                         "passwords are never taken from the command line; use the prompt or "
                         "--password-stdin");
    return cvm_add(cli, add_args);
  });
  add->add_option("--host", add_args.host, "the CVM's address")->check(a_value)->required();
  add->add_option("--username", add_args.username, "a CAS administrator")
      ->check(a_value)
      ->required();
  add->add_option("--port", add_args.port, "the CVM's HTTP(S) port")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  add->add_flag("--ssl", add_args.ssl, "HTTPS to the CVM");
  add->add_option("--name", add_args.name, "a name to use instead of the uuid")->check(a_value);
  add->add_flag("--password-stdin", add_args.password_stdin,
                "read the password as one line of standard input");
  password_given = add->add_option("--password", password)->group("");
  command(cvm, "list", "list registered CVMs", [&] { return cvm_list(cli); });
  command(cvm, "remove", "remove a registered CVM", [&] { return cvm_remove(cli, cvm_key); })
      ->add_option("CVM", cvm_key, "uuid or name")
      ->required();
  command(cvm, "test", "log in to a registered CVM through the agent and its module",
          [&] { return cvm_test(cli, cvm_key); })
      ->add_option("CVM", cvm_key, "uuid or name")
      ->required();

  std::vector<std::string> words;
  command(&app, "ls", "list a CVM's inventory", [&] { return inventory_ls(cli, words); })
      ->footer(ls_forms)
      ->add_option("CVM", words,
                   "CVM [host|vms|pools|vswitches HOST | volumes HOST POOL | profiles]")
      ->required();
  std::string search_cvm, kind, text;
  bool by_ip = false;
  CLI::App* search = command(
      &app, "search", "hosts (name or address) or VMs (name or title) containing TEXT, any case",
      [&] { return inventory_search(cli, search_cvm, kind, text, by_ip); });
  search->add_option("CVM", search_cvm, "uuid or name")->required();
  search->add_option("KIND", kind, "hosts or vms")
      ->required()
      ->check(CLI::IsMember({"hosts", "vms"}));
  search->add_option("TEXT", text, "what to look for")->required();
  search->add_flag("--ip", by_ip, "match host addresses only");
  std::vector<std::string> names;
  CLI::App* verify =
      command(&app, "verify", "which of these VM names exist (exit status 1 when some do not)",
              [&] { return inventory_verify(cli, search_cvm, names); });
  verify->add_option("CVM", search_cvm, "uuid or name")->required();
  verify->add_option("NAME", names, "VM names")->required();

  CLI::App* pool = app.add_subcommand("pool", "storage pools on the backup server");
  pool->require_subcommand(1);
  std::string pool_name, url, compression;
  int level = 0;
  CLI::Option* level_given = nullptr;
  CLI::App* pool_add_cmd = command(pool, "add", "register a storage pool", [&] {
    JSON_Value io = JSON_Value::object();
    if (!compression.empty())
      io["compression"] = compression;
    if (*level_given)
      io["compression_level"] = level;
    return pool_add(cli, pool_name, url, io);
  });
  pool_add_cmd->add_option("--name", pool_name, "the pool's name")->check(a_value)->required();
  pool_add_cmd->add_option("--url", url, "where it is: file:///DIR")->check(a_value)->required();
  pool_add_cmd->add_option("--compression", compression, "zstd (the default), lz4, zlib or none")
      ->check(CLI::IsMember({"zstd", "lz4", "zlib", "none"}));
  level_given = pool_add_cmd->add_option("--level", level, "compression level (zstd default 3)");
  command(pool, "list", "list storage pools", [&] { return pool_list(cli); });

  CLI::App* sets = app.add_subcommand("sets", "the backup catalog");
  sets->require_subcommand(1);
  std::string set_cvm, set_host, set_vm, set_uuid;
  CLI::App* sets_list_cmd =
      command(sets, "list", "backup sets, newest first, with the full set each belongs to",
              [&] { return sets_list(cli, set_cvm, set_host, set_vm); });
  sets_list_cmd->add_option("--cvm", set_cvm, "a CVM's uuid or name")->check(a_value);
  sets_list_cmd->add_option("--host", set_host, "a host id or name")->check(a_value);
  sets_list_cmd->add_option("--vm", set_vm, "a VM id or name")->check(a_value);
  command(sets, "show", "every field of a backup set, its disks and pieces",
          [&] { return sets_show(cli, set_uuid); })
      ->add_option("SET", set_uuid, "a backup set's uuid")
      ->required();
  bool verify_all = false;
  std::string verify_pool;
  double verify_interval = 2;
  CLI::App* sets_verify_cmd = command(
      sets, "verify",
      "read and check every object of a set's chain, writing nothing (exit status 1 when an "
      "object is bad)",
      [&] {
        if (set_uuid.empty() == !verify_all)
          return usage_error(cli, "give either SET or --all");
        if (!verify_pool.empty() && !verify_all)
          return usage_error(cli, "--pool goes with --all");
        return sets_verify(cli, set_uuid, verify_all, verify_pool,
                           std::chrono::milliseconds(static_cast<long>(verify_interval * 1000)));
      });
  sets_verify_cmd->add_option("SET", set_uuid, "a backup set's uuid");
  sets_verify_cmd->add_flag("--all", verify_all,
                            "every set (of the pool): the newest set of each chain is read");
  sets_verify_cmd->add_option("--pool", verify_pool, "a storage pool's name or uuid")
      ->check(a_value);
  sets_verify_cmd->add_option("--interval", verify_interval, "seconds between progress updates")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();

  CLI::App* job = app.add_subcommand("job", "the agent's job runs");
  job->require_subcommand(1);
  std::string run_id, definition_file;
  command(job, "run", "start a run of a job definition (JSON)",
          [&] { return job_run(cli, definition_file); })
      ->add_option("FILE", definition_file, "the definition; - for standard input")
      ->required();
  command(job, "list", "the runs since the agent started", [&] { return job_list(cli); });
  for (auto [name, what, body] :
       {std::tuple{"status", "a run's state and the progress of its VMs", &job_status},
        std::tuple{"stop", "stop a run (it ends cancelled)", &job_stop},
        std::tuple{"log", "a run's log", &job_log}})
    command(job, name, what, [&cli, &run_id, body = body] { return body(cli, run_id); })
        ->add_option("RUN", run_id, "the run's id")
        ->required();

  Backup_Args backup_args;
  bool incremental = false, no_wait = false;
  double interval = 2;
  CLI::App* backup = command(&app, "backup", "back up a host's VMs or named VMs into a pool", [&] {
    if (backup_args.host.empty() == backup_args.vms.empty())
      return usage_error(cli, "give either --host HOST or VM names");
    backup_args.wait = !no_wait;
    backup_args.interval = std::chrono::milliseconds(static_cast<long>(interval * 1000));
    return backup_run(cli, backup_args);
  });
  backup->add_option("CVM", backup_args.cvm, "uuid or name")->required();
  backup->add_option("VM", backup_args.vms, "VM names");
  backup->add_option("--host", backup_args.host, "every VM of this host (id or name)")
      ->check(a_value);
  backup->add_option("--pool", backup_args.pool, "the storage pool (name or uuid)")
      ->check(a_value)
      ->required();
  CLI::Option* full = backup->add_flag("--full", backup_args.full, "a full backup");
  backup
      ->add_flag("--incremental", incremental,
                 "only what changed since the last backup (the default; full when a VM has none)")
      ->excludes(full);
  backup->add_option("--options", backup_args.options_file, "backup options: a JSON object file")
      ->check(a_value);
  // The common options as flags, named as in the options file; they win over the file.
  for (auto [flag, key, what] :
       {std::tuple{"--compression", "compression", "zstd, lz4, zlib or none (default: the pool's)"},
        std::tuple{"--compression-level,--level", "compression_level", "compression level"},
        std::tuple{"--parallel-vms", "parallel_vms", "VMs backed up at once (1-64, default 2)"},
        std::tuple{"--parallel-vms-per-host", "parallel_vms_per_host",
                   "VMs of one host at once (default 2)"},
        std::tuple{"--parallel-disks-per-vm", "parallel_disks_per_vm",
                   "disks of a VM at once (1-5, default 1)"},
        std::tuple{"--parallel-workers-per-disk", "parallel_workers_per_disk",
                   "transfers per disk (1-5, default 1)"}}) {
    std::string key_name = key;
    CLI::Option* option = backup->add_option_function<std::string>(
        flag,
        [&backup_args, key_name](const std::string& value) {
          if (key_name == "compression")
            backup_args.option_flags[key_name] = value;
          else
            backup_args.option_flags[key_name] = std::stol(value);
        },
        what);
    option->check(key_name == "compression"
                      ? CLI::Validator(CLI::IsMember({"zstd", "lz4", "zlib", "none"}))
                      : a_whole_number);
  }
  CLI::Option* wait =
      backup->add_flag("--wait", "wait for the run to end, showing progress (the default)");
  backup->add_flag("--no-wait", no_wait, "print the run's id and return")->excludes(wait);
  backup->add_option("--interval", interval, "seconds between progress updates")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();

  Restore_Args restore_args;
  bool restore_no_wait = false;
  double restore_interval = 2;
  CLI::App* restore =
      command(&app, "restore", "restore a backup set to a new VM or over the VM it came from", [&] {
        restore_args.wait = !restore_no_wait;
        restore_args.interval =
            std::chrono::milliseconds(static_cast<long>(restore_interval * 1000));
        return restore_run(cli, restore_args);
      });
  restore->add_option("SET", restore_args.set, "a backup set's uuid (brimlet sets list)")
      ->required();
  restore->add_flag("--latest", restore_args.latest, "the newest set of SET's chain instead");
  CLI::Option* original = restore->add_flag("--original", restore_args.original,
                                            "over the source VM: same name and host");
  for (auto [flag, value, what] :
       {std::tuple{"--name", &restore_args.name, "the new VM's name (required without --original)"},
        std::tuple{"--host", &restore_args.host, "target host id or name (default: the source's)"},
        std::tuple{"--pool", &restore_args.pool,
                   "CAS storage pool on the target host (default: each disk's own)"}})
    restore->add_option(flag, *value, what)->check(a_value)->excludes(original);
  restore
      ->add_option("--network", restore_args.networks,
                   "VSWITCH[/PROFILE] by name, once per NIC (default: the host's first "
                   "vswitch, profile Default or the CVM's first)")
      ->check(a_value)
      ->excludes(original);
  restore->add_flag("--no-network", restore_args.no_network, "a new VM without network cards")
      ->excludes(original)
      ->excludes("--network");
  for (auto [flag, value, what] :
       {std::tuple{"--cpus", &restore_args.cpus, "CPU sockets (default: the source's)"},
        std::tuple{"--cores", &restore_args.cores, "cores per socket (default: the source's)"}})
    restore->add_option(flag, *value, what)->check(CLI::Range(1, 64));
  restore
      ->add_option("--parallel-disks", restore_args.parallel_disks,
                   "disks of the VM restored at once (default 1)")
      ->check(CLI::Range(1, 5));
  restore->add_option("--memory-mib", restore_args.memory_mib, "memory (default: the source's)")
      ->check(CLI::Range(1, 1 << 24));
  restore->add_flag("--overwrite", restore_args.overwrite,
                    "replace a VM of the target name (needed with --original while it exists)");
  restore->add_flag("--reserve-mac", restore_args.reserve_mac, "keep the NICs' MAC addresses")
      ->needs(original);
  restore->add_flag("--start", restore_args.start, "start the VM once restored");
  restore->add_option("--options", restore_args.options_file, "restore options: a JSON object file")
      ->check(a_value);
  restore->add_flag("--no-wait", restore_no_wait, "print the run's id and return");
  restore->add_option("--interval", restore_interval, "seconds between progress updates")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();

  app.footer(
      "CVM is a registered CVM's uuid or name. The backup server and its administrator "
      "key come from " +
      cli_config_path() +
      " (readable by its owner only).\nExit status: 0 success, 1 failure, 2 usage error.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    cli.command = command_path(app);
    // A word where a command was expected is not "missing a command".
    std::vector<std::string> extra = app.remaining();
    if (dynamic_cast<const CLI::RequiredError*>(&e) && !extra.empty()) {
      std::string typed = cli.command + " " + extra.front();
      return usage_error(cli, "unknown command '" + typed.substr(typed.find(' ') + 1) + "'");
    }
    return usage_error(cli, e.what());
  }
  cli.command = command_path(app);
  set_agent_config(agent_config);

  // Host library log lines would clutter the terminal: the CLI reports one line of its own.
  Log_Options log;
  log.program = "brimlet";
  log.to_stderr = getenv("BRIMLET_CLI_DEBUG") != nullptr;
  log.debug = log.to_stderr;
  open_log(log);
  // Names from CAS are UTF-8; tables measure them in terminal columns.
  use_utf8_locale();
  try {
    return run();
  } catch (const std::exception& e) {
    // A peer's answer of an unexpected shape.
    return fail(std::string("unexpected answer: ") + e.what());
  }
}
