#include "core/dispatch.h"

#include <stdio.h>
#include <syslog.h>

#include "control/firmware.h"
#include "control/kick.h"
#include "control/throughput.h"
#include "core/client_log.h"
#include "core/ending.h"
#include "core/process_exit.h"
#include "core/replies.h"
#include "core/state.h"
#include "protocol.h"
#include "reports/hotspot_list.h"
#include "reports/ppp_list.h"
#include "reports/report.h"
#include "transfer/config_bundle.h"
#include "transfer/script_exchange.h"

// Kick handlers return 0 on success; anything else is "No such user".
static int kick_result(int failed) { return failed ? code_no_such_user : code_ok; }

static int dispatch_kick(int fd, int action) {
    switch (action) {
    case action_kick_ppp_user:
        log_client(LOG_INFO, "kicking ppp user");
        puts("kick ppp user");
        send_ready_or_exit(fd);
        return kick_result(kick_ppp_user(fd));
    case action_kick_hotspot_user:
        puts("kick hotspot user");
        log_client(LOG_INFO, "kicking hotspot user");
        send_ready_or_exit(fd);
        return kick_result(kick_hotspot_user(fd));
    default:
        log_client(LOG_INFO, "kicking hotspot ip");
        puts("kick hotspot ip");
        send_ready_or_exit(fd);
        return kick_result(kick_hotspot_ip(fd));
    }
}

// The handlers close the connection themselves (a closed socket is how the
// client learns the test is over): the common ending then has none.
static int dispatch_throughput(int fd, int action) {
    if (action == action_throughput_rx) {
        puts("sending benchmark data");
        log_client(LOG_INFO, "throughput test (rx)");
        send_ready_or_exit(fd);
        throughput_send(fd);
    } else {
        log_client(LOG_INFO, "throughput test (tx)");
        puts("receiving benchmark data");
        send_ready_or_exit(fd);
        throughput_receive(fd);
    }
    return code_ok;
}

static int dispatch_list(int fd, int action) {
    send_ready_or_exit(fd);
    if (action == action_ppp_list) {
        log_client(LOG_INFO, "sending client our ppp list");
        send_ppp_list(fd);
    } else {
        log_client(LOG_INFO, "sending client our hotspot list");
        send_hotspot_list(fd);
    }
    return code_ok;
}

void dispatch_action(int fd) {
    int code;
    switch (act_pkt.action) {
    case action_nothing:
        send_ready_or_exit(fd);
        code = code_ok;
        break;
    case action_send_config: code = send_configuration(fd); break;
    case action_send_script: code = send_script(fd); break;
    case action_receive_config: code = receive_configuration(fd); break;
    case action_receive_script: code = receive_script(fd); break;
    case action_ppp_list:
    case action_hotspot_list: code = dispatch_list(fd, act_pkt.action); break;
    case action_throughput_rx:
    case action_throughput_tx:
        code = dispatch_throughput(fd, act_pkt.action);
        fd = -1;
        break;
    case action_kick_ppp_user:
    case action_kick_hotspot_user:
    case action_kick_hotspot_ip: code = dispatch_kick(fd, act_pkt.action); break;
    case action_sysinfo:
    case action_kernlog:
    case action_core_sysinfo: code = send_report(fd, act_pkt.action); break;
    case action_firmware: code = receive_firmware(fd); break;
    default: refuse_action(fd, code_not_supported);
    }
    finish_action(fd, code);
}
