#include "serve_state.h"

#include <sqlite3.h>

using kelp::error_kind;
using kelp::status;

namespace {

const char schema[] =
    "CREATE TABLE IF NOT EXISTS hosts ("
    " name TEXT PRIMARY KEY, address TEXT, last_attempt REAL, last_success REAL, last_change REAL,"
    " last_commit TEXT, consecutive_failures INTEGER, attempts INTEGER, failures INTEGER, last_error TEXT,"
    " last_duration REAL, next_due REAL, model TEXT, firmware TEXT)";

status db_failure(sqlite3* db, const std::string& what) {
    return kelp::fail(error_kind::local, what + ": " + (db ? sqlite3_errmsg(db) : "out of memory"));
}

struct statement {
    sqlite3_stmt* s = nullptr;
    ~statement() { sqlite3_finalize(s); }
};

std::string text_at(sqlite3_stmt* s, int column) {
    const unsigned char* t = sqlite3_column_text(s, column);
    return t ? (const char*)t : "";
}

}  // namespace

state_db::~state_db() { sqlite3_close(db_); }

status state_db::open(const std::string& path, std::unique_ptr<state_db>* out) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        status st = db_failure(db, "cannot open the state database " + path);
        sqlite3_close(db);
        return st;
    }
    out->reset(new state_db(db));
    sqlite3_busy_timeout(db, 5000);
    // The journal makes each save all or nothing; FULL syncs it before the
    // answer, so a saved host stays saved through a power cut.
    const char* setup = "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;";
    if (sqlite3_exec(db, setup, nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_exec(db, schema, nullptr, nullptr, nullptr) != SQLITE_OK)
        return db_failure(db, "cannot set up the state database " + path);
    return kelp::ok();
}

status state_db::load(std::map<std::string, host_state>* out) {
    std::lock_guard<std::mutex> hold(lock_);
    statement q;
    if (sqlite3_prepare_v2(db_, "SELECT * FROM hosts", -1, &q.s, nullptr) != SQLITE_OK)
        return db_failure(db_, "reading the hosts' state");
    int r;
    while ((r = sqlite3_step(q.s)) == SQLITE_ROW) {
        host_state h;
        h.name = text_at(q.s, 0);
        h.address = text_at(q.s, 1);
        h.last_attempt = sqlite3_column_double(q.s, 2);
        h.last_success = sqlite3_column_double(q.s, 3);
        h.last_change = sqlite3_column_double(q.s, 4);
        h.last_commit = text_at(q.s, 5);
        h.consecutive_failures = sqlite3_column_int(q.s, 6);
        h.attempts = sqlite3_column_int64(q.s, 7);
        h.failures = sqlite3_column_int64(q.s, 8);
        h.last_error = text_at(q.s, 9);
        h.last_duration = sqlite3_column_double(q.s, 10);
        h.next_due = sqlite3_column_double(q.s, 11);
        h.model = text_at(q.s, 12);
        h.firmware = text_at(q.s, 13);
        (*out)[h.name] = h;
    }
    if (r != SQLITE_DONE) return db_failure(db_, "reading the hosts' state");
    return kelp::ok();
}

status state_db::save(const host_state& h) {
    std::lock_guard<std::mutex> hold(lock_);
    statement q;
    if (sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO hosts VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?)", -1, &q.s,
                           nullptr) != SQLITE_OK)
        return db_failure(db_, "saving " + h.name + "'s state");
    int i = 1;
    auto text = [&](const std::string& v) { sqlite3_bind_text(q.s, i++, v.c_str(), (int)v.size(), SQLITE_TRANSIENT); };
    auto real = [&](double v) { sqlite3_bind_double(q.s, i++, v); };
    auto whole = [&](long long v) { sqlite3_bind_int64(q.s, i++, v); };
    text(h.name), text(h.address), real(h.last_attempt), real(h.last_success), real(h.last_change);
    text(h.last_commit), whole(h.consecutive_failures), whole(h.attempts), whole(h.failures), text(h.last_error);
    real(h.last_duration), real(h.next_due), text(h.model), text(h.firmware);
    if (sqlite3_step(q.s) != SQLITE_DONE) return db_failure(db_, "saving " + h.name + "'s state");
    return kelp::ok();
}
