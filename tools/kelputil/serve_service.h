// kelputil serve's parts put together: the repository, the hosts' state,
// the schedule, the hooks and the push, and the inventory they serve.
#pragma once

#include <memory>
#include <string>

#include "serve_backup.h"
#include "serve_hooks.h"
#include "serve_options.h"
#include "serve_push.h"
#include "serve_scheduler.h"
#include "serve_state.h"
#include "serve_targets.h"

class service {
public:
    explicit service(const serve_options& o);
    ~service();
    // Opens the repository and the state, reads the inventory and starts
    // the schedule.
    kelp::status start();
    // Reads the inventory again: new hosts join, removed ones leave. A bad
    // inventory changes nothing.
    kelp::status reload();
    // Lets runs in flight finish within the deadline and the hooks end.
    // False when some runs were still going: the repository is then held
    // shut, and the process must end without waiting for anything more.
    bool stop();

    const serve_options& options() const { return o_; }
    scheduler& schedule() { return *schedule_; }
    backup_store& store() { return *store_; }

private:
    kelp::status read_hosts(std::vector<inventory_host>* out);
    host_run run_host(const inventory_host& host);
    void after_run(const host_state& s, const host_run& r);

    serve_options o_;
    std::unique_ptr<backup_store> store_;
    std::unique_ptr<state_db> db_;
    std::unique_ptr<scheduler> schedule_;
    std::unique_ptr<pusher> push_;
    serve_targets targets_;
    hook_runner hooks_;
};

// Where the state lives: --state, else the service's state folder, else
// beside the backups in their repository (kept out of git).
std::string state_path(const serve_options& o);
