// The database layer and the master key, in process.
#include "programs/server/db.h"
#include "host/core/crypto.h"
#include "host/core/paths.h"
#include "programs/server/master_key.h"
#include "programs/server/schema.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace brimlet_server;

namespace {

int version_of(Database& db) {
  auto conn = db.acquire();
  return conn ? Database::schema_version(*conn) : -1;
}

bool table_exists(Connection& conn, const std::string& name) {
  auto st = conn.prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?");
  return st.bind(1, name).next();
}

std::int64_t count_rows(Connection& conn) {
  auto st = conn.prepare("SELECT COUNT(*) FROM t");
  return st.next() ? st.integer(0) : -1;
}

TEST(Database, MigratesOnceAndKeepsTheVersion) {
  Temp_Dir tmp;
  std::string path = tmp.file("a.db");
  {
    Database db;
    ASSERT_TRUE(db.open(path, server_schema()));
    EXPECT_EQ(version_of(db), server_schema().back().version);
    auto conn = db.acquire();
    for (const char* table : {"access_key", "setting", "cvm"})
      EXPECT_TRUE(table_exists(*conn, table)) << table;
  }
  // A second open must not apply anything again (CREATE TABLE would fail).
  Database db;
  ASSERT_TRUE(db.open(path, server_schema()));
  EXPECT_EQ(version_of(db), server_schema().back().version);
}

TEST(Database, AppliesOnlyTheNewMigrations) {
  Temp_Dir tmp;
  std::string path = tmp.file("a.db");
  std::vector<Migration> v1 = {{1, "CREATE TABLE t (x INTEGER)"}};
  std::vector<Migration> v2 = {v1[0], {2, "ALTER TABLE t ADD COLUMN y TEXT"}};
  {
    Database db;
    ASSERT_TRUE(db.open(path, v1));
  }
  Database db;
  ASSERT_TRUE(db.open(path, v2));
  EXPECT_EQ(version_of(db), 2);
  auto conn = db.acquire();
  EXPECT_TRUE(conn->prepare("INSERT INTO t (x, y) VALUES (1, 'a')").run());
}

TEST(Database, RefusesASchemaNewerThanTheProgram) {
  Temp_Dir tmp;
  std::string path = tmp.file("a.db");
  std::vector<Migration> v2 = {{1, "CREATE TABLE t (x INTEGER)"}, {2, "CREATE TABLE u (x)"}};
  {
    Database db;
    ASSERT_TRUE(db.open(path, v2));
  }
  Database db;
  EXPECT_FALSE(db.open(path, {v2[0]}));
}

TEST(Database, FailedMigrationLeavesNothingBehind) {
  Temp_Dir tmp;
  std::string path = tmp.file("a.db");
  std::vector<Migration> broken = {{1, "CREATE TABLE t (x INTEGER)"},
                                   {2, "CREATE TABLE u (x); INSERT INTO missing VALUES (1)"}};
  {
    Database db;
    EXPECT_FALSE(db.open(path, broken));
  }
  Database db;
  broken[1].sql = "CREATE TABLE u (x)";
  ASSERT_TRUE(db.open(path, broken));  // u was rolled back, so creating it again works
  EXPECT_EQ(version_of(db), 2);
}

TEST(Database, TransactionCommitsOrRollsBack) {
  Temp_Dir tmp;
  Database db;
  ASSERT_TRUE(db.open(tmp.file("a.db"), {{1, "CREATE TABLE t (x INTEGER)"}}));
  auto writer = db.acquire();
  auto reader = db.acquire();  // a second connection sees only committed rows
  {
    Transaction tx(*writer);
    ASSERT_TRUE(tx.ok());
    ASSERT_TRUE(writer->prepare("INSERT INTO t VALUES (1)").run());
    EXPECT_EQ(count_rows(*reader), 0);
  }
  EXPECT_EQ(count_rows(*reader), 0);
  {
    Transaction tx(*writer);
    ASSERT_TRUE(writer->prepare("INSERT INTO t VALUES (2)").run());
    ASSERT_TRUE(tx.commit());
  }
  EXPECT_EQ(count_rows(*reader), 1);
}

TEST(Database, ReusedStatementStartsAfresh) {
  Temp_Dir tmp;
  Database db;
  ASSERT_TRUE(db.open(tmp.file("a.db"), {{1, "CREATE TABLE t (x INTEGER, y TEXT)"}}));
  auto conn = db.acquire();
  for (int i = 0; i < 3; ++i) {
    auto st = conn->prepare("INSERT INTO t VALUES (?, ?)");
    st.bind(1, std::int64_t{i});
    if (i == 0)
      st.bind(2, std::string("only the first"));
    ASSERT_TRUE(st.run());
  }
  auto st = conn->prepare("SELECT x, y FROM t ORDER BY x");
  std::vector<std::string> seen;
  while (st.next())
    seen.push_back(std::to_string(st.integer(0)) + (st.is_null(1) ? "-" : st.text(1)));
  EXPECT_TRUE(st.ok());
  // Bindings are cleared between uses: rows 1 and 2 have no y.
  EXPECT_EQ(seen, (std::vector<std::string>{"0only the first", "1-", "2-"}));
  EXPECT_FALSE(conn->prepare("SELECT nonsense FROM nowhere").next());
}

class Master_Key_Test : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(db.open(tmp.file("server.db"), server_schema())); }
  bool load(Master_Key& key) {
    auto conn = db.acquire();
    return conn && key.load(key_path, *conn);
  }
  Temp_Dir tmp;
  std::string key_path = tmp.file("master.key");
  Database db;
};

TEST_F(Master_Key_Test, CreatedPrivateOnFirstLoadAndReused) {
  Master_Key first;
  ASSERT_TRUE(load(first));
  struct stat info {};
  ASSERT_EQ(stat(key_path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(info.st_size, 32);

  std::string cipher;
  ASSERT_TRUE(first.encrypt(Secure_String("s3cret"), cipher));
  EXPECT_EQ(cipher.find("s3cret"), std::string::npos);
  Master_Key second;
  ASSERT_TRUE(load(second));
  Secure_String plain;
  ASSERT_TRUE(second.decrypt(cipher, plain));
  EXPECT_EQ(plain, "s3cret");
}

TEST_F(Master_Key_Test, RefusesAKeyThatIsNotTheDatabases) {
  Master_Key first;
  ASSERT_TRUE(load(first));
  std::string other(32, 'x');
  ASSERT_TRUE(write_file_atomic(key_path, other, 0600));
  Master_Key wrong;
  EXPECT_FALSE(load(wrong));
  ASSERT_TRUE(write_file_atomic(key_path, "short", 0600));
  EXPECT_FALSE(load(wrong));
}

TEST_F(Master_Key_Test, DoesNotReplaceALostKey) {
  Master_Key first;
  ASSERT_TRUE(load(first));
  ASSERT_EQ(unlink(key_path.c_str()), 0);
  Master_Key again;
  EXPECT_FALSE(load(again));
  struct stat info {};
  EXPECT_NE(stat(key_path.c_str(), &info), 0);
}

}  // namespace
