#include "core/replies.h"

#include <syslog.h>

#include "core/client_log.h"
#include "core/connection.h"
#include "core/files.h"
#include "core/process_exit.h"
#include "protocol.h"
#include "result_text.h"

int send_result(int fd, int code) {
    if (code != code_ok) log_client(LOG_ERR, "%s", result_text(code));
    uint8_t packet[reply_packet_len];
    encode_result(packet, (uint8_t)code);
    return send_all(fd, packet, (int)reply_packet_len);
}

int send_ready(int fd, const char* path) {
    uint8_t packet[reply_packet_len];
    encode_size(packet, path ? file_size(path) : 0);
    return send_all(fd, packet, (int)reply_packet_len) == (int)reply_packet_len ? 1 : 0;
}

void send_ready_or_exit(int fd) {
    if (!send_ready(fd, nullptr)) end_process(1);
}

void refuse_action(int fd, int code) {
    send_result(fd, code);
    end_process(1);
}
