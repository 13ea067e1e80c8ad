#include "transfer/script_exchange.h"

#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>

#include "core/client_log.h"
#include "core/files.h"
#include "core/process_exit.h"
#include "core/replies.h"
#include "core/shell.h"
#include "core/state.h"
#include "protocol.h"
#include "scripts.h"
#include "transfer/frames.h"

static const char upload_path[] = "/tmp/kelputil.dat";

// Scripts 4-6 are refused with code 4; 0 and 8-255 end without a reply.
static const script_entry* select_script(int fd, int number) {
    if (number >= 4 && number <= 6) refuse_action(fd, code_not_supported);
    const script_entry* script = script_by_number(number);
    if (!script) {
        log_client(LOG_ERR, "requested script is unknown");
        printf("Unknown script: %d\n", number);
        end_process(1);
    }
    return script;
}

int send_script(int fd) {
    puts("Sending client the script");
    const script_entry* script = select_script(fd, act_pkt.script);
    log_client(LOG_INFO, "%s script sent to client", script->word);
    if (!send_ready(fd, script->path)) end_process(1);
    if (!send_file(fd, script->path)) end_process(1);
    return code_ok;
}

int receive_script(int fd) {
    if (system_busy()) refuse_action(fd, code_not_supported);
    const script_entry* script = select_script(fd, act_pkt.script);
    log_client(LOG_INFO, "%s script received from client", script->word);
    if (act_pkt.size > upload_max) refuse_action(fd, code_too_large);
    if (act_pkt.size == 0) refuse_action(fd, code_too_small);
    puts("Saving client the script");
    send_ready_or_exit(fd);
    if (!receive_file(fd, upload_path, act_pkt.size)) end_process(1);
    char command[128];
    snprintf(command, sizeof command, "cp %s %s; rm -f %s", upload_path, script->path, upload_path);
    run_helper(command);
    run_helper("save-configs");
    return code_ok;
}
