#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace pavix::devserver {

// One SQLite connection shared by the stores. Callers hold `mutex()` for the span of one logical
// operation (a store method); statements are prepared per use.
class Database {
  public:
    explicit Database(const std::string& path);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    void exec(const std::string& sql);
    std::mutex& mutex() { return mutex_; }
    sqlite3* handle() { return db_; }
    int64_t changes() { return sqlite3_changes64(db_); }

  private:
    sqlite3* db_ = nullptr;
    std::mutex mutex_;
};

// A prepared statement with positional binds (1-based) and typed column reads (0-based).
class Statement {
  public:
    Statement(Database& db, const std::string& sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int i, const std::string& v);
    Statement& bind(int i, int64_t v);
    Statement& bind(int i, int v) { return bind(i, static_cast<int64_t>(v)); }
    Statement& bindNull(int i);
    Statement& bind(int i, const std::optional<int64_t>& v) {
        return v ? bind(i, *v) : bindNull(i);
    }
    Statement& bind(int i, const std::optional<std::string>& v) {
        return v ? bind(i, *v) : bindNull(i);
    }
    // Steps once; true when a row is available.
    bool step();
    // Runs to completion (for statements without rows).
    void run();

    std::string text(int col) const;
    int64_t integer(int col) const;
    bool isNull(int col) const;
    std::optional<int64_t> optInteger(int col) const {
        return isNull(col) ? std::nullopt : std::optional<int64_t>(integer(col));
    }
    std::optional<std::string> optText(int col) const {
        return isNull(col) ? std::nullopt : std::optional<std::string>(text(col));
    }

  private:
    Database& db_;
    sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace pavix::devserver
