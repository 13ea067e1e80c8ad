#include "supervisor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "router.h"

namespace router {

static volatile pid_t current = -1;

// The supervisor takes its daemon with it, and only its own.
static void on_term(int) {
    if (current > 0) kill(current, SIGKILL);
    _exit(0);
}

static void append_file(const std::string& from, int to) {
    std::string text = read_file(from);
    if (!text.empty() && write(to, text.data(), text.size()) < 0) {
        // The log is best effort.
    }
}

pid_t supervise(const std::string& binary, const std::string& argv0, const std::string& log_path,
                const std::vector<std::string>& emulator) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    signal(SIGTERM, on_term);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    std::string pid_path = std::string(state_dir) + "/" + argv0 + ".pid";
    for (;;) {
        process p = start(binary, argv0, emulator);
        if (p.pid < 0) _exit(1);
        current = p.pid;
        // The monitor ends this daemon when it is asked to reboot.
        write_file(pid_path, std::to_string(p.pid) + "\n");
        int status;
        while (waitpid(p.pid, &status, 0) < 0) {
        }
        append_file(p.out_path, log);
        append_file(p.err_path, log);
        unlink(p.out_path.c_str());
        unlink(p.err_path.c_str());
        usleep(10 * 1000);  // the port is free again at once (SO_REUSEADDR)
    }
}

}  // namespace router
