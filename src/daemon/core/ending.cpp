// The common ending of every action that has a result, and the reboot loop.
#include "core/ending.h"

#include <syslog.h>
#include <unistd.h>

#include "core/client_log.h"
#include "core/process_exit.h"
#include "core/replies.h"
#include "core/shell.h"
#include "core/state.h"
#include "protocol.h"
#include "scripts.h"

[[noreturn]] static void reboot_forever() {
    log_client(LOG_INFO, "rebooting the system");
    for (;;) {
        run_helper("echo reboot > /tmp/monitor");
        sleep(100);
    }
}

static void request_apply() {
    if (act_pkt.action == action_receive_script)
        run_helper(act_pkt.script == script_dhcp ? "> /tmp/ips.dirty; echo apply > /tmp/monitor" : "do-advnet");
    else
        run_helper("> /tmp/all.dirty; echo apply > /tmp/monitor");
}

void finish_action(int fd, int code) {
    if (fd >= 0) {
        send_result(fd, code);
        close(fd);
    }
    close(listen_fd);
    unlink("/tmp/saved-configs");
    unlink("/tmp/saved-configs.dat");
    if (act_pkt.action == action_firmware || code != code_ok) end_process(0);
    if (act_pkt.flags & flag_reboot) reboot_forever();
    if (act_pkt.flags & flag_apply) request_apply();
    end_process(0);
}
