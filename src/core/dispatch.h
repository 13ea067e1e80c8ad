#pragma once

// Serves the action of act_pkt and ends the process.
[[noreturn]] void dispatch_action(int fd);
// The common ending: result packet, sockets closed, configuration
// temporaries removed, then the apply or reboot post-action.
[[noreturn]] void finish_action(int fd, int code);
