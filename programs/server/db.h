// The server's SQLite database: connections with cached prepared statements, transactions, a pool
// that hands one connection to each request, and versioned schema migrations.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace brimlet_server {

class Statement;

// One open database file. Not for concurrent use: one thread at a time (see Database).
class Connection {
 public:
  // Opens or creates `path`, in WAL mode with a busy time-out. Null after one log line.
  static std::unique_ptr<Connection> open(const std::string& path);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Runs SQL text without results (several statements allowed). False after one log line.
  bool exec(const char* sql);
  // The statement for `sql`, prepared once per connection and reused. Only one Statement per
  // SQL text may be alive at a time. An invalid Statement (after one log line) fails every step.
  Statement prepare(const char* sql);
  const std::string& path() const { return path_; }

 private:
  Connection(sqlite3* db, std::string path) : db_(db), path_(std::move(path)) {}
  sqlite3* db_;
  std::string path_;
  std::unordered_map<std::string, sqlite3_stmt*> statements_;
  friend class Statement;
};

// A prepared statement in use: bind, step, read columns. Reset for the next user on destruction.
class Statement {
 public:
  Statement(Connection& conn, sqlite3_stmt* stmt) : conn_(&conn), stmt_(stmt) {}
  ~Statement();
  Statement(Statement&& other) noexcept;
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  Statement& operator=(Statement&&) = delete;

  bool valid() const { return stmt_ != nullptr; }
  // Parameters are numbered from 1. A failed bind makes the next step fail.
  Statement& bind(int index, const std::string& text);
  Statement& bind(int index, std::int64_t value);
  Statement& bind_null(int index);

  // True when a row is ready; false when done or failed (ok() tells which, failures logged).
  bool next();
  // Runs a statement without results to its end. False after one log line.
  bool run();
  bool ok() const { return ok_; }
  // Rows changed by the last run().
  int changes() const;

  // Columns of the current row, numbered from 0.
  std::string text(int column) const;
  std::int64_t integer(int column) const;
  bool is_null(int column) const;

 private:
  void fail(const char* what);
  Connection* conn_;
  sqlite3_stmt* stmt_;
  bool ok_ = true;
};

// BEGIN IMMEDIATE (the write lock at once, so a check and the write after it are atomic);
// rolled back on destruction unless committed.
class Transaction {
 public:
  explicit Transaction(Connection& conn);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  // False when BEGIN failed (logged): do not go on.
  bool ok() const { return open_; }
  bool commit();

 private:
  Connection& conn_;
  bool open_ = false;
};

// One step of the schema; versions start at 1 and follow each other.
struct Migration {
  int version;
  const char* sql;
};

// The database of a data directory: migrates it on open and lends connections to request
// handlers, so that readers run side by side (WAL) while SQLite serialises the writers.
class Database {
 public:
  class Lease {
   public:
    Lease(Database* db, std::unique_ptr<Connection> conn) : db_(db), conn_(std::move(conn)) {}
    ~Lease();
    Lease(Lease&&) = default;
    Lease& operator=(Lease&&) = delete;
    explicit operator bool() const { return conn_ != nullptr; }
    Connection& operator*() const { return *conn_; }
    Connection* operator->() const { return conn_.get(); }

   private:
    Database* db_;
    std::unique_ptr<Connection> conn_;
  };

  // Opens or creates `path` and applies the migrations it has not seen yet, each in its own
  // transaction. Refuses a database of a newer schema than `migrations` knows. False after one
  // log line.
  bool open(const std::string& path, const std::vector<Migration>& migrations);
  // A connection for the caller alone; empty (after one log line) when none can be opened.
  Lease acquire();
  // The schema version recorded in the database (0: none), or -1 after one log line.
  static int schema_version(Connection& conn);

 private:
  void give_back(std::unique_ptr<Connection> conn);
  std::string path_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<Connection>> idle_;
};

}  // namespace brimlet_server
