// Each host's state, kept in SQLite so that it survives a restart: one
// transaction per finished host, so a crash at any moment loses at most the
// hosts in flight. Git holds the backups themselves: what the state says of
// commits is a cache that the service checks against git at every start.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "status.h"

struct sqlite3;

struct host_state {
    std::string name, address;
    double last_attempt = 0, last_success = 0, last_change = 0;  // Unix seconds, 0: never
    std::string last_commit;
    // The last commit whose --on-change hook has run: behind last_commit
    // after a crash, and run again at the next start.
    std::string hooked_commit;
    int consecutive_failures = 0;
    // --on-failure ran for the failures in a row now: --on-recovery is due
    // when the host is back.
    bool failure_hooked = false;
    long long attempts = 0, failures = 0;  // since the state was created
    std::string last_error;
    double last_duration = 0;  // seconds
    double next_due = 0;       // Unix seconds
    std::string model, firmware;
    double reports_time = 0;  // when model and firmware were last read
    double uptime = 0;        // the router's, as its report gave it then
    double since = 0;         // when it joined the schedule, in this state's life
    bool retired = false;     // no longer in the inventory: its files only (not saved)
};

// One backup attempt, as the host's list of attempts shows it.
struct attempt {
    double time = 0, duration = 0;
    std::string result;  // "changed", "unchanged" or "failed"
    std::string error, commit;
};

class state_db {
public:
    ~state_db();
    // Opens (creating when new) the database at path. A file that is not a
    // database, or a damaged one, is moved aside (*note says where) and a
    // new one made: the service rebuilds what it needs from git.
    static kelp::status open(const std::string& path, std::unique_ptr<state_db>* out, std::string* note);
    // Every host's saved state, by name.
    kelp::status load(std::map<std::string, host_state>* out);
    // The host's state and, when given, the attempt that made it, in one
    // transaction; the host keeps its last max_attempts attempts.
    kelp::status save(const host_state& h, const attempt* a = nullptr);
    kelp::status attempts(const std::string& host, std::vector<attempt>* out);
    // The file's own facts, such as the repository's HEAD when it was made.
    kelp::status get_meta(const std::string& key, std::string* value, bool* present);
    kelp::status set_meta(const std::string& key, const std::string& value);

    static constexpr int max_attempts = 100;

private:
    explicit state_db(sqlite3* db) : db_(db) {}
    sqlite3* db_;
    std::mutex lock_;
};
