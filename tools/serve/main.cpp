// kelputil-serve: kelputil serve, a helper program of its own so that
// kelputil loads neither SQLite nor the HTTP server. It backs up every host
// of an inventory on a schedule until SIGTERM or SIGINT; SIGHUP reads the
// inventory again.
#include <git2.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <exception>

#include "api.h"
#include "log.h"
#include "outcome.h"
#include "push.h"
#include "service.h"

namespace {

// The signals go to sigwait in the main thread: every thread started after
// this inherits the mask, so none is interrupted.
sigset_t take_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (int s : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, s);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return set;
}

int start_failure(const serve_options& o, const kelp::status& st) {
    print_outcome(failure(st), o.out.json, false);
    return exit_status(st);
}

void serve_until_stopped(service& svc, const sigset_t& set) {
    for (int sig = 0;;) {
        if (sigwait(&set, &sig) != 0) continue;
        if (sig != SIGHUP) break;
        kelp::status st = svc.reload();
        if (!st) log_event("inventory not read again, the schedule stays as it was: " + st.message);
    }
    log_event("stopping: letting the backups in flight finish");
}

int serve(const serve_options& o) {
    sigset_t set = take_signals();
    git_libgit2_init();
    // A commit that returned is on disk: a power cut after it loses nothing.
    git_libgit2_opts(GIT_OPT_ENABLE_FSYNC_GITDIR, 1);
    service svc(o);
    kelp::status st = svc.open();
    if (!st) return start_failure(o, st);
    // The API's address is checked before the first backup: a wrong
    // --listen is said at once.
    api_server api(svc);
    if (!(st = api.start())) return start_failure(o, st);
    svc.start();
    serve_until_stopped(svc, set);
    if (!svc.stop()) _exit(0);  // threads still in a host's time-out: nothing more to wait for
    api.stop();
    log_event("stopped");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "--internal-push") == 0) return run_push_child();
    try {
        serve_options o;
        int end = parse_serve_command_line(argc, argv, &o);
        if (end >= 0) return end;
        return serve(o);
    } catch (const std::exception& e) {
        fprintf(stderr, "kelputil serve: internal error: %s\n", e.what());
    }
    return 1;
}
