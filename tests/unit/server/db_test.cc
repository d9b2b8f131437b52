// Schema migrations of the server database, in process.
#include "programs/server/db.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace brimlet_server;

namespace {

TEST(Database, MigratesStepByStepAndRefusesANewerSchema) {
  Temp_Dir tmp;
  const std::string path = tmp.file("a.db");
  const Migration first = {1, "CREATE TABLE t (x INTEGER)"};
  const Migration second = {2, "ALTER TABLE t ADD COLUMN y TEXT"};
  const Migration broken = {2, "ALTER TABLE t ADD COLUMN y TEXT; INSERT INTO missing VALUES (1)"};
  // ADD COLUMN fails when the column exists: a step applied twice, or half-applied, shows.
  struct Step {
    std::vector<Migration> migrations;
    bool opens;
    int version;
  } steps[] = {
      {{first}, true, 1},         {{first, broken}, false, 1},  // rolled back as a whole
      {{first, second}, true, 2}, {{first, second}, true, 2},   // applied once
      {{first}, false, 2},  // the database is newer than the program
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.migrations.back().sql);
    EXPECT_EQ(Database().open(path, s.migrations), s.opens);
    auto conn = Connection::open(path);
    ASSERT_TRUE(conn);
    EXPECT_EQ(Database::schema_version(*conn), s.version);
  }
  auto conn = Connection::open(path);
  EXPECT_TRUE(conn->prepare("INSERT INTO t (x, y) VALUES (1, 'a')").run());
}

}  // namespace
