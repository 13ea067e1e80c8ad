// kelputil serve's parts put together: the repository, the hosts' state,
// the schedule, the hooks and the push, and the inventory they serve.
#pragma once

#include <memory>
#include <string>

#include "backup.h"
#include "health.h"
#include "hooks.h"
#include "options.h"
#include "push.h"
#include "scheduler.h"
#include "state.h"
#include "targets.h"

class service {
public:
    explicit service(const serve_options& o);
    ~service();
    // Opens the repository and the state, takes what git holds as the
    // truth of each host's last change and reads the inventory: everything
    // that can refuse to start, before anything is done.
    kelp::status open();
    // Starts the schedule (and the push); change hooks that a crash left
    // unrun run now.
    void start();
    // Reads the inventory and the password sources again: new hosts join,
    // removed ones leave, addresses change at once. A bad inventory changes
    // nothing.
    kelp::status reload();
    // Lets runs in flight finish within the stop deadline, ends the hooks
    // and the push. False when some runs were still going: the repository
    // is then held shut, and the process must end without waiting more.
    bool stop();

    const serve_options& options() const { return o_; }
    scheduler& schedule() { return *schedule_; }
    backup_store& store() { return *store_; }
    state_db& state() { return *db_; }
    service_health& health() { return health_; }
    // Folders of the repository whose host is not in the inventory: their
    // files stay, in history and at HEAD, untouched. Found at start and at
    // each reload.
    std::vector<std::pair<std::string, git_store::folder_change>> retired_hosts();

private:
    kelp::status read_hosts(std::vector<inventory_host>* out);
    void find_retired(const std::vector<inventory_host>& hosts);
    kelp::status take_truth_from_git(const std::vector<inventory_host>& hosts, std::map<std::string, host_state>* saved,
                                     bool rebuilt);
    host_run run_host(const inventory_host& host, const host_state& before);
    void after_run(const host_state& s, const host_run& r, int failures_before);
    void run_change_hook(const host_state& s, const std::string& commit, double time);
    void hooked(const std::string& host, const std::string& commit);
    hook_runner::done_fn hook_counter(const std::string& hook);
    void run_missed_hooks();
    void save(const host_state& s, const attempt* a = nullptr);

    serve_options o_;
    std::unique_ptr<backup_store> store_;
    std::unique_ptr<state_db> db_;
    std::unique_ptr<scheduler> schedule_;
    std::unique_ptr<pusher> push_;
    serve_targets targets_;
    service_health health_;
    hook_runner hooks_;
    // Commits whose change hook is still to run, found at start.
    std::vector<std::pair<std::string, git_store::folder_change>> replay_;
    std::mutex retired_lock_;
    std::vector<std::pair<std::string, git_store::folder_change>> retired_;
};

// Where the state lives: --state, else the service's state folder, else
// beside the backups in their repository (kept out of git).
std::string state_path(const serve_options& o);
