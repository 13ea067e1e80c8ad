#include "transfer/config_bundle.h"
#include "core/protocol.h"
#include "core/replies.h"
bool build_config_bundle() { return false; }
bool verify_config_bundle() { return false; }
int send_configuration(int fd) { refuse_action(fd, code_not_supported); }
int receive_configuration(int fd) { refuse_action(fd, code_not_supported); }
