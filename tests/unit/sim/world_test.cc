#include "sim/cas/world.h"
#include "sim/cas/cvm_api.h"
#include "sim/cas/request_log.h"
#include "sim/cas/router.h"
#include "sim/cas/simulator.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace cas_sim;

bool load_text(const std::string& text, World& world, std::string& error) {
  JSON_Value json;
  return parse_json_text(text, json, error) && load_world(json, "world", world, error);
}

TEST(World, ShippedDefaultLoadsAndRoundTrips) {
  World world;
  std::string error;
  ASSERT_TRUE(load_world_file(std::string(BRIMLET_SOURCE_DIR) + "/sim/cas/worlds/default.json",
                              world, error))
      << error;
  EXPECT_EQ(world.operators.size(), 2u);
  EXPECT_EQ(world.sections.at("hosts").size(), 2u);  // not modelled yet, so kept as given

  world.faults.push_back(
      Fault{7, "/cas/casrs/vm", "GET", 2, Fault::Kind::STATUS, 500, "1001", "内部错误", ""});
  World again;
  ASSERT_TRUE(load_world(dump_world(world), "dump", again, error)) << error;
  again.faults[0].id = 7;  // ids are the simulator's to give
  EXPECT_EQ(dump_world(again), dump_world(world));
}

TEST(World, RefusesBadInputNamingTheKey) {
  const std::string op = R"({"id": 1, "login_name": "a", "password": "p", "group_id": 1)";
  auto ops = [](const std::string& members) { return R"({"operators": [)" + members + "]}"; };
  auto with = [](const std::string& key, const std::string& value) {
    return "{\"" + key + "\": " + value + ", \"operators\": []}";
  };
  auto fault = [&](const std::string& fields) { return with("faults", "[{" + fields + "}]"); };
  struct Case {
    std::string text;
    const char* error;  // part of the message
  };
  const Case cases[] = {
      {"{\"operators\": [", "parse error"},
      {std::string(100000, '['), "nested deeper than 64"},
      {"{}", "missing key 'operators'"},
      {ops(R"({"id": "1", "login_name": "a", "password": "p", "group_id": 1})"),
       "operators[0]: 'id' is expected as integer"},
      {ops(R"({"id": 1, "login_name": "", "password": "p", "group_id": 1})"),
       "operators[0]: 'login_name' is expected as non-empty string"},
      {ops(op + R"(, "role": "x"})"), "operators[0]: unknown key 'role'"},
      {ops(op + "}, " + R"({"id": 2, "login_name": "a", "password": "p", "group_id": 1})"),
       "operators[1]: login name 'a' appears twice"},
      {with("realm", R"("a\"b")"), "'realm' is expected as non-empty string without '\"'"},
      {with("knobs", R"({"latency_ms": -1})"),
       "knobs: 'latency_ms' is expected as integer from 0 to 60000"},
      {with("knobs", R"({"latency": 5})"), "knobs: unknown key 'latency'"},
      {fault(R"("path": "x", "kind": "close")"),
       "faults[0]: 'path' is expected as string starting with '/'"},
      {fault(R"("path": "/x", "status": 99)"),
       "faults[0]: 'status' is expected as HTTP status from 100 to 599"},
      {fault(R"("path": "/x", "kind": "empty", "method": "get")"),
       "'method' is expected as GET, POST, PUT, DELETE, HEAD or PATCH"},
      {fault(R"("path": "/x", "status": 500, "error_message": "a\r\nSet-Cookie: x")"),
       "'error_message' is expected as string without control characters"},
  };
  for (const Case& c : cases) {
    World world;
    world.version = "untouched";
    std::string error;
    EXPECT_FALSE(load_text(c.text, world, error)) << c.text.substr(0, 200);
    EXPECT_NE(error.find(c.error), std::string::npos) << c.text.substr(0, 200) << "\n" << error;
    EXPECT_EQ(world.version, "untouched");
  }
}

TEST(World, DefaultsAndKnobChangesAllOrNothing) {
  World world;
  std::string error;
  ASSERT_TRUE(load_text(R"({"operators": [
      {"id": 1, "login_name": "admin", "password": "pw", "group_id": 1}]})",
                        world, error))
      << error;
  EXPECT_EQ(world.realm, "VMC RESTful Web Services");
  EXPECT_EQ(world.knobs.nonce_lifetime_seconds, 300);
  EXPECT_EQ(world.operators[0].name, "admin");

  EXPECT_FALSE(
      apply_knobs(JSON_Value::parse(R"({"latency_ms": 5, "operators": 3})"), world, error));
  EXPECT_NE(error.find("'operators' is expected as array"), std::string::npos) << error;
  EXPECT_EQ(world.knobs.latency_ms, 0);
  EXPECT_FALSE(apply_knobs(JSON_Value::parse(R"({"realm": "x"})"), world, error));
  EXPECT_NE(error.find("unknown key 'realm'"), std::string::npos) << error;
}

TEST(Simulator, FaultsHitInOrderAndRunOut) {
  Simulator sim(World{}, "");
  Fault twice;
  twice.path = "/cas/casrs/vm";
  twice.method = "GET";
  twice.count = 2;
  Fault always;
  always.path = "/cas/casrs/";
  std::int64_t first = sim.add_fault(twice);
  std::int64_t second = sim.add_fault(always);

  Fault hit;
  EXPECT_FALSE(sim.take_fault("GET", "/sim/world", hit));
  ASSERT_TRUE(sim.take_fault("POST", "/cas/casrs/vm/1", hit));  // the method filter skips the first
  EXPECT_EQ(hit.id, second);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(sim.take_fault("GET", "/cas/casrs/vm/vmList", hit));
    EXPECT_EQ(hit.id, i < 2 ? first : second) << i;
  }
  EXPECT_EQ(sim.remove_faults(first), 0u);  // already run out
  EXPECT_EQ(sim.remove_faults(0), 1u);
  EXPECT_FALSE(sim.take_fault("GET", "/cas/casrs/vm/vmList", hit));
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
  EXPECT_EQ(std::to_string(all[0].seq) + all[0].target, "3/t2");
  EXPECT_EQ(all[2].time.size(), 24u) << all[2].time;  // "2026-01-31T12:00:00.123Z"
  EXPECT_EQ(log.since(4).size(), 1u);
  EXPECT_EQ(log.clear(), 3u);
  log.add(Request_Record{});
  all = log.since(0);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].seq, 6u);
}

TEST(Path_Router, MatchesPatternsAndTellsMissingPathFromMissingMethod) {
  Path_Router<int> router;
  router.add(HTTP_Method::GET, "/cas/casrs/vm/{id}", 1);
  router.add(HTTP_Method::GET, "/cas/casrs/vm/vmList", 2);
  router.add(HTTP_Method::PUT, "/cas/casrs/vm/{id}/snapshot/{name}", 3);
  auto route = [&](HTTP_Method method, const char* path) -> std::string {
    const int* handler = nullptr;
    Path_Params params;
    auto match = router.find(method, path, handler, params);
    if (match != Path_Router<int>::Match::FOUND)
      return match == Path_Router<int>::Match::NO_PATH ? "no path" : "no method";
    std::string out = std::to_string(*handler);
    for (const auto& param : params)
      out += " " + param.first + "=" + param.second;
    return out;
  };
  EXPECT_EQ(route(HTTP_Method::GET, "/cas/casrs/vm/12"), "1 id=12");
  EXPECT_EQ(route(HTTP_Method::GET, "/cas/casrs/vm/vmList"), "2");  // literal beats parameter
  EXPECT_EQ(route(HTTP_Method::PUT, "/cas/casrs/vm/1/snapshot/s"), "3 id=1 name=s");
  EXPECT_EQ(route(HTTP_Method::GET, "/cas/casrs/vm/1/snapshot/s"), "no method");
  EXPECT_EQ(route(HTTP_Method::GET, "/cas/casrs/vm/vmList/"), "no path");
  EXPECT_EQ(route(HTTP_Method::GET, "/cas/casrs/vm/"), "no path");  // a parameter is never empty
}

TEST(Cas_Answers, AnEmptyListIsAnAnswerWithoutBody) {
  EXPECT_TRUE(cas_list("operator", {}).is_null());
}

}  // namespace
