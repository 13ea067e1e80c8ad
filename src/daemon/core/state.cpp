#include "core/state.h"

int listen_fd = -1;
int client_fd = -1;
struct sockaddr_in client_address;
act_pkt_t act_pkt;
