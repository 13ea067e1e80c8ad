#pragma once

// Reads the 42-byte request into act_pkt and prints it; 1, or 0 when the
// 42 bytes did not arrive.
int read_action_request(int fd);
