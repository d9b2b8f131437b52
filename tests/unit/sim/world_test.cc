#include "sim/cas/world.h"
#include "sim/cas/cvm_api.h"
#include "sim/cas/request_log.h"
#include "sim/cas/router.h"
#include "sim/cas/simulator.h"

#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace cas_sim;

const std::string kDefaultWorld = std::string(BRIMLET_SOURCE_DIR) + "/sim/cas/worlds/default.json";

const char kMinimal[] = R"({"operators": [
  {"id": 1, "login_name": "admin", "password": "pw", "group_id": 1}]})";

bool load_text(const std::string& text, World& world, std::string& error) {
  JSON_Value json;
  if (!parse_json_text(text, json, error))
    return false;
  return load_world(json, "world", world, error);
}

TEST(World, LoadsTheShippedDefault) {
  World world;
  std::string error;
  ASSERT_TRUE(load_world_file(kDefaultWorld, world, error)) << error;
  EXPECT_EQ(world.version, "H3C CAS E0750");
  EXPECT_EQ(world.realm, "VMC RESTful Web Services");
  ASSERT_EQ(world.operators.size(), 2u);
  EXPECT_EQ(world.operators[0].login_name, "admin");
  EXPECT_EQ(world.operators[0].group_id, 1);
  EXPECT_EQ(world.operators[1].login_name, "auditor");
  EXPECT_NE(world.operators[1].group_id, 1);
  // Sections not modelled yet stay as given: two CVKs, each with VMs of several disks.
  const JSON_Value& hosts = world.sections.at("hosts");
  ASSERT_EQ(hosts.size(), 2u);
  for (const JSON_Value& host : hosts)
    for (const JSON_Value& vm : host.at("vms"))
      EXPECT_GE(vm.at("disks").size(), 2u);
}

TEST(World, DefaultsAndRoundTrip) {
  World world;
  std::string error;
  ASSERT_TRUE(load_text(kMinimal, world, error)) << error;
  EXPECT_EQ(world.version, "H3C CAS E0750");
  EXPECT_EQ(world.knobs.nonce_lifetime_seconds, 300);
  EXPECT_EQ(world.operators[0].name, "admin");

  World full;
  ASSERT_TRUE(load_world_file(kDefaultWorld, full, error)) << error;
  full.faults.push_back(
      Fault{7, "/cas/casrs/vm", "GET", 2, Fault::Kind::STATUS, 500, "1001", "内部错误", ""});
  World again;
  ASSERT_TRUE(load_world(dump_world(full), "dump", again, error)) << error;
  again.faults[0].id = 7;  // ids are the simulator's to give
  EXPECT_EQ(dump_world(again), dump_world(full));
}

TEST(World, RefusesBadInputNamingTheKey) {
  const std::string deep(100000, '[');
  struct Case {
    std::string text;
    const char* error;  // part of the message
  };
  const Case cases[] = {
      {"", "parse error"},
      {"{\"operators\": [", "parse error"},
      {"{\"version\": \"\xff\", \"operators\": []}", "parse error"},
      {deep, "nested deeper than 64"},
      {"[]", "expected an object, got array"},
      {"{}", "missing key 'operators'"},
      {R"({"operators": {}})", "'operators' is expected as array"},
      {R"({"operators": [7]})", "operators[0]: expected an object, got integer"},
      {R"({"operators": [{"id": "1", "login_name": "a", "password": "p", "group_id": 1}]})",
       "operators[0]: 'id' is expected as integer"},
      {R"({"operators": [{"id": 1, "login_name": "a", "group_id": 1}]})",
       "operators[0]: missing key 'password'"},
      {R"({"operators": [{"id": 1, "login_name": "", "password": "p", "group_id": 1}]})",
       "'login_name' is expected as non-empty string"},
      {R"({"operators": [{"id": 1, "login_name": "a", "password": "p", "group_id": 1,
           "role": "x"}]})",
       "operators[0]: unknown key 'role'"},
      {R"({"operators": [{"id": 1, "login_name": "a", "password": "p", "group_id": 1},
                         {"id": 2, "login_name": "a", "password": "p", "group_id": 1}]})",
       "operators[1]: login name 'a' appears twice"},
      {R"({"operators": [{"id": 1, "login_name": "a", "password": "p",
           "group_id": 99999999999999999999}]})",
       "'group_id' is expected as integer"},
      {R"({"version": 750, "operators": []})", "'version' is expected as string"},
      {R"({"realm": "a\"b", "operators": []})", "'realm' is expected as non-empty string"},
      {R"({"knobs": [], "operators": []})", "knobs: expected an object, got array"},
      {R"({"knobs": {"latency_ms": -1}, "operators": []})",
       "knobs: 'latency_ms' is expected as integer from 0 to 60000"},
      {R"({"knobs": {"latency_ms": 1e30}, "operators": []})",
       "knobs: 'latency_ms' is expected as integer"},
      {R"({"knobs": {"nonce_lifetime_seconds": 0}, "operators": []})",
       "'nonce_lifetime_seconds' is expected as integer from 1 to 86400"},
      {R"({"knobs": {"latency": 5}, "operators": []})", "knobs: unknown key 'latency'"},
      {R"({"faults": {}, "operators": []})", "'faults' is expected as array"},
      {R"({"faults": [{"status": 500}], "operators": []})", "faults[0]: missing key 'path'"},
      {R"({"faults": [{"path": "/x"}], "operators": []})", "faults[0]: missing key 'status'"},
      {R"({"faults": [{"path": "/x", "status": 99}], "operators": []})",
       "'status' is expected as HTTP status from 100 to 599"},
      {R"({"faults": [{"path": "/x", "kind": "explode"}], "operators": []})",
       "'kind' is expected as one of"},
      {R"({"faults": [{"path": "x", "kind": "close"}], "operators": []})",
       "'path' is expected as string starting with '/'"},
      {R"({"faults": [{"path": "/x", "kind": "empty", "method": "get"}], "operators": []})",
       "'method' is expected as GET"},
      {R"({"faults": [{"path": "/x", "kind": "empty", "count": 0}], "operators": []})",
       "'count' is expected as positive integer"},
      {R"({"faults": [{"path": "/x", "status": 500, "error_message": "a\r\nSet-Cookie: x"}],
           "operators": []})",
       "'error_message' is expected as string without control characters"},
  };
  for (const Case& c : cases) {
    World world;
    world.version = "untouched";
    std::string error;
    EXPECT_FALSE(load_text(c.text, world, error)) << c.text.substr(0, 200);
    EXPECT_NE(error.find(c.error), std::string::npos)
        << c.text.substr(0, 200) << "\n  gave: " << error;
    EXPECT_EQ(world.version, "untouched");
  }
}

TEST(World, FileErrors) {
  Temp_Dir dir;
  World world;
  std::string error;
  EXPECT_FALSE(load_world_file(dir.file("absent.json"), world, error));
  EXPECT_NE(error.find("absent.json"), std::string::npos) << error;
  write_text_file(dir.file("bad.json"), "{\n  \"operators\": [,]\n}\n");
  EXPECT_FALSE(load_world_file(dir.file("bad.json"), world, error));
  EXPECT_NE(error.find("line 2"), std::string::npos) << error;
}

TEST(World, KnobChangesApplyAllOrNothing) {
  World world;
  std::string error;
  ASSERT_TRUE(load_text(kMinimal, world, error)) << error;

  EXPECT_FALSE(
      apply_knobs(JSON_Value::parse(R"({"latency_ms": 5, "operators": 3})"), world, error));
  EXPECT_NE(error.find("'operators' is expected as array"), std::string::npos) << error;
  EXPECT_EQ(world.knobs.latency_ms, 0);
  EXPECT_FALSE(apply_knobs(JSON_Value::parse(R"({"realm": "x"})"), world, error));
  EXPECT_NE(error.find("unknown key 'realm'"), std::string::npos) << error;
  EXPECT_FALSE(apply_knobs(JSON_Value::parse("[]"), world, error));

  ASSERT_TRUE(apply_knobs(JSON_Value::parse(R"({"latency_ms": 5, "version": "H3C CAS E0810",
      "operators": [{"id": 4, "login_name": "ops", "password": "x", "group_id": 2}]})"),
                          world, error))
      << error;
  EXPECT_EQ(world.knobs.latency_ms, 5);
  EXPECT_EQ(world.knobs.nonce_lifetime_seconds, 300);
  EXPECT_EQ(world.version, "H3C CAS E0810");
  ASSERT_EQ(world.operators.size(), 1u);
  EXPECT_EQ(world.operators[0].login_name, "ops");
}

TEST(Simulator, FaultsHitInOrderAndRunOut) {
  World world;
  std::string error;
  ASSERT_TRUE(load_text(kMinimal, world, error)) << error;
  Simulator sim(std::move(world), "");
  Fault twice;
  twice.path = "/cas/casrs/vm";
  twice.method = "GET";
  twice.count = 2;
  twice.status = 409;
  Fault always;
  always.path = "/cas/casrs/";
  always.kind = Fault::Kind::EMPTY;
  std::int64_t first = sim.add_fault(twice);
  std::int64_t second = sim.add_fault(always);
  EXPECT_NE(first, second);

  Fault hit;
  EXPECT_FALSE(sim.take_fault("GET", "/sim/world", hit));
  ASSERT_TRUE(sim.take_fault("POST", "/cas/casrs/vm/1", hit));  // method filter skips the first
  EXPECT_EQ(hit.id, second);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(sim.take_fault("GET", "/cas/casrs/vm/vmList", hit));
    EXPECT_EQ(hit.id, first);
    EXPECT_EQ(hit.status, 409);
  }
  ASSERT_TRUE(sim.take_fault("GET", "/cas/casrs/vm/vmList", hit));
  EXPECT_EQ(hit.id, second);
  ASSERT_EQ(sim.faults().size(), 1u);

  EXPECT_EQ(sim.remove_faults(first), 0u);
  EXPECT_EQ(sim.remove_faults(0), 1u);
  EXPECT_FALSE(sim.take_fault("GET", "/cas/casrs/vm/vmList", hit));
}

TEST(Simulator, PasswordsFollowOperatorChanges) {
  World world;
  std::string error;
  ASSERT_TRUE(load_text(kMinimal, world, error)) << error;
  Simulator sim(std::move(world), "");
  std::string password;
  ASSERT_TRUE(sim.password_of("admin", password));
  EXPECT_EQ(password, "pw");
  EXPECT_FALSE(sim.password_of("Admin", password));
  ASSERT_TRUE(sim.change_knobs(JSON_Value::parse(R"({"operators": [
      {"id": 1, "login_name": "ops", "password": "new", "group_id": 1}]})"),
                               error))
      << error;
  EXPECT_FALSE(sim.password_of("admin", password));
  ASSERT_TRUE(sim.password_of("ops", password));
  EXPECT_EQ(password, "new");
}

TEST(Request_Log, KeepsTheNewestAndNumbersForever) {
  Request_Log log(3);
  for (int i = 0; i < 5; ++i) {
    Request_Record record;
    record.target = "/t" + std::to_string(i);
    log.add(record);
  }
  std::vector<Request_Record> all = log.since(0);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].seq, 3u);
  EXPECT_EQ(all[0].target, "/t2");
  EXPECT_EQ(all[2].seq, 5u);
  EXPECT_EQ(all[2].time.size(), 24u) << all[2].time;
  EXPECT_EQ(log.since(4).size(), 1u);
  EXPECT_EQ(log.since(5).size(), 0u);

  EXPECT_EQ(log.clear(), 3u);
  EXPECT_TRUE(log.since(0).empty());
  log.add(Request_Record{});
  EXPECT_EQ(log.last_seq(), 6u);
}

TEST(Path_Router, MatchesPatternsAndTellsMissingPathFromMissingMethod) {
  Path_Router<int> router;
  router.add(HTTP_Method::GET, "/cas/casrs/vm/{id}", 1);
  router.add(HTTP_Method::GET, "/cas/casrs/vm/vmList", 2);
  router.add(HTTP_Method::PUT, "/cas/casrs/vm/{id}/snapshot/{name}", 3);
  router.add(HTTP_Method::GET, "/cas/casrs/operator/operatorInfoList", 4);

  struct Case {
    HTTP_Method method;
    const char* path;
    Path_Router<int>::Match match;
    int handler;
    Path_Params params;
  };
  using M = Path_Router<int>::Match;
  const Case cases[] = {
      {HTTP_Method::GET, "/cas/casrs/vm/12", M::FOUND, 1, {{"id", "12"}}},
      {HTTP_Method::GET, "/cas/casrs/vm/vmList", M::FOUND, 2, {}},  // literal beats parameter
      {HTTP_Method::PUT,
       "/cas/casrs/vm/12/snapshot/s1",
       M::FOUND,
       3,
       {{"id", "12"}, {"name", "s1"}}},
      {HTTP_Method::GET, "/cas/casrs/vm/12/snapshot/s1", M::NO_METHOD, 0, {}},
      {HTTP_Method::DELETE, "/cas/casrs/operator/operatorInfoList", M::NO_METHOD, 0, {}},
      {HTTP_Method::GET, "/cas/casrs/operator/operatorInfoList/", M::NO_PATH, 0, {}},
      {HTTP_Method::GET, "/cas/casrs/vm/", M::NO_PATH, 0, {}},  // a parameter is never empty
      {HTTP_Method::GET, "/cas/casrs/vm", M::NO_PATH, 0, {}},
      {HTTP_Method::GET, "/cas/casrs/vm/12/x", M::NO_PATH, 0, {}},
  };
  for (const Case& c : cases) {
    const int* handler = nullptr;
    Path_Params params;
    EXPECT_EQ(router.find(c.method, c.path, handler, params), c.match) << c.path;
    if (c.match != M::FOUND)
      continue;
    ASSERT_NE(handler, nullptr);
    EXPECT_EQ(*handler, c.handler) << c.path;
    EXPECT_EQ(params, c.params) << c.path;
  }
}

TEST(Cas_Answers, ListsAndNumbersTheCasWay) {
  EXPECT_TRUE(cas_list("operator", {}).is_null());
  EXPECT_EQ(cas_list("operator", {{{"id", "1"}}}),
            JSON_Value::parse(R"({"operator": {"id": "1"}})"));
  EXPECT_EQ(cas_list("operator", {{{"id", "1"}}, {{"id", "2"}}}),
            JSON_Value::parse(R"({"operator": [{"id": "1"}, {"id": "2"}]})"));
  EXPECT_EQ(cas_number(-42), "-42");
  EXPECT_EQ(cas_number(9007199254740993), "9007199254740993");  // beyond a double's precision
}

}  // namespace
