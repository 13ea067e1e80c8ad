#include "state.h"

#include <sqlite3.h>
#include <stdio.h>
#include <time.h>

#include <string>

using kelp::error_kind;
using kelp::status;

namespace {

// The file's layout version (PRAGMA user_version). 0: the first layout,
// whose hosts table lacked the columns after "firmware".
constexpr int schema_version = 2;
// How long a save waits for another connection's write (a second reader
// such as sqlite3 at the operator's prompt) before it fails.
constexpr int busy_timeout_ms = 5000;

// Every column of the hosts table, by name: the schema, the reads and the
// writes all come from these lists.
struct text_column {
    const char* name;
    std::string host_state::*field;
};
struct real_column {
    const char* name;
    double host_state::*field;
};
struct whole_column {
    const char* name;
    long long host_state::*field;
};
struct count_column {
    const char* name;
    int host_state::*field;
};
struct flag_column {
    const char* name;
    bool host_state::*field;
};

const text_column text_columns[] = {
    {"name", &host_state::name},
    {"address", &host_state::address},
    {"last_commit", &host_state::last_commit},
    {"last_error", &host_state::last_error},
    {"model", &host_state::model},
    {"firmware", &host_state::firmware},
    {"hooked_commit", &host_state::hooked_commit},
};
const real_column real_columns[] = {
    {"last_attempt", &host_state::last_attempt},
    {"last_success", &host_state::last_success},
    {"last_change", &host_state::last_change},
    {"last_duration", &host_state::last_duration},
    {"next_due", &host_state::next_due},
    {"reports_time", &host_state::reports_time},
    {"uptime", &host_state::uptime},
    {"since", &host_state::since},
};
const whole_column whole_columns[] = {{"attempts", &host_state::attempts}, {"failures", &host_state::failures}};
const count_column count_columns[] = {{"consecutive_failures", &host_state::consecutive_failures}};
const flag_column flag_columns[] = {{"failure_hooked", &host_state::failure_hooked}};

// Columns added after the first layout, with what an old row gets. A hook
// ran at once in the first layout, so its last commit counts as hooked.
const char* const added_columns[] = {
    "ALTER TABLE hosts ADD COLUMN hooked_commit TEXT",
    "UPDATE hosts SET hooked_commit = last_commit",
    "ALTER TABLE hosts ADD COLUMN reports_time REAL",
    "ALTER TABLE hosts ADD COLUMN uptime REAL",
    "ALTER TABLE hosts ADD COLUMN since REAL",
    "ALTER TABLE hosts ADD COLUMN failure_hooked INTEGER",
    // The first layout ran the failure hook at every failure: one has run.
    "UPDATE hosts SET failure_hooked = consecutive_failures > 0",
};

// A file a newer kelputil wrote is not damaged: it is left as it is.
const char newer_layout[] = "it was written by a newer kelputil";

const char attempts_table[] =
    "CREATE TABLE IF NOT EXISTS attempts (host TEXT NOT NULL, time REAL, duration REAL, result TEXT, error TEXT,"
    " commit_id TEXT);"
    "CREATE INDEX IF NOT EXISTS attempts_by_host ON attempts (host, time);"
    "CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT)";

template <typename F>
void each_column(F f) {
    for (const text_column& c : text_columns) f(c.name, "TEXT");
    for (const real_column& c : real_columns) f(c.name, "REAL");
    for (const whole_column& c : whole_columns) f(c.name, "INTEGER");
    for (const count_column& c : count_columns) f(c.name, "INTEGER");
    for (const flag_column& c : flag_columns) f(c.name, "INTEGER");
}

std::string hosts_table() {
    std::string columns;
    each_column([&](const char* name, const char* type) {
        columns += std::string(columns.empty() ? "" : ", ") + name + " " + type +
                   (std::string(name) == "name" ? " PRIMARY KEY" : "");
    });
    return "CREATE TABLE IF NOT EXISTS hosts (" + columns + ")";
}

std::string insert_host() {
    std::string names, values;
    each_column([&](const char* name, const char*) {
        names += std::string(names.empty() ? "" : ", ") + name;
        values += std::string(values.empty() ? "" : ", ") + ":" + name;
    });
    return "INSERT OR REPLACE INTO hosts (" + names + ") VALUES (" + values + ")";
}

status db_failure(sqlite3* db, const std::string& what) {
    return kelp::fail(error_kind::local, what + ": " + (db ? sqlite3_errmsg(db) : "out of memory"));
}

struct statement {
    sqlite3_stmt* s = nullptr;
    ~statement() { sqlite3_finalize(s); }
};

bool exec(sqlite3* db, const std::string& sql) {
    return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

int user_version(sqlite3* db) {
    statement q;
    if (sqlite3_prepare_v2(db, "PRAGMA user_version", -1, &q.s, nullptr) != SQLITE_OK ||
        sqlite3_step(q.s) != SQLITE_ROW)
        return -1;
    return sqlite3_column_int(q.s, 0);
}

bool has_hosts_table(sqlite3* db) {
    statement q;
    return sqlite3_prepare_v2(db, "SELECT 1 FROM sqlite_master WHERE name = 'hosts'", -1, &q.s, nullptr) == SQLITE_OK &&
           sqlite3_step(q.s) == SQLITE_ROW;
}

// "" when the file is a whole database; else why it is not.
std::string damage(sqlite3* db) {
    statement q;
    if (sqlite3_prepare_v2(db, "PRAGMA quick_check", -1, &q.s, nullptr) != SQLITE_OK) return sqlite3_errmsg(db);
    if (sqlite3_step(q.s) != SQLITE_ROW) return sqlite3_errmsg(db);
    const unsigned char* verdict = sqlite3_column_text(q.s, 0);
    std::string text = verdict ? (const char*)verdict : "";
    return text == "ok" ? "" : text;
}

// Brings a file of an older layout to this one, or makes a new one.
std::string set_up(sqlite3* db) {
    int version = user_version(db);
    if (version > schema_version) return newer_layout;
    bool old = has_hosts_table(db) && version < schema_version;
    bool ok = exec(db, "BEGIN IMMEDIATE") && exec(db, hosts_table()) && exec(db, attempts_table);
    for (const char* sql : added_columns)
        if (ok && old) ok = exec(db, sql);
    ok = ok && exec(db, "PRAGMA user_version = " + std::to_string(schema_version)) && exec(db, "COMMIT");
    if (ok) return "";
    std::string why = sqlite3_errmsg(db);
    exec(db, "ROLLBACK");
    return why;
}

std::string utc_stamp() {
    time_t now = time(nullptr);
    struct tm t;
    gmtime_r(&now, &t);
    char text[32];
    strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &t);
    return text;
}

// The damaged file and its journal side files, kept for whoever wants to
// look at them, out of the way of a new one.
std::string move_aside(const std::string& path) {
    std::string aside = path + ".damaged-" + utc_stamp();
    for (const char* side : {"", "-wal", "-shm"}) rename((path + side).c_str(), (aside + side).c_str());
    return aside;
}

status open_file(const std::string& path, sqlite3** out) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        status st = db_failure(db, "cannot open the state database " + path);
        sqlite3_close(db);
        return st;
    }
    sqlite3_busy_timeout(db, busy_timeout_ms);
    *out = db;
    return kelp::ok();
}

// The journal makes each save all or nothing; FULL syncs it before the
// answer, so a saved host stays saved through a power cut. "" or why the
// file cannot serve.
std::string prepare(sqlite3* db) {
    std::string why = damage(db);
    if (why.empty() && !exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;")) why = sqlite3_errmsg(db);
    if (why.empty()) why = set_up(db);
    return why;
}

std::string text_of(sqlite3_stmt* s, int column) {
    const unsigned char* t = sqlite3_column_text(s, column);
    return t ? std::string((const char*)t, (size_t)sqlite3_column_bytes(s, column)) : "";
}

// A row's columns by name.
std::map<std::string, int> column_indexes(sqlite3_stmt* s) {
    std::map<std::string, int> out;
    for (int i = 0; i < sqlite3_column_count(s); i++) out[sqlite3_column_name(s, i)] = i;
    return out;
}

host_state read_row(sqlite3_stmt* s, const std::map<std::string, int>& at) {
    host_state h;
    for (const text_column& c : text_columns) h.*c.field = text_of(s, at.at(c.name));
    for (const real_column& c : real_columns) h.*c.field = sqlite3_column_double(s, at.at(c.name));
    for (const whole_column& c : whole_columns) h.*c.field = sqlite3_column_int64(s, at.at(c.name));
    for (const count_column& c : count_columns) h.*c.field = sqlite3_column_int(s, at.at(c.name));
    for (const flag_column& c : flag_columns) h.*c.field = sqlite3_column_int(s, at.at(c.name)) != 0;
    return h;
}

void bind_row(sqlite3_stmt* s, const host_state& h) {
    auto at = [&](const char* name) { return sqlite3_bind_parameter_index(s, (std::string(":") + name).c_str()); };
    for (const text_column& c : text_columns) {
        const std::string& v = h.*c.field;
        sqlite3_bind_text(s, at(c.name), v.data(), (int)v.size(), SQLITE_TRANSIENT);
    }
    for (const real_column& c : real_columns) sqlite3_bind_double(s, at(c.name), h.*c.field);
    for (const whole_column& c : whole_columns) sqlite3_bind_int64(s, at(c.name), h.*c.field);
    for (const count_column& c : count_columns) sqlite3_bind_int(s, at(c.name), h.*c.field);
    for (const flag_column& c : flag_columns) sqlite3_bind_int(s, at(c.name), h.*c.field);
}

status save_attempt(sqlite3* db, const std::string& host, const attempt& a) {
    statement add, trim;
    if (sqlite3_prepare_v2(db,
                           "INSERT INTO attempts (host, time, duration, result, error, commit_id) "
                           "VALUES (?1, ?2, ?3, ?4, ?5, ?6)",
                           -1, &add.s, nullptr) != SQLITE_OK)
        return db_failure(db, "saving " + host + "'s attempt");
    sqlite3_bind_text(add.s, 1, host.data(), (int)host.size(), SQLITE_TRANSIENT);
    sqlite3_bind_double(add.s, 2, a.time);
    sqlite3_bind_double(add.s, 3, a.duration);
    sqlite3_bind_text(add.s, 4, a.result.data(), (int)a.result.size(), SQLITE_TRANSIENT);
    sqlite3_bind_text(add.s, 5, a.error.data(), (int)a.error.size(), SQLITE_TRANSIENT);
    sqlite3_bind_text(add.s, 6, a.commit.data(), (int)a.commit.size(), SQLITE_TRANSIENT);
    if (sqlite3_step(add.s) != SQLITE_DONE) return db_failure(db, "saving " + host + "'s attempt");
    // Only the host's newest attempts stay.
    if (sqlite3_prepare_v2(db,
                           "DELETE FROM attempts WHERE host = ?1 AND rowid NOT IN "
                           "(SELECT rowid FROM attempts WHERE host = ?1 ORDER BY time DESC LIMIT ?2)",
                           -1, &trim.s, nullptr) != SQLITE_OK)
        return db_failure(db, "trimming " + host + "'s attempts");
    sqlite3_bind_text(trim.s, 1, host.data(), (int)host.size(), SQLITE_TRANSIENT);
    sqlite3_bind_int(trim.s, 2, state_db::max_attempts);
    if (sqlite3_step(trim.s) != SQLITE_DONE) return db_failure(db, "trimming " + host + "'s attempts");
    return kelp::ok();
}

}  // namespace

state_db::~state_db() { sqlite3_close(db_); }

status state_db::open(const std::string& path, std::unique_ptr<state_db>* out, std::string* note) {
    note->clear();
    sqlite3* db = nullptr;
    status st = open_file(path, &db);
    if (!st) return st;
    std::string why = prepare(db);
    if (why == newer_layout) {
        sqlite3_close(db);
        return kelp::fail(error_kind::local,
                          "the state file " + path + " " + why + ": run that version, or give another --state");
    }
    if (!why.empty()) {
        sqlite3_close(db);
        std::string aside = move_aside(path);
        *note = "the state file " + path + " could not be used (" + why + "): moved aside to " + aside +
                "; the hosts' state is rebuilt from the backups";
        if (!(st = open_file(path, &db))) return st;
        if (!(why = prepare(db)).empty()) {
            sqlite3_close(db);
            return kelp::fail(error_kind::local, "cannot set up the state database " + path + ": " + why);
        }
    }
    out->reset(new state_db(db));
    return kelp::ok();
}

status state_db::load(std::map<std::string, host_state>* out) {
    std::lock_guard<std::mutex> hold(lock_);
    statement q;
    if (sqlite3_prepare_v2(db_, "SELECT * FROM hosts", -1, &q.s, nullptr) != SQLITE_OK)
        return db_failure(db_, "reading the hosts' state");
    std::map<std::string, int> at = column_indexes(q.s);
    int r;
    while ((r = sqlite3_step(q.s)) == SQLITE_ROW) {
        host_state h = read_row(q.s, at);
        (*out)[h.name] = h;
    }
    if (r != SQLITE_DONE) return db_failure(db_, "reading the hosts' state");
    return kelp::ok();
}

status state_db::save(const host_state& h, const attempt* a) {
    std::lock_guard<std::mutex> hold(lock_);
    statement q;
    if (!exec(db_, "BEGIN IMMEDIATE")) return db_failure(db_, "saving " + h.name + "'s state");
    status st;
    if (sqlite3_prepare_v2(db_, insert_host().c_str(), -1, &q.s, nullptr) != SQLITE_OK)
        st = db_failure(db_, "saving " + h.name + "'s state");
    if (st) bind_row(q.s, h);
    if (st && sqlite3_step(q.s) != SQLITE_DONE) st = db_failure(db_, "saving " + h.name + "'s state");
    if (st && a) st = save_attempt(db_, h.name, *a);
    if (st && !exec(db_, "COMMIT")) st = db_failure(db_, "saving " + h.name + "'s state");
    if (!st) exec(db_, "ROLLBACK");
    return st;
}

status state_db::attempts(const std::string& host, std::vector<attempt>* out) {
    std::lock_guard<std::mutex> hold(lock_);
    statement q;
    if (sqlite3_prepare_v2(db_,
                           "SELECT time, duration, result, error, commit_id FROM attempts WHERE host = ?1 "
                           "ORDER BY time DESC",
                           -1, &q.s, nullptr) != SQLITE_OK)
        return db_failure(db_, "reading " + host + "'s attempts");
    sqlite3_bind_text(q.s, 1, host.data(), (int)host.size(), SQLITE_TRANSIENT);
    out->clear();
    int r;
    while ((r = sqlite3_step(q.s)) == SQLITE_ROW)
        out->push_back({sqlite3_column_double(q.s, 0), sqlite3_column_double(q.s, 1), text_of(q.s, 2), text_of(q.s, 3),
                        text_of(q.s, 4)});
    if (r != SQLITE_DONE) return db_failure(db_, "reading " + host + "'s attempts");
    return kelp::ok();
}

status state_db::get_meta(const std::string& key, std::string* value, bool* present) {
    std::lock_guard<std::mutex> hold(lock_);
    statement q;
    if (sqlite3_prepare_v2(db_, "SELECT value FROM meta WHERE key = ?1", -1, &q.s, nullptr) != SQLITE_OK)
        return db_failure(db_, "reading the state's " + key);
    sqlite3_bind_text(q.s, 1, key.data(), (int)key.size(), SQLITE_TRANSIENT);
    int r = sqlite3_step(q.s);
    *present = r == SQLITE_ROW;
    if (*present) *value = text_of(q.s, 0);
    if (r != SQLITE_ROW && r != SQLITE_DONE) return db_failure(db_, "reading the state's " + key);
    return kelp::ok();
}

status state_db::set_meta(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> hold(lock_);
    statement q;
    if (sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO meta (key, value) VALUES (?1, ?2)", -1, &q.s, nullptr) !=
        SQLITE_OK)
        return db_failure(db_, "saving the state's " + key);
    sqlite3_bind_text(q.s, 1, key.data(), (int)key.size(), SQLITE_TRANSIENT);
    sqlite3_bind_text(q.s, 2, value.data(), (int)value.size(), SQLITE_TRANSIENT);
    if (sqlite3_step(q.s) != SQLITE_DONE) return db_failure(db_, "saving the state's " + key);
    return kelp::ok();
}
