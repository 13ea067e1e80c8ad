// The 7-byte replies: result packet and size packet (size 0: ready packet).
#pragma once

// Logs every code other than 1 at LOG_ERR, then sends the result packet.
int send_result(int fd, int code);
// Size packet with file_size(path), or size 0 when path is null. 1 when all
// 7 bytes went out, else 0.
int send_ready(int fd, const char* path);
// Sends the ready packet or ends the process with status 1.
void send_ready_or_exit(int fd);
// Sends the result packet and ends with status 1, skipping the common ending.
[[noreturn]] void refuse_action(int fd, int code);
