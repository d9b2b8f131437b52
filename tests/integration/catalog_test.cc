// Storage pools and the backup catalog through the real brimlet-server and the brimlet CLI: pool
// add|list, sets committed on the server's commit route and read back with sets list|show.
#include "host/core/paths.h"
#include "host/http/client.h"
#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

using Row = std::vector<std::string>;

// A table the CLI printed, cut into cells where the header's cells start (text is ASCII here),
// so that a misaligned row reads wrong.
std::vector<Row> read_table(const std::string& out) {
  std::vector<std::string> lines;
  for (std::size_t at = 0, end; at < out.size(); at = end + 1) {
    end = out.find('\n', at);
    lines.push_back(out.substr(at, end == std::string::npos ? std::string::npos : end - at));
    if (end == std::string::npos)
      break;
  }
  if (lines.empty())
    return {};
  std::vector<std::size_t> starts = {0};
  for (std::size_t i = 2; i < lines[0].size(); ++i)
    if (lines[0][i] != ' ' && lines[0][i - 1] == ' ' && lines[0][i - 2] == ' ')
      starts.push_back(i);
  std::vector<Row> rows;
  for (const auto& line : lines) {
    Row row;
    for (std::size_t c = 0; c < starts.size(); ++c) {
      std::size_t end = c + 1 < starts.size() ? starts[c + 1] : std::string::npos;
      std::string cell = starts[c] < line.size() ? line.substr(starts[c], end - starts[c]) : "";
      while (!cell.empty() && cell.back() == ' ')
        cell.pop_back();
      row.push_back(cell);
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

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

const std::time_t t0 = 1700000000;

class Catalog : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(stack_.start_server_and_agent());
    std::string text;
    ASSERT_TRUE(read_file(stack_.dir().file("server.ready"), text));
    port_ = JSON_Value::parse(text).value("port", std::uint16_t{0});
    ASSERT_TRUE(read_file(config_path(), text));
    key_ = JSON_Value::parse(text)["backup_server"].value("access_key", "");
    ASSERT_NE(port_, 0);
    ASSERT_FALSE(key_.empty());
  }

  std::string config_path() const {
    return stack_.dir().path() + "/etc/opt/quorvex/brimlet5/agent.json";
  }

  std::string pool_url(const std::string& name) const {
    std::filesystem::create_directories(stack_.dir().file(name));
    return "file://" + stack_.dir().file(name);
  }

  // `brimlet --json pool add`: the new pool's uuid ("" on failure).
  std::string add_pool(const std::string& name) {
    Run_Result r = stack_.cli({"--json", "pool", "add", "--name", name, "--url", pool_url(name)});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return JSON_Value::parse(r.out, nullptr, false).value("uuid", "");
  }

  // POST of a backup set to the server's commit route: the HTTP status (0 without an answer).
  int commit(const JSON_Value& set, JSON_Value* answer = nullptr) {
    auto session = HTTP_Session_Factory::create("127.0.0.1", port_, false);
    JSON_HTTP_Session json(session, 1, 30);
    HTTP_Request req(HTTP_Method::POST, "/k4/r/catalog/h3ccas");
    req.headers().put("X-Access-Key", key_);
    HTTP_Response resp;
    JSON_Value out;
    if (!json.send(req, &set, resp, &out))
      return 0;
    if (answer)
      *answer = out;
    return resp.status();
  }

  // `brimlet --json ARGS...`, parsed.
  JSON_Value cli_json(std::vector<std::string> args) {
    args.insert(args.begin(), "--json");
    Run_Result r = stack_.cli(args);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return JSON_Value::parse(r.out, nullptr, false);
  }

  Test_Stack stack_;
  std::uint16_t port_ = 0;
  std::string key_;
};

// One backup set of VM `vm_name` (id `vm_id`) on CVK `host_name` (id `host_id`) of the CVM entry
// `cvm`; a full set when `base` is empty.
struct Set_Spec {
  std::string uuid, base, incarnation, cvm, host_id, host_name, vm_id, vm_name;
  std::time_t start;
  std::uint64_t size;
};

JSON_Value backup_set(const Set_Spec& s, const std::string& pool) {
  bool full = s.base.empty();
  std::string disk = "/vms/images/" + s.vm_name;
  return {{"uuid", s.uuid},
          {"job_uuid", "job-1"},
          {"run_uuid", "run-" + s.uuid},
          {"definition_id", "def-1"},
          {"resource_uuid", "res-" + s.cvm},
          {"vm_uuid", "vmu-" + s.vm_id},
          {"host_id", s.host_id},
          {"host_name", s.host_name},
          {"host_ip", "192.168.10.1" + s.host_id},
          {"vm_id", s.vm_id},
          {"vm_name", s.vm_name},
          {"vm_title", s.vm_name + " title"},
          {"backup_type", full ? "full" : "incremental"},
          {"incarnation", full ? s.uuid : s.incarnation},
          {"base", full ? s.uuid : s.base},
          {"cbt_name", "cbt-" + s.uuid},
          {"uri", "/" + s.host_name + "/" + s.vm_name},
          {"vm_config_path", "/" + s.host_name + "/" + s.vm_name + "/" + s.uuid + ".json"},
          {"pool_uuid", pool},
          {"name", "nightly"},
          {"host_uuid", s.cvm},
          {"agent", Stack::agent_host_id()},
          {"instance_version", "E0750"},
          {"start_time", s.start},
          {"set_size", s.size},
          {"source_size", 10737418240},
          {"vm_disks",
           {{{"path", disk + "-a.qcow2"}, {"size", 8589934592}, {"format", "qcow2"}},
            {{"path", disk + "-b.raw"}, {"size", 2147483648}, {"format", "raw"}}}},
          {"pieces",
           {{{"object", ""}, {"size", 0}, {"path", "/config/" + s.uuid + ".json"}},
            {{"object", disk + "-a.qcow2"}, {"size", s.size}, {"path", "/chunk-" + s.uuid + "-0"}},
            {{"object", disk + "-b.raw"}, {"size", 0}, {"path", "/chunk-" + s.uuid + "-1"}}}},
          {"storages",
           {{{"pool_uuid", pool}, {"size", s.size / 2}, {"extra", {{"code_name", "reborn"}}}}}}};
}

// The uuids of a `sets list --json` answer, in order.
std::vector<std::string> uuids(const JSON_Value& rows) {
  std::vector<std::string> out;
  for (const auto& r : rows)
    out.push_back(r.value("uuid", "?"));
  return out;
}

TEST_F(Catalog, PoolsAreRegisteredAndListedWithTheirCompression) {
  std::string lab_url = pool_url("pool-lab"), fast_url = pool_url("pool-fast"),
              plain_url = pool_url("pool-plain");
  Run_Result r = stack_.cli({"pool", "add", "--name", "lab", "--url", lab_url});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  ASSERT_TRUE(contains(r.out, "Registered storage pool lab as ")) << r.out;
  std::string lab = r.out.substr(r.out.rfind(' ') + 1);
  lab.pop_back();  // the newline
  JSON_Value fast = cli_json(
      {"pool", "add", "--name", "fast", "--url", fast_url, "--compression", "lz4", "--level", "9"});
  JSON_Value plain =
      cli_json({"pool", "add", "--url", plain_url, "--compression", "none", "--name", "plain"});
  ASSERT_TRUE(fast.contains("uuid") && plain.contains("uuid"));

  JSON_Value rows = cli_json({"pool", "list"});
  ASSERT_EQ(rows.size(), 3u) << rows.dump();
  struct Expected {
    std::string name, uuid, url;
    JSON_Value io;
    std::string compression;
  } expected[] = {
      {"lab", lab, lab_url, JSON_Value::object(), "zstd level 3"},
      {"fast",
       fast["uuid"].get<std::string>(),
       fast_url,
       {{"compression", "lz4"}, {"compression_level", 9}},
       "lz4 level 9"},
      {"plain", plain["uuid"].get<std::string>(), plain_url, {{"compression", "none"}}, "none"},
  };
  r = stack_.cli({"pool", "list"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto table = read_table(r.out);
  ASSERT_EQ(table.size(), 4u) << r.out;
  EXPECT_EQ(table[0], (Row{"NAME", "UUID", "URL", "COMPRESSION"}));
  for (std::size_t i = 0; i < 3; ++i) {
    const auto& e = expected[i];
    EXPECT_EQ(rows[i].value("name", ""), e.name);
    EXPECT_EQ(rows[i].value("uuid", ""), e.uuid);
    EXPECT_EQ(rows[i].value("url", ""), e.url);
    EXPECT_EQ(rows[i]["io_options"], e.io) << e.name;
    EXPECT_EQ(table[i + 1], (Row{e.name, e.uuid, e.url, e.compression}));
  }
}

TEST_F(Catalog, PoolAddRefusesBadArgumentsAndWhatTheServerRefuses) {
  std::string lab = add_pool("lab");
  ASSERT_FALSE(lab.empty());
  std::string url = pool_url("other");

  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string message;
  } cases[] = {
      {{"pool", "add", "--url", url}, 2, "--name is required"},
      {{"pool", "add", "--name", "x"}, 2, "--url is required"},
      {{"pool", "add", "--name", "--url", url}, 2, "--name: needs a value"},
      {{"pool", "add", "--name", "x", "--url", url, "--level"},
       2,
       "--level: 1 required INT missing"},
      {{"pool", "add", "--name", "x", "--url", url, "--compression", "xz"},
       2,
       "--compression: xz not in {zstd,lz4,zlib,none}"},
      {{"pool", "add", "--name", "x", "--url", url, "--level", "3x"},
       2,
       "Could not convert: --level = 3x"},
      {{"pool", "add", "--name", "x", "--url", url, "--level", "23"},
       2,
       "level 23 is out of range for zstd compression"},
      {{"pool", "add", "--name", "x", "--url", url, "--compression", "zlib", "--level", "10"},
       2,
       "level 10 is out of range for zlib compression"},
      {{"pool", "add", "--name", "x", "--url", url, "--ssl"},
       2,
       "The following argument was not expected: --ssl"},
      {{"pool", "list", "lab"}, 2, "The following argument was not expected: lab"},
      {{"pool", "remove", "lab"}, 2, "unknown command 'pool remove'"},
      // The server's own checks, reported with its reason.
      {{"pool", "add", "--name", "x", "--url", "pool-dir"}, 1, "backup server answered 400"},
      {{"pool", "add", "--name", "x", "--url", "file:///srv/../etc"},
       1,
       "backup server answered 400"},
      {{"pool", "add", "--name", "lab", "--url", url},
       1,
       "a storage pool named 'lab' is registered already, as " + lab},
  };
  for (const auto& c : cases) {
    std::string line;
    for (const auto& a : c.args)
      line += a + " ";
    Run_Result r = stack_.cli(c.args);
    EXPECT_EQ(r.exit_code, c.exit_code) << line << r.err;
    EXPECT_TRUE(contains(r.err, "brimlet: " + c.message)) << line << "\n" << r.err;
    EXPECT_EQ(r.out, "") << line;
  }
  // Nothing was registered on the way.
  JSON_Value rows = cli_json({"pool", "list"});
  EXPECT_EQ(uuids(rows), (std::vector<std::string>{lab}));
}

class Catalog_Sets : public Catalog {
 protected:
  void SetUp() override {
    Catalog::SetUp();
    if (HasFatalFailure())
      return;
    // No simulator: registering a CVM does not reach it.
    cvm_ = stack_.add_cvm("lab", 1, "admin", "pass");
    pool_ = add_pool("lab");
    ASSERT_FALSE(cvm_.empty());
    ASSERT_FALSE(pool_.empty());
    for (const auto& s : specs()) {
      JSON_Value answer;
      ASSERT_EQ(commit(backup_set(s, pool_), &answer), 201) << s.uuid << " " << answer.dump();
    }
  }

  // A chain of web01 (full and two incrementals), a full set of app01 on the same CVM, and a full
  // set of a VM also called web01 with the same id on a CVM no longer registered.
  std::vector<Set_Spec> specs() const {
    return {
        {"full-1", "", "", cvm_, "1", "cvk01", "101", "web01", t0, 8589934592},
        {"inc-1", "full-1", "full-1", cvm_, "1", "cvk01", "101", "web01", t0 + 3600, 1572864},
        {"inc-2", "inc-1", "full-1", cvm_, "1", "cvk01", "101", "web01", t0 + 7200, 512},
        {"app-1", "", "", cvm_, "2", "cvk02", "201", "app01", t0 + 1800, 1048576},
        {"gone-1", "", "", "gone-cvm", "1", "cvk01", "101", "web01", t0 + 60, 2048},
    };
  }

  std::string cvm_, pool_;
};

TEST_F(Catalog_Sets, ListShowsNewestFirstWithTheFullSetOfEachChain) {
  JSON_Value rows = cli_json({"sets", "list"});
  ASSERT_EQ(uuids(rows), (std::vector<std::string>{"inc-2", "inc-1", "app-1", "gone-1", "full-1"}));
  EXPECT_EQ(rows[0]["chain"], (JSON_Value{"full-1", "inc-1", "inc-2"}));
  EXPECT_EQ(rows[0].value("set_size", 0), 512);
  EXPECT_EQ(rows[0].value("storage_size", 0), 256);

  Run_Result r = stack_.cli({"sets", "list"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto table = read_table(r.out);
  ASSERT_EQ(table.size(), 6u) << r.out;
  EXPECT_EQ(table[0], (Row{"UUID", "TIME", "TYPE", "VM", "HOST", "SIZE", "FULL SET"}));
  EXPECT_EQ(table[1], (Row{"inc-2", local_time(t0 + 7200), "incremental", "web01", "cvk01", "512 B",
                           "full-1"}));
  EXPECT_EQ(table[2], (Row{"inc-1", local_time(t0 + 3600), "incremental", "web01", "cvk01",
                           "1.5 MiB", "full-1"}));
  EXPECT_EQ(table[3],
            (Row{"app-1", local_time(t0 + 1800), "full", "app01", "cvk02", "1.0 MiB", "app-1"}));
  EXPECT_EQ(table[4],
            (Row{"gone-1", local_time(t0 + 60), "full", "web01", "cvk01", "2.0 KiB", "gone-1"}));
  EXPECT_EQ(table[5],
            (Row{"full-1", local_time(t0), "full", "web01", "cvk01", "8.0 GiB", "full-1"}));
}

TEST_F(Catalog_Sets, FiltersTakeIdsOrNamesAndCombine) {
  using List = std::vector<std::string>;
  struct Case {
    List args;
    List expected;
  } cases[] = {
      {{"--vm", "web01"}, {"inc-2", "inc-1", "gone-1", "full-1"}},
      {{"--vm", "201"}, {"app-1"}},
      {{"--host", "cvk02"}, {"app-1"}},
      {{"--host", "1"}, {"inc-2", "inc-1", "gone-1", "full-1"}},
      {{"--cvm", "lab"}, {"inc-2", "inc-1", "app-1", "full-1"}},
      {{"--cvm", cvm_}, {"inc-2", "inc-1", "app-1", "full-1"}},
      {{"--cvm", "lab", "--vm", "web01"}, {"inc-2", "inc-1", "full-1"}},
      {{"--cvm", "lab", "--host", "cvk01", "--vm", "201"}, {}},
      // The sets of a CVM removed from the registry stay reachable by its uuid.
      {{"--cvm", "gone-cvm"}, {"gone-1"}},
      {{"--vm", "db01"}, {}},
  };
  for (const auto& c : cases) {
    List args = {"sets", "list"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    EXPECT_EQ(uuids(cli_json(args)), c.expected) << args.back();
  }
}

TEST_F(Catalog_Sets, ShowGivesEveryFieldTheDisksAndThePieces) {
  JSON_Value committed = backup_set(specs()[1], pool_);
  JSON_Value shown = cli_json({"sets", "show", "inc-1"});
  ASSERT_TRUE(shown.is_object()) << shown.dump();
  EXPECT_EQ(shown["chain"], (JSON_Value{"full-1", "inc-1"}));
  EXPECT_TRUE(shown["committed"].is_number_integer());
  shown.erase("chain");
  shown.erase("committed");
  EXPECT_EQ(shown, committed);

  Run_Result r = stack_.cli({"sets", "show", "inc-1"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string fields = r.out.substr(0, r.out.find("\n\n"));
  auto lines = read_table(fields);
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
  EXPECT_EQ(by_key["base:"], "full-1");
  EXPECT_EQ(by_key["vm_config_path:"], "/cvk01/web01/inc-1.json");

  // Then a table per list of records: disks, pieces, storages.
  std::size_t disks = r.out.find("\n\nvm_disks:\n"), pieces = r.out.find("\n\npieces:\n");
  EXPECT_LT(disks, pieces) << r.out;
  EXPECT_LT(pieces, r.out.find("\n\nstorages:\n")) << r.out;
  auto section = [&](const std::string& name) {
    std::size_t at = r.out.find("\n\n" + name + ":\n");
    EXPECT_NE(at, std::string::npos) << name << "\n" << r.out;
    if (at == std::string::npos)
      return std::vector<Row>{};
    at += name.size() + 4;
    return read_table(r.out.substr(at, r.out.find("\n\n", at) - at));
  };
  EXPECT_EQ(section("vm_disks"),
            (std::vector<Row>{{"FORMAT", "PATH", "SIZE"},
                              {"qcow2", "/vms/images/web01-a.qcow2", "8589934592"},
                              {"raw", "/vms/images/web01-b.raw", "2147483648"}}));
  EXPECT_EQ(section("pieces"),
            (std::vector<Row>{{"OBJECT", "PATH", "SIZE"},
                              {"", "/config/inc-1.json", "0"},
                              {"/vms/images/web01-a.qcow2", "/chunk-inc-1-0", "1572864"},
                              {"/vms/images/web01-b.raw", "/chunk-inc-1-1", "0"}}));
  EXPECT_EQ(section("storages"),
            (std::vector<Row>{{"EXTRA", "POOL UUID", "SIZE"},
                              {R"({"code_name":"reborn"})", pool_, "786432"}}));
}

TEST_F(Catalog_Sets, ASetWhoseBaseIsMissingIsRefusedAtCommit) {
  Set_Spec orphan = {"inc-x", "no-such-set", "full-1", cvm_,      "1",
                     "cvk01", "101",         "web01",  t0 + 9000, 4096};
  JSON_Value answer;
  EXPECT_EQ(commit(backup_set(orphan, pool_), &answer), 400);
  EXPECT_TRUE(contains(answer.value("error", ""), "no-such-set")) << answer.dump();
  // A base of another CVM's resource is no base either.
  Set_Spec crossed = {"inc-y", "gone-1", "gone-1", cvm_,      "1",
                      "cvk01", "101",    "web01",  t0 + 9000, 4096};
  EXPECT_EQ(commit(backup_set(crossed, pool_), &answer), 400);

  EXPECT_EQ(uuids(cli_json({"sets", "list", "--vm", "web01"})),
            (std::vector<std::string>{"inc-2", "inc-1", "gone-1", "full-1"}));
  Run_Result r = stack_.cli({"sets", "show", "inc-x"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_TRUE(contains(r.err, "brimlet: backup server answered 404: no backup set 'inc-x'"))
      << r.err;
}

TEST_F(Catalog_Sets, CommandErrorsAreOneClearLine) {
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string message;
  } cases[] = {
      {{"sets", "list", "--cvm", "nosuch"}, 1, "no registered CVM 'nosuch'"},
      {{"sets", "list", "--vm"}, 2, "--vm: 1 required TEXT missing"},
      {{"sets", "list", "--host", "--vm", "web01"}, 2, "--host: needs a value"},
      {{"sets", "list", "web01"}, 2, "The following argument was not expected: web01"},
      {{"sets", "show"}, 2, "SET is required"},
      {{"sets", "show", "inc-1", "inc-2"}, 2, "The following argument was not expected: inc-2"},
      {{"sets", "drop", "inc-1"}, 2, "unknown command 'sets drop'"},
  };
  for (const auto& c : cases) {
    Run_Result r = stack_.cli(c.args);
    EXPECT_EQ(r.exit_code, c.exit_code) << c.args.back() << r.err;
    EXPECT_EQ(r.err.substr(0, r.err.find('\n')), "brimlet: " + c.message);
    EXPECT_EQ(r.out, "") << c.args.back();
  }
}

}  // namespace
