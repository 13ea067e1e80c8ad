#include "transfer/script_exchange.h"
#include "core/protocol.h"
#include "core/replies.h"
int send_script(int fd) { refuse_action(fd, code_not_supported); }
int receive_script(int fd) { refuse_action(fd, code_not_supported); }
