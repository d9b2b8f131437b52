// The worlds cas-sim ships and its refusal of a world it cannot serve.
#include "sim/cas/world.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {
// The demo's world and the listing benchmark's, as shipped.
TEST(Cas_Sim_Worlds, ShippedWorldsLoadAndABadWorldFailsWithOneClearLine) {
  for (const char* name : {"default.json", "large.json"}) {
    cas_sim::World world;
    std::string error;
    EXPECT_TRUE(cas_sim::load_world_file(
        std::string(BRIMLET_SOURCE_DIR) + "/sim/cas/worlds/" + name, world, error))
        << name << ": " << error;
  }
  Temp_Dir dir;
  write_text_file(dir.file("bad.json"),
                  R"({"operators": [{"id": 1, "login_name": "admin", "group_id": 1}]})");
  Run_Result run = run_program({bin_path("cas-sim"), "--world", dir.file("bad.json")}, "", {}, 30);
  EXPECT_EQ(run.exit_code, 1) << run.err;
  EXPECT_NE(run.err.find("operators[0]: missing key 'password'"), std::string::npos) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
}
}  // namespace
