#include "devserver/Database.h"

#include <stdexcept>

namespace pavix::devserver {

Database::Database(const std::string& path) {
    if (sqlite3_open_v2(path.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        std::string msg = db_ ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        throw std::runtime_error("cannot open database " + path + ": " + msg);
    }
    sqlite3_busy_timeout(db_, 5000);
    exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=NORMAL");
    exec("PRAGMA foreign_keys=ON");
}

Database::~Database() {
    sqlite3_close(db_);
}

void Database::exec(const std::string& sql) {
    char* err = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
        std::string msg = err ? err : "unknown error";
        sqlite3_free(err);
        throw std::runtime_error("sqlite: " + msg + " in: " + sql);
    }
}

Statement::Statement(Database& db, const std::string& sql) : db_(db) {
    if (sqlite3_prepare_v2(db.handle(), sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
        throw std::runtime_error(std::string("sqlite prepare: ") + sqlite3_errmsg(db.handle()) +
                                 " in: " + sql);
    }
}

Statement::~Statement() {
    sqlite3_finalize(stmt_);
}

Statement& Statement::bind(int i, const std::string& v) {
    sqlite3_bind_text(stmt_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    return *this;
}

Statement& Statement::bind(int i, int64_t v) {
    sqlite3_bind_int64(stmt_, i, v);
    return *this;
}

Statement& Statement::bindNull(int i) {
    sqlite3_bind_null(stmt_, i);
    return *this;
}

bool Statement::step() {
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW)
        return true;
    if (rc == SQLITE_DONE)
        return false;
    throw std::runtime_error(std::string("sqlite step: ") + sqlite3_errmsg(db_.handle()));
}

void Statement::run() {
    while (step()) {
    }
}

std::string Statement::text(int col) const {
    auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
    return p ? std::string(p, static_cast<size_t>(sqlite3_column_bytes(stmt_, col)))
             : std::string();
}

int64_t Statement::integer(int col) const {
    return sqlite3_column_int64(stmt_, col);
}

bool Statement::isNull(int col) const {
    return sqlite3_column_type(stmt_, col) == SQLITE_NULL;
}

}  // namespace pavix::devserver
