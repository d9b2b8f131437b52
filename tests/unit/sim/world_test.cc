#include "sim/cas/world.h"
#include "sim/cas/cvm_api.h"
#include "sim/cas/request_log.h"
#include "sim/cas/router.h"
#include "sim/cas/simulator.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>

namespace {

using namespace cas_sim;

bool load_text(const std::string& text, World& world, std::string& error) {
  JSON_Value json;
  return parse_json_text(text, json, error) && load_world(json, "world", world, error);
}

World shipped(const char* name) {
  World world;
  std::string error;
  EXPECT_TRUE(
      load_world_file(std::string(BRIMLET_SOURCE_DIR) + "/sim/cas/worlds/" + name, world, error))
      << error;
  return world;
}

std::vector<const VM*> all_vms(const World& world) {
  std::vector<const VM*> vms;
  for (const Host& host : world.hosts)
    for (const VM& vm : host.vms)
      vms.push_back(&vm);
  return vms;
}

TEST(World, ShippedDefaultLoadsAndRoundTrips) {
  World world = shipped("default.json");
  std::string error;
  // What the demo relies on: each CVK has an address for management and backup traffic.
  ASSERT_EQ(world.hosts.size(), 2u);
  for (const Host& host : world.hosts) {
    unsigned types = 0;
    for (const VSwitch& vswitch : host.vswitches)
      types |= vswitch.address.empty() ? 0 : vswitch.types;
    EXPECT_EQ(types & (VSwitch::MANAGEMENT | VSwitch::BACKUP),
              unsigned(VSwitch::MANAGEMENT | VSwitch::BACKUP))
        << host.name;
  }
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

TEST(World, InventoryRefusesBadInputNamingTheKey) {
  const JSON_Value base = JSON_Value::parse(R"({
      "operators": [{"id": 1, "login_name": "a", "password": "p", "group_id": 1}],
      "pools": [{"name": "p1", "path": "/p", "capacity_mib": 100}],
      "port_profiles": [{"id": 1, "name": "P"}],
      "hosts": [{"id": 1, "name": "h1", "ip": "10.0.0.1",
                 "vswitches": [{"id": 1, "name": "vs0", "types": ["backup"]}],
                 "vms": [{"id": 11, "uuid": "u11", "name": "v11", "cpus": 4, "cpu_sockets": 2,
                          "disks": [{"device_name": "vda", "size_mib": 10, "pool": "p1",
                                     "path": "/p/v11"}],
                          "networks": [{"mac": "m", "vswitch": "vs0", "profile": "P"}],
                          "snapshots": [{"name": "s1", "snapshots": [{"name": "s2"}]}]}]}]})");
  World world;
  std::string error;
  ASSERT_TRUE(load_world(base, "world", world, error)) << error;

  struct Case {
    const char* pointer;  // where the base is changed
    const char* value;
    const char* error;  // part of the message
  };
  const Case cases[] = {
      {"/vswitches", "[]", "unknown key 'vswitches'"},
      {"/hosts/1", R"({"id": 1, "name": "h2", "ip": "x"})", "hosts[1]: host id 1 appears twice"},
      {"/hosts/0/status", R"("3")", R"('status' is expected as "0", "1" or "2")"},
      {"/hosts/1",
       R"({"id": 2, "name": "h2", "ip": "x", "vms": [{"id": 11, "uuid": "u", "name": "v"}]})",
       "hosts[1]: vms[0]: VM id 11 appears twice"},
      {"/hosts/0/vms/0/status", R"("shutoff")",
       "'status' is expected as running, shutOff or paused"},
      {"/hosts/0/vms/0/cpus", "3", "'cpus' is expected as a multiple of cpu_sockets"},
      {"/hosts/0/vms/0/disks/0/pool", R"("p2")",
       "disks[0]: 'pool' is expected as the name of a pool"},
      {"/hosts/0/vms/0/disks/0/allocation_mib", "11",
       "'allocation_mib' is expected as integer from 0 to 10"},
      {"/hosts/0/vms/0/disks/0/format", R"("vmdk")", "'format' is expected as raw or qcow2"},
      {"/hosts/0/vms/0/disks/0/content", R"({"pattern": "noise"})",
       "disks[0]: content: 'pattern' is expected as one of empty, random, text, zeros_and_random"},
      {"/hosts/0/vms/0/disks/0/content", R"({"pattern": "text", "allocated_percent": 101})",
       "content: 'allocated_percent' is expected as integer from 0 to 100"},
      {"/hosts/0/vms/0/disks/1",
       R"({"device_name": "vda", "size_mib": 1, "pool": "p1", "path": "/p/x"})",
       "vms[0]: disks[1]: device name 'vda' appears twice"},
      {"/hosts/0/vms/0/networks/0/vswitch", R"("vs9")",
       "networks[0]: 'vswitch' is expected as the name of a vSwitch of the VM's host"},
      {"/hosts/0/vms/0/networks/0/profile", R"("Q")",
       "'profile' is expected as the name of a port profile"},
      {"/hosts/0/vms/0/snapshots/0/snapshots/0/name", R"("s1")",
       "snapshots[0]: snapshots[0]: snapshot name 's1' appears twice"},
      {"/hosts/0/vms/0/capabilities", R"({"cbt": "true"})",
       "capabilities: 'cbt' is expected as boolean"},
      {"/hosts/0/vswitches/0/types/1", R"("trunk")",
       "vswitches[0]: 'types' is expected as array of management, service, storage, backup"},
      {"/pools/1", R"({"name": "p1", "path": "/q", "capacity_mib": 1})",
       "pools[1]: pool name 'p1' appears twice"},
      {"/pools/0/volumes", R"([{"name": "x", "size_mib": -1}])",
       "pools[0]: volumes[0]: 'size_mib' is expected as number from 0"},
      {"/port_profiles/0/vlan_id", "5000", "'vlan_id' is expected as integer from 1 to 4094"},
      {"/generate", R"({"hosts": 0, "vms": 1})",
       "generate: 'hosts' is expected as integer from 1 to 10000"},
  };
  for (const Case& c : cases) {
    JSON_Value json = base;
    json[JSON_Value::json_pointer(c.pointer)] = JSON_Value::parse(c.value);
    world.hosts.clear();
    EXPECT_FALSE(load_world(json, "world", world, error)) << c.pointer;
    EXPECT_NE(error.find(c.error), std::string::npos) << c.pointer << "\n" << error;
    EXPECT_TRUE(world.hosts.empty()) << c.pointer;
  }
}

TEST(World, GeneratesTheSameLargeWorldForTheSameSeed) {
  // The listing benchmark's world: distinct names, titles and uuids, every status, some without
  // an OS.
  World large = shipped("large.json");
  std::vector<const VM*> vms = all_vms(large);
  ASSERT_EQ(vms.size(), 10000u);
  ASSERT_EQ(large.hosts.size(), 50u);
  EXPECT_EQ(large.hosts[0].vms.size(), 200u);
  EXPECT_EQ(large.hosts[0].name + " " + vms[0]->name, "cvk001 vm00001");
  std::set<std::string> titles, uuids, statuses;
  int without_os = 0;
  for (const VM* vm : vms) {
    titles.insert(vm->title);
    uuids.insert(vm->uuid);
    statuses.insert(vm->status);
    without_os += vm->os.empty();
    EXPECT_TRUE(!vm->disks.empty() && vm->disks.size() <= 3) << vm->name;
  }
  EXPECT_EQ(titles.size() + uuids.size(), 2 * vms.size());
  EXPECT_EQ(statuses.size(), 3u);
  EXPECT_TRUE(without_os > 0 && without_os < 2000) << without_os;

  // Generated ids follow the file's own; a dump holds the generated inventory and loads again.
  const std::string text = R"({"operators": [], "hosts": [{"id": 7, "name": "own", "ip": "x",
      "vms": [{"id": 70, "uuid": "u", "name": "own"}]}], "generate": {"hosts": 2, "vms": 3,
      "seed": SEED}})";
  auto with_seed = [&](const char* seed) {
    std::string t = text;
    return t.replace(t.find("SEED"), 4, seed);
  };
  World world, same, again, other;
  std::string error;
  ASSERT_TRUE(load_text(with_seed("5"), world, error)) << error;
  ASSERT_TRUE(load_text(with_seed("5"), same, error)) << error;
  EXPECT_EQ(dump_world(same), dump_world(world));
  ASSERT_EQ(world.hosts.size(), 3u);
  EXPECT_EQ(world.hosts[1].id, 8);
  EXPECT_EQ(world.hosts[2].id, 9);
  ASSERT_EQ(world.hosts[1].vms.size(), 2u);
  EXPECT_EQ(world.hosts[1].vms[1].id, 73);
  ASSERT_EQ(world.pools.size(), 1u);  // added for the generated disks
  EXPECT_EQ(world.hosts[1].vms[0].disks[0].pool, world.pools[0].name);
  ASSERT_TRUE(load_world(dump_world(world), "dump", again, error)) << error;
  EXPECT_EQ(dump_world(again), dump_world(world));
  ASSERT_TRUE(load_text(with_seed("6"), other, error)) << error;
  EXPECT_NE(dump_world(other), dump_world(world));
}

TEST(World, KnobChangesAllOrNothing) {
  World world;
  std::string error;
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

TEST(Cas_Answers, ListsAndSizesTakeCasForms) {
  EXPECT_TRUE(cas_list("operator", {}).is_null());
  EXPECT_EQ(cas_list("host", {{{"id", "1"}}}), JSON_Value::parse(R"({"host": {"id": "1"}})"));
  EXPECT_EQ(cas_members({1, 2}), JSON_Value::parse("[1, 2]"));
  const std::pair<double, const char*> sizes[] = {
      {1.5, "1.5"}, {512, "512"}, {0, "0"}, {4482.25, "4482.25"}, {0.000001, "0.000001"}};
  for (const auto& size : sizes)
    EXPECT_EQ(cas_mib(size.first), size.second);
}

TEST(Task_Engine, CompletesAfterItsDurationWithItsOutcome) {
  using namespace std::chrono_literals;
  Task_Engine engine;
  const Task_Engine::Clock::time_point t0{};
  std::string id = engine.start(1000ms, {"1", "no space left", "42"}, t0);
  Task_Progress progress;
  // The outcome is not told before completion.
  const std::pair<std::chrono::milliseconds, const char*> seen[] = {
      {0ms, "0% 0"}, {999ms, "98% 0"}, {1000ms, "100% done 1no space left42"}};
  for (const auto& at : seen) {
    ASSERT_TRUE(engine.progress(id, progress, t0 + at.first));
    EXPECT_EQ(std::to_string(progress.percent) + "% " + (progress.completed ? "done " : "") +
                  progress.outcome.result + progress.outcome.fail_msg + progress.outcome.target_id,
              at.second);
  }

  std::string instant = engine.start(0ms, {}, t0);
  EXPECT_NE(instant, id);
  ASSERT_TRUE(engine.progress(instant, progress, t0));
  EXPECT_TRUE(progress.completed);
  EXPECT_EQ(progress.outcome.result, "0");
  EXPECT_FALSE(engine.progress("999", progress, t0));
}

}  // namespace
