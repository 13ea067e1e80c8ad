#pragma once

// The common ending: result packet, sockets closed, configuration
// temporaries removed, then the apply or reboot post-action. fd is -1 when
// the action has closed the connection itself (the throughput test).
[[noreturn]] void finish_action(int fd, int code);
