// Each host's state, kept in SQLite so that it survives a restart: one
// transaction per finished host, so a crash at any moment loses at most the
// hosts in flight.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "status.h"

struct sqlite3;

struct host_state {
    std::string name, address;
    double last_attempt = 0, last_success = 0, last_change = 0;  // Unix seconds, 0: never
    std::string last_commit;
    int consecutive_failures = 0;
    long long attempts = 0, failures = 0;  // since the state was created
    std::string last_error;
    double last_duration = 0;  // seconds
    double next_due = 0;       // Unix seconds
    std::string model, firmware;
};

class state_db {
public:
    ~state_db();
    // Opens (creating when new) the database at path.
    static kelp::status open(const std::string& path, std::unique_ptr<state_db>* out);
    // Every host's saved state, by name.
    kelp::status load(std::map<std::string, host_state>* out);
    kelp::status save(const host_state& h);

private:
    explicit state_db(sqlite3* db) : db_(db) {}
    sqlite3* db_;
    std::mutex lock_;
};
