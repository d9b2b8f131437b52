// Storage pools and the backup catalog through the real brimlet-server and the brimlet CLI: pool
// add|list, sets committed with the agent's key and read back with sets list|show.
#include "host/core/paths.h"
#include "host/http/client.h"
#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <iomanip>
#include <map>
#include <sstream>
#include <tuple>

namespace {
using S = std::string;
using Row = std::vector<S>;
using Table = std::vector<Row>;

// A table the CLI printed, cut into cells where the header's cells start (text is ASCII here),
// so that a misaligned row reads wrong.
Table read_table(const S& out) {
  std::istringstream in(out);
  std::vector<std::size_t> starts = {0};
  Table rows;
  for (S line; std::getline(in, line);) {
    for (std::size_t i = 2; rows.empty() && i < line.size(); ++i)
      if (line[i] != ' ' && line[i - 1] == ' ' && line[i - 2] == ' ')
        starts.push_back(i);
    Row row;
    for (std::size_t c = 0; c < starts.size(); ++c) {
      std::size_t end = c + 1 < starts.size() ? starts[c + 1] : S::npos;
      S cell = starts[c] < line.size() ? line.substr(starts[c], end - starts[c]) : "";
      row.push_back(cell.erase(cell.find_last_not_of(' ') + 1));
    }
    rows.push_back(row);
  }
  return rows;
}

const std::time_t t0 = 1700000000;
S local_time(std::time_t dt) {
  std::time_t t = t0 + dt;
  std::ostringstream out;
  out << std::put_time(std::localtime(&t), "%Y-%m-%d %H:%M:%S");
  return out.str();
}
Row uuids(const JSON_Value& rows) {
  Row out;
  for (const auto& r : rows)
    out.push_back(r.value("uuid", "?"));
  return out;
}

class Catalog : public ::testing::Test {
 protected:
  // CVM "lab", pool "lab"; web01's chain (full-1, inc-1, inc-2) and app01's full set on that CVM;
  // gone-1: a full set of a VM also named web01, same id, on a CVM no longer registered.
  void SetUp() override {
    ASSERT_TRUE(stack_.start_server_and_agent());
    S text;
    ASSERT_TRUE(read_file(stack_.dir().file("server.ready"), text));
    port_ = JSON_Value::parse(text).value("port", std::uint16_t{0});
    ASSERT_TRUE(read_file(stack_.dir().path() + "/etc/opt/quorvex/brimlet5/agent.json", text));
    agent_key_ = JSON_Value::parse(text)["backup_server"].value("access_key", "");
    cvm_ = stack_.add_cvm("lab", 1, "admin", "pass");  // no simulator: not reached
    Run_Result r = stack_.cli({"pool", "add", "--name", "lab", "--url", pool_url("pool-lab")});
    ASSERT_EQ(r.out.rfind("Registered storage pool lab as ", 0), 0u) << r.out << r.err;
    pool_ = r.out.substr(r.out.rfind(' ') + 1, 36);
    ASSERT_EQ(commit(backup_set("full-1", "", cvm_, "1", "web01", 0, 8589934592)), 201);
    ASSERT_EQ(commit(inc_1_ = backup_set("inc-1", "full-1", cvm_, "1", "web01", 3600, 1572864)),
              201);
    ASSERT_EQ(commit(backup_set("inc-2", "inc-1", cvm_, "1", "web01", 7200, 512)), 201);
    ASSERT_EQ(commit(backup_set("app-1", "", cvm_, "2", "app01", 1800, 1048576)), 201);
    ASSERT_EQ(commit(backup_set("gone-1", "", "gone-cvm", "1", "web01", 60, 2048)), 201);
  }
  S pool_url(const S& name) const {
    std::filesystem::create_directories(stack_.dir().file(name));
    return "file://" + stack_.dir().file(name);
  }
  // A backup set of VM `vm` on CVK "cvk0<id>" of the CVM entry `cvm`, `dt` seconds after t0; a full
  // set when `base` is empty, else one of the chain of "full-1".
  JSON_Value backup_set(const S& uuid, const S& base, const S& cvm, const S& id, const S& vm,
                        std::time_t dt, std::uint64_t size) const {
    bool full = base.empty();
    S cvk = "cvk0" + id, disk = "/vms/images/" + vm;
    JSON_Value set = {{"source_size", 10737418240}, {"pool_uuid", pool_}, {"host_uuid", cvm}};
    for (const char* k : {"job_uuid", "run_uuid", "definition_id", "vm_uuid", "host_ip", "vm_title",
                          "cbt_name", "uri", "name", "agent", "instance_version"})
      set[k] = S(k) + "-" + uuid;
    set.update({{"uuid", uuid}, {"base", full ? uuid : base}, {"vm_name", vm}});
    set.update({{"incarnation", full ? uuid : "full-1"}, {"resource_uuid", "res-" + cvm}});
    set.update({{"host_id", id}, {"host_name", cvk}, {"vm_id", id + "01"}, {"set_size", size}});
    set.update({{"backup_type", full ? "full" : "incremental"}, {"start_time", t0 + dt}});
    set["vm_config_path"] = "/" + cvk + "/" + vm + "/" + uuid + ".json";
    set["vm_disks"] = {{{"path", disk + "-a.qcow2"}, {"size", 8589934592}, {"format", "qcow2"}},
                       {{"path", disk + "-b.raw"}, {"size", 2147483648}, {"format", "raw"}}};
    set["pieces"] = {
        {{"object", ""}, {"size", 0}, {"path", "/config/" + uuid + ".json"}},
        {{"object", disk + "-a.qcow2"}, {"size", size}, {"path", "/chunk-" + uuid + "-0"}},
        {{"object", disk + "-b.raw"}, {"size", 0}, {"path", "/chunk-" + uuid + "-1"}}};
    set["storages"] = {
        {{"pool_uuid", pool_}, {"size", size / 2}, {"extra", {{"code_name", "reborn"}}}}};
    return set;
  }
  // POST of a backup set to the server's commit route with the agent's key: the HTTP status.
  int commit(const JSON_Value& set) {
    JSON_HTTP_Session json(HTTP_Session_Factory::create("127.0.0.1", port_, false), 1, 30);
    HTTP_Request req(HTTP_Method::POST, "/k4/r/catalog/h3ccas");
    req.headers().put("X-Access-Key", agent_key_);
    HTTP_Response resp;
    JSON_Value answer;
    return json.send(req, &set, resp, &answer) ? resp.status() : 0;
  }
  // `brimlet --json ARGS...`, parsed.
  JSON_Value cli_json(const S& args) {
    Run_Result r = stack_.cli(words("--json " + args));
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return JSON_Value::parse(r.out, nullptr, false);
  }
  Test_Stack stack_;
  std::uint16_t port_ = 0;
  S agent_key_, cvm_, pool_;
  JSON_Value inc_1_;
};

// What the server or the CLI refuses: one clear line, nothing on stdout, nothing stored. Then the
// pools with their compression; the sets newest first, filtered by ids or names, and one in full.
TEST_F(Catalog, RefusalsPoolsAndSetsReadBackThroughTheCli) {
  S fast = pool_url("pool-fast"), plain = pool_url("pool-plain"), x = "pool add --url ";
  EXPECT_EQ(commit(backup_set("inc-x", "no-such-set", cvm_, "1", "web01", 9000, 1)), 400);
  const S answered = "backup server answered ";
  const std::tuple<S, int, S> cases[] = {
      {x + fast + " --name lab", 1,
       "a storage pool named 'lab' is registered already, as " + pool_},
      {x + fast + " --name x --compression xz", 2, "--compression: xz not in {zstd,lz4,zlib,none}"},
      {x + fast + " --name x --level 23", 2, "level 23 is out of range for zstd compression"},
      {"sets show inc-x", 1, answered + "404: no backup set 'inc-x'"},
      {"sets list --cvm nosuch", 1, "no registered CVM 'nosuch'"},
  };
  for (const auto& [args, exit_code, message] : cases) {
    Run_Result r = stack_.cli(words(args));
    EXPECT_EQ(r.exit_code, exit_code) << args;
    EXPECT_EQ(r.err.substr(0, r.err.find('\n')).rfind("brimlet: " + message, 0), 0u) << r.err;
    EXPECT_EQ(r.out, "") << args;
  }
  EXPECT_EQ(uuids(cli_json("pool list")), Row{pool_});
  S f = cli_json("pool add --name fast --url " + fast + " --compression lz4 --level 9")["uuid"];
  S p = cli_json("pool add --url " + plain + " --compression none --name plain")["uuid"];
  Run_Result r = stack_.cli({"pool", "list"});
  EXPECT_EQ(read_table(r.out), (Table{{"NAME", "UUID", "URL", "COMPRESSION"},
                                      {"lab", pool_, pool_url("pool-lab"), "zstd level 3"},
                                      {"fast", f, fast, "lz4 level 9"},
                                      {"plain", p, plain, "none"}}));
  r = stack_.cli({"sets", "list"});
  EXPECT_EQ(
      read_table(r.out),
      (Table{{"UUID", "TIME", "TYPE", "VM", "HOST", "SIZE", "FULL SET"},
             {"inc-2", local_time(7200), "incremental", "web01", "cvk01", "512 B", "full-1"},
             {"inc-1", local_time(3600), "incremental", "web01", "cvk01", "1.5 MiB", "full-1"},
             {"app-1", local_time(1800), "full", "app01", "cvk02", "1.0 MiB", "app-1"},
             {"gone-1", local_time(60), "full", "web01", "cvk01", "2.0 KiB", "gone-1"},
             {"full-1", local_time(0), "full", "web01", "cvk01", "8.0 GiB", "full-1"}}));
  const Row web = {"inc-2", "inc-1", "gone-1", "full-1"},
            lab = {"inc-2", "inc-1", "app-1", "full-1"};
  const std::pair<S, Row> filters[] = {
      {"--vm web01", web},
      {"--vm 201", {"app-1"}},
      {"--host cvk02", {"app-1"}},
      {"--host 1", web},
      {"--cvm lab", lab},
      {"--cvm " + cvm_, lab},
      {"--cvm lab --vm web01", {"inc-2", "inc-1", "full-1"}},
      {"--cvm lab --host cvk01 --vm 201", {}},
      {"--cvm gone-cvm", {"gone-1"}},  // a CVM removed from the registry: by its uuid
      {"--vm db01", {}},
  };
  for (const auto& [args, expected] : filters)
    EXPECT_EQ(uuids(cli_json("sets list " + args)), expected) << args;
  r = stack_.cli({"sets", "show", "inc-1"});
  Table lines = read_table(r.out.substr(0, r.out.find("\n\n")));
  std::map<S, S> by_key;
  for (const auto& row : lines)
    by_key[row[0]] = row[1];
  // One line per field that is not a list of records.
  for (const auto& item : inc_1_.items()) {
    bool records = item.key() == "vm_disks" || item.key() == "pieces" || item.key() == "storages";
    EXPECT_EQ(by_key.count(item.key() + ":"), records ? 0u : 1u) << item.key() << "\n" << r.out;
  }
  EXPECT_EQ(lines.at(0), (Row{"uuid:", "inc-1"}));
  EXPECT_EQ(by_key["backup_type:"], "incremental");
  EXPECT_EQ(by_key["chain:"], "full-1,inc-1");
  EXPECT_EQ(by_key["start_time:"], local_time(3600));
  EXPECT_EQ(by_key["set_size:"], "1.5 MiB (1572864 bytes)");
  EXPECT_EQ(by_key["vm_config_path:"], "/cvk01/web01/inc-1.json");
  // Then a table per list of records, in this order.
  Table tables;
  std::size_t at = 0;
  for (const S name : {"vm_disks", "pieces", "storages"}) {
    at = r.out.find("\n\n" + name + ":\n", at);
    ASSERT_NE(at, S::npos) << name << "\n" << r.out;
    at += name.size() + 4;
    for (auto& row : read_table(r.out.substr(at, r.out.find("\n\n", at) - at)))
      tables.push_back(row);
  }
  EXPECT_EQ(tables, (Table{{"FORMAT", "PATH", "SIZE"},
                           {"qcow2", "/vms/images/web01-a.qcow2", "8589934592"},
                           {"raw", "/vms/images/web01-b.raw", "2147483648"},
                           {"OBJECT", "PATH", "SIZE"},
                           {"", "/config/inc-1.json", "0"},
                           {"/vms/images/web01-a.qcow2", "/chunk-inc-1-0", "1572864"},
                           {"/vms/images/web01-b.raw", "/chunk-inc-1-1", "0"},
                           {"EXTRA", "POOL UUID", "SIZE"},
                           {R"({"code_name":"reborn"})", pool_, "786432"}}));
}
}  // namespace
