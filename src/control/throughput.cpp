#include "control/throughput.h"
int timed_send(int, const void*, size_t) { return -1; }
int timed_recv(int, void*, size_t) { return -1; }
int throughput_send(int) { return 0; }
int throughput_receive(int) { return 0; }
