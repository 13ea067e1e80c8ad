#pragma once

// Serves the action of act_pkt and ends the process.
[[noreturn]] void dispatch_action(int fd);
