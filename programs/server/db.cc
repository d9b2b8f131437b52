#include "programs/server/db.h"

#include "host/core/log.h"

#include <sqlite3.h>

namespace brimlet_server {

namespace {

// Long enough to ride out another writer's transaction (the enrol command, a busy handler).
constexpr int busy_timeout_ms = 10000;

const char* const connection_setup =
    "PRAGMA journal_mode = WAL;"
    "PRAGMA foreign_keys = ON;"
    // Freed pages are overwritten, so deleted entries do not linger in the file.
    "PRAGMA secure_delete = ON;";

const char* const version_table =
    "CREATE TABLE IF NOT EXISTS schema_version ("
    "  version INTEGER PRIMARY KEY,"
    "  applied INTEGER NOT NULL)";

}  // namespace

std::unique_ptr<Connection> Connection::open(const std::string& path) {
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(
      path.c_str(), &db,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
      nullptr);
  if (rc != SQLITE_OK) {
    LOG_MSG((LM_ERROR, "Failed to open database '%s': %s.\n", path.c_str(),
             db ? sqlite3_errmsg(db) : sqlite3_errstr(rc)));
    sqlite3_close_v2(db);
    return nullptr;
  }
  std::unique_ptr<Connection> conn(new Connection(db, path));
  sqlite3_busy_timeout(db, busy_timeout_ms);
  if (!conn->exec(connection_setup))
    return nullptr;
  return conn;
}

Connection::~Connection() {
  for (auto& [sql, stmt] : statements_)
    sqlite3_finalize(stmt);
  sqlite3_close_v2(db_);
}

bool Connection::exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    LOG_MSG((LM_ERROR, "Failed to run SQL on '%s': %s.\n", path_.c_str(),
             message ? message : sqlite3_errmsg(db_)));
    sqlite3_free(message);
    return false;
  }
  return true;
}

Statement Connection::prepare(const char* sql) {
  auto it = statements_.find(sql);
  if (it != statements_.end())
    return Statement(*this, it->second);
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
    LOG_MSG((LM_ERROR, "Failed to prepare '%s': %s.\n", sql, sqlite3_errmsg(db_)));
    return Statement(*this, nullptr);
  }
  statements_.emplace(sql, stmt);
  return Statement(*this, stmt);
}

Statement::~Statement() {
  if (!stmt_)
    return;
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

Statement::Statement(Statement&& other) noexcept
    : conn_(other.conn_), stmt_(other.stmt_), ok_(other.ok_) {
  other.stmt_ = nullptr;
}

void Statement::fail(const char* what) {
  if (!ok_)
    return;  // the first failure is the one worth a log line
  ok_ = false;
  LOG_MSG((LM_ERROR, "Failed to %s '%s' on '%s': %s.\n", what, sqlite3_sql(stmt_),
           conn_->path_.c_str(), sqlite3_errmsg(conn_->db_)));
}

Statement& Statement::bind(int index, const std::string& text) {
  if (stmt_ && sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                                 SQLITE_TRANSIENT) != SQLITE_OK)
    fail("bind a parameter of");
  return *this;
}

Statement& Statement::bind(int index, std::int64_t value) {
  if (stmt_ && sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK)
    fail("bind a parameter of");
  return *this;
}

Statement& Statement::bind_null(int index) {
  if (stmt_ && sqlite3_bind_null(stmt_, index) != SQLITE_OK)
    fail("bind a parameter of");
  return *this;
}

bool Statement::next() {
  if (!stmt_)
    ok_ = false;
  if (!ok_)
    return false;
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW)
    return true;
  if (rc != SQLITE_DONE)
    fail("run");
  return false;
}

bool Statement::run() {
  while (next()) {
  }
  return ok_;
}

int Statement::changes() const {
  return stmt_ ? sqlite3_changes(conn_->db_) : 0;
}

std::string Statement::text(int column) const {
  const auto* p = sqlite3_column_text(stmt_, column);
  return p ? std::string(reinterpret_cast<const char*>(p),
                         static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)))
           : std::string();
}

std::int64_t Statement::integer(int column) const {
  return sqlite3_column_int64(stmt_, column);
}

bool Statement::is_null(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

Transaction::Transaction(Connection& conn) : conn_(conn) {
  open_ = conn_.exec("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
  if (open_)
    conn_.exec("ROLLBACK");
}

bool Transaction::commit() {
  if (!CHECK_TRUE(open_))
    return false;
  if (!conn_.exec("COMMIT"))
    return false;  // ROLLBACK on destruction undoes what is left
  open_ = false;
  return true;
}

Database::Lease::~Lease() {
  if (conn_)
    db_->give_back(std::move(conn_));
}

int Database::schema_version(Connection& conn) {
  auto st = conn.prepare("SELECT COALESCE(MAX(version), 0) FROM schema_version");
  if (!st.next())
    return -1;
  return static_cast<int>(st.integer(0));
}

bool Database::open(const std::string& path, const std::vector<Migration>& migrations) {
  path_ = path;
  auto conn = Connection::open(path);
  if (!conn || !conn->exec(version_table))
    return false;
  int newest = migrations.empty() ? 0 : migrations.back().version;
  for (const auto& m : migrations) {
    Transaction tx(*conn);
    if (!tx.ok())
      return false;
    // Read under the write lock: another process may be migrating the same file.
    int current = schema_version(*conn);
    if (current < 0)
      return false;
    if (current > newest) {
      LOG_MSG((LM_ERROR, "Database '%s' has schema version %d, newer than this program's %d.\n",
               path.c_str(), current, newest));
      return false;
    }
    if (m.version <= current)
      continue;
    if (!CHECK_TRUE(m.version == current + 1))
      return false;
    auto record = conn->prepare(
        "INSERT INTO schema_version (version, applied) "
        "VALUES (?, CAST(strftime('%s', 'now') AS INTEGER))");
    if (!conn->exec(m.sql) || !record.bind(1, std::int64_t{m.version}).run() || !tx.commit())
      return false;
    LOG_MSG((LM_INFO, "Database '%s' migrated to schema version %d.\n", path.c_str(), m.version));
  }
  give_back(std::move(conn));
  return true;
}

Database::Lease Database::acquire() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!idle_.empty()) {
      auto conn = std::move(idle_.back());
      idle_.pop_back();
      return Lease(this, std::move(conn));
    }
  }
  return Lease(this, Connection::open(path_));
}

void Database::give_back(std::unique_ptr<Connection> conn) {
  std::lock_guard<std::mutex> lock(mutex_);
  idle_.push_back(std::move(conn));
}

}  // namespace brimlet_server
