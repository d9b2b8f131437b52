// Storage pools and the backup catalog through the real brimlet-server and the brimlet CLI: pool
// add|list, sets committed with the agent's key and read back with sets list|show.
#include "host/core/paths.h"
#include "host/http/client.h"
#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <map>

namespace {

using Row = std::vector<std::string>;
using Strings = std::vector<std::string>;

// A table the CLI printed, cut into cells where the header's cells start (text is ASCII here),
// so that a misaligned row reads wrong.
std::vector<Row> read_table(const std::string& out) {
  Strings lines;
  for (std::size_t at = 0, end; at < out.size(); at = end + 1) {
    end = std::min(out.find('\n', at), out.size());
    lines.push_back(out.substr(at, end - at));
  }
  std::vector<std::size_t> starts = {0};
  for (std::size_t i = 2; !lines.empty() && i < lines[0].size(); ++i)
    if (lines[0][i] != ' ' && lines[0][i - 1] == ' ' && lines[0][i - 2] == ' ')
      starts.push_back(i);
  std::vector<Row> rows;
  for (const auto& line : lines) {
    Row row;
    for (std::size_t c = 0; c < starts.size(); ++c) {
      std::size_t end = c + 1 < starts.size() ? starts[c + 1] : std::string::npos;
      std::string cell = starts[c] < line.size() ? line.substr(starts[c], end - starts[c]) : "";
      row.push_back(cell.erase(cell.find_last_not_of(' ') + 1));
    }
    rows.push_back(row);
  }
  return rows;
}

std::string local_time(std::time_t t) {
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
  return buf;
}

Strings uuids(const JSON_Value& rows) {
  Strings out;
  for (const auto& r : rows)
    out.push_back(r.value("uuid", "?"));
  return out;
}

const std::time_t t0 = 1700000000;

// A backup set of VM `vm` on CVK "cvk0<host>" (id "<host>") of the CVM entry `cvm`, `dt` seconds
// after t0; a full set when `base` is empty, else one of the chain of "full-1".
struct Spec {
  std::string uuid, base, cvm;
  int host;
  std::string vm;
  std::time_t dt;
  std::uint64_t size;
};

class Catalog : public ::testing::Test {
 protected:
  // A registered CVM "lab" and pool "lab"; a chain of web01 (full and two incrementals) and a full
  // set of app01 on that CVM, and a full set of a VM also called web01 with the same id on a CVM
  // no longer registered.
  void SetUp() override {
    ASSERT_TRUE(stack_.start_server_and_agent());
    std::string text;
    ASSERT_TRUE(read_file(stack_.dir().file("server.ready"), text));
    port_ = JSON_Value::parse(text).value("port", std::uint16_t{0});
    ASSERT_TRUE(read_file(stack_.dir().path() + "/etc/opt/quorvex/brimlet5/agent.json", text));
    agent_key_ = JSON_Value::parse(text)["backup_server"].value("access_key", "");
    cvm_ = stack_.add_cvm("lab", 1, "admin", "pass");  // no simulator: not reached
    Run_Result r = stack_.cli({"pool", "add", "--name", "lab", "--url", pool_url("pool-lab")});
    ASSERT_EQ(r.out.rfind("Registered storage pool lab as ", 0), 0u) << r.out << r.err;
    pool_ = r.out.substr(r.out.rfind(' ') + 1);
    pool_.pop_back();  // the newline
    specs_ = {{"full-1", "", cvm_, 1, "web01", 0, 8589934592},
              {"inc-1", "full-1", cvm_, 1, "web01", 3600, 1572864},
              {"inc-2", "inc-1", cvm_, 1, "web01", 7200, 512},
              {"app-1", "", cvm_, 2, "app01", 1800, 1048576},
              {"gone-1", "", "gone-cvm", 1, "web01", 60, 2048}};
    for (const auto& s : specs_)
      ASSERT_EQ(commit(backup_set(s)), 201) << s.uuid;
  }

  std::string pool_url(const std::string& name) const {
    std::filesystem::create_directories(stack_.dir().file(name));
    return "file://" + stack_.dir().file(name);
  }

  JSON_Value backup_set(const Spec& s) const {
    bool full = s.base.empty();
    std::string id = std::to_string(s.host), cvk = "cvk0" + id, disk = "/vms/images/" + s.vm;
    JSON_Value set = {{"source_size", 10737418240}, {"pool_uuid", pool_}, {"host_uuid", s.cvm}};
    for (const char* k : {"job_uuid", "run_uuid", "definition_id", "vm_uuid", "host_ip", "vm_title",
                          "cbt_name", "uri", "name", "agent", "instance_version"})
      set[k] = std::string(k) + "-" + s.uuid;
    set.update({{"uuid", s.uuid}, {"base", full ? s.uuid : s.base}, {"vm_name", s.vm}});
    set.update({{"incarnation", full ? s.uuid : "full-1"}, {"resource_uuid", "res-" + s.cvm}});
    set.update({{"host_id", id}, {"host_name", cvk}, {"vm_id", id + "01"}, {"set_size", s.size}});
    set.update({{"backup_type", full ? "full" : "incremental"}, {"start_time", t0 + s.dt}});
    set["vm_config_path"] = "/" + cvk + "/" + s.vm + "/" + s.uuid + ".json";
    set["vm_disks"] = {{{"path", disk + "-a.qcow2"}, {"size", 8589934592}, {"format", "qcow2"}},
                       {{"path", disk + "-b.raw"}, {"size", 2147483648}, {"format", "raw"}}};
    set["pieces"] = {
        {{"object", ""}, {"size", 0}, {"path", "/config/" + s.uuid + ".json"}},
        {{"object", disk + "-a.qcow2"}, {"size", s.size}, {"path", "/chunk-" + s.uuid + "-0"}},
        {{"object", disk + "-b.raw"}, {"size", 0}, {"path", "/chunk-" + s.uuid + "-1"}}};
    set["storages"] = {
        {{"pool_uuid", pool_}, {"size", s.size / 2}, {"extra", {{"code_name", "reborn"}}}}};
    return set;
  }

  // POST of a backup set to the server's commit route with the agent's key: the HTTP status.
  int commit(const JSON_Value& set) {
    auto session = HTTP_Session_Factory::create("127.0.0.1", port_, false);
    JSON_HTTP_Session json(session, 1, 30);
    HTTP_Request req(HTTP_Method::POST, "/k4/r/catalog/h3ccas");
    req.headers().put("X-Access-Key", agent_key_);
    HTTP_Response resp;
    JSON_Value answer;
    return json.send(req, &set, resp, &answer) ? resp.status() : 0;
  }

  // `brimlet --json ARGS...`, parsed.
  JSON_Value cli_json(Strings args) {
    args.insert(args.begin(), "--json");
    Run_Result r = stack_.cli(args);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return JSON_Value::parse(r.out, nullptr, false);
  }

  Test_Stack stack_;
  std::uint16_t port_ = 0;
  std::string agent_key_, cvm_, pool_;
  std::vector<Spec> specs_;
};

TEST_F(Catalog, PoolsAreListedWithTheirCompression) {
  std::string fast_url = pool_url("pool-fast"), plain_url = pool_url("pool-plain");
  JSON_Value fast = cli_json(
      {"pool", "add", "--name", "fast", "--url", fast_url, "--compression", "lz4", "--level", "9"});
  JSON_Value plain =
      cli_json({"pool", "add", "--url", plain_url, "--compression", "none", "--name", "plain"});
  Run_Result r = stack_.cli({"pool", "list"});
  EXPECT_EQ(read_table(r.out),
            (std::vector<Row>{{"NAME", "UUID", "URL", "COMPRESSION"},
                              {"lab", pool_, pool_url("pool-lab"), "zstd level 3"},
                              {"fast", fast.value("uuid", ""), fast_url, "lz4 level 9"},
                              {"plain", plain.value("uuid", ""), plain_url, "none"}}))
      << r.out << r.err;
}

TEST_F(Catalog, ListShowsNewestFirstWithTheFullSetOfEachChain) {
  Run_Result r = stack_.cli({"sets", "list"});
  EXPECT_EQ(
      read_table(r.out),
      (std::vector<Row>{
          {"UUID", "TIME", "TYPE", "VM", "HOST", "SIZE", "FULL SET"},
          {"inc-2", local_time(t0 + 7200), "incremental", "web01", "cvk01", "512 B", "full-1"},
          {"inc-1", local_time(t0 + 3600), "incremental", "web01", "cvk01", "1.5 MiB", "full-1"},
          {"app-1", local_time(t0 + 1800), "full", "app01", "cvk02", "1.0 MiB", "app-1"},
          {"gone-1", local_time(t0 + 60), "full", "web01", "cvk01", "2.0 KiB", "gone-1"},
          {"full-1", local_time(t0), "full", "web01", "cvk01", "8.0 GiB", "full-1"}}))
      << r.out << r.err;
}

TEST_F(Catalog, FiltersTakeIdsOrNamesAndCombine) {
  const Strings web = {"inc-2", "inc-1", "gone-1", "full-1"},
                lab = {"inc-2", "inc-1", "app-1", "full-1"};
  const std::pair<Strings, Strings> cases[] = {
      {{"--vm", "web01"}, web},
      {{"--vm", "201"}, {"app-1"}},
      {{"--host", "cvk02"}, {"app-1"}},
      {{"--host", "1"}, web},
      {{"--cvm", "lab"}, lab},
      {{"--cvm", cvm_}, lab},
      {{"--cvm", "lab", "--vm", "web01"}, {"inc-2", "inc-1", "full-1"}},
      {{"--cvm", "lab", "--host", "cvk01", "--vm", "201"}, {}},
      // The sets of a CVM removed from the registry stay reachable by its uuid.
      {{"--cvm", "gone-cvm"}, {"gone-1"}},
      {{"--vm", "db01"}, {}},
  };
  for (auto [args, expected] : cases) {
    args.insert(args.begin(), {"sets", "list"});
    EXPECT_EQ(uuids(cli_json(args)), expected) << args.back();
  }
}

TEST_F(Catalog, ShowGivesEveryFieldTheDisksAndThePieces) {
  JSON_Value committed = backup_set(specs_[1]);
  Run_Result r = stack_.cli({"sets", "show", "inc-1"});
  auto lines = read_table(r.out.substr(0, r.out.find("\n\n")));
  ASSERT_FALSE(lines.empty()) << r.err;
  std::map<std::string, std::string> by_key;
  for (const auto& row : lines)
    by_key[row[0]] = row[1];
  // One line per field that is not a list of records.
  for (const auto& item : committed.items()) {
    bool records = item.key() == "vm_disks" || item.key() == "pieces" || item.key() == "storages";
    EXPECT_EQ(by_key.count(item.key() + ":"), records ? 0u : 1u) << item.key() << "\n" << r.out;
  }
  EXPECT_EQ(lines[0], (Row{"uuid:", "inc-1"}));
  EXPECT_EQ(by_key["backup_type:"], "incremental");
  EXPECT_EQ(by_key["chain:"], "full-1,inc-1");
  EXPECT_EQ(by_key["start_time:"], local_time(t0 + 3600));
  EXPECT_EQ(by_key["set_size:"], "1.5 MiB (1572864 bytes)");
  EXPECT_EQ(by_key["vm_config_path:"], "/cvk01/web01/inc-1.json");

  // Then a table per list of records, in this order.
  std::vector<Row> tables;
  std::size_t at = 0;
  for (const std::string name : {"vm_disks", "pieces", "storages"}) {
    at = r.out.find("\n\n" + name + ":\n", at);
    ASSERT_NE(at, std::string::npos) << name << "\n" << r.out;
    at += name.size() + 4;
    for (auto& row : read_table(r.out.substr(at, r.out.find("\n\n", at) - at)))
      tables.push_back(row);
  }
  EXPECT_EQ(tables, (std::vector<Row>{{"FORMAT", "PATH", "SIZE"},
                                      {"qcow2", "/vms/images/web01-a.qcow2", "8589934592"},
                                      {"raw", "/vms/images/web01-b.raw", "2147483648"},
                                      {"OBJECT", "PATH", "SIZE"},
                                      {"", "/config/inc-1.json", "0"},
                                      {"/vms/images/web01-a.qcow2", "/chunk-inc-1-0", "1572864"},
                                      {"/vms/images/web01-b.raw", "/chunk-inc-1-1", "0"},
                                      {"EXTRA", "POOL UUID", "SIZE"},
                                      {R"({"code_name":"reborn"})", pool_, "786432"}}));
}

// What the server or the CLI refuses: one clear line, nothing on stdout, nothing stored.
TEST_F(Catalog, RefusalsAreOneClearLine) {
  std::string url = pool_url("other");
  EXPECT_EQ(commit(backup_set({"inc-x", "no-such-set", cvm_, 1, "web01", 9000, 1})), 400);
  struct Case {
    Strings args;
    int exit_code;
    std::string message;
  } cases[] = {
      {{"pool", "add", "--name", "x", "--url", "pool-dir"}, 1, "backup server answered 400: "},
      {{"pool", "add", "--name", "x", "--url", "file:///srv/../etc"},
       1,
       "backup server answered 400: Invalid storage pool URL 'file:///srv/../etc': '.' and '..' "
       "are not allowed in the folder"},
      {{"pool", "add", "--name", "lab", "--url", url},
       1,
       "a storage pool named 'lab' is registered already, as " + pool_},
      {{"pool", "add", "--name", "x", "--url", url, "--compression", "xz"},
       2,
       "--compression: xz not in {zstd,lz4,zlib,none}"},
      {{"pool", "add", "--name", "x", "--url", url, "--level", "23"},
       2,
       "level 23 is out of range for zstd compression"},
      {{"sets", "show", "inc-x"}, 1, "backup server answered 404: no backup set 'inc-x'"},
      {{"sets", "list", "--cvm", "nosuch"}, 1, "no registered CVM 'nosuch'"},
  };
  for (const auto& [args, exit_code, message] : cases) {
    Run_Result r = stack_.cli(args);
    EXPECT_EQ(r.exit_code, exit_code) << args.back();
    EXPECT_EQ(r.err.substr(0, r.err.find('\n')).rfind("brimlet: " + message, 0), 0u) << r.err;
    EXPECT_EQ(r.out, "") << args.back();
  }
  EXPECT_EQ(uuids(cli_json({"pool", "list"})), Strings{pool_});
}

}  // namespace
