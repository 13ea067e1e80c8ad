#include "control/kick.h"
int32_t run_command(const char*) { return -1; }
int kick_ppp_user(int) { return 1; }
int kick_hotspot_user(int) { return 1; }
int kick_hotspot_ip(int) { return 1; }
