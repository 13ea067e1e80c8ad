// What the service shows of a router beside its backups: its model and
// uptime from the core report ("model:" and "uptime:" lines) and its
// firmware from the full report's "Software Version" section. Two more
// sessions with the router, so they are read only when they may have
// changed (see facts_due).
#pragma once

#include <string>

#include "actions.h"
#include "state.h"

struct router_facts {
    std::string model, firmware;
    double uptime = 0;  // s; 0 when the report gave none
};

// Whether a backup should read the reports: never read, the configuration
// just changed, the host is back after failures, or what was read is older
// than a day.
bool facts_due(const host_state& before, bool changed, double now);

// Reads both reports; a report that fails leaves its facts empty: the
// backup itself is already safe.
bool read_facts(const kelp::target& t, router_facts* out);

// The parts of the reports' texts.
void read_core_report(const std::string& report, std::string* model, double* uptime);
std::string software_version(const std::string& full_report);
