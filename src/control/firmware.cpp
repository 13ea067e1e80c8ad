#include "control/firmware.h"
#include "core/protocol.h"
#include "core/replies.h"
bool firmware_fits(int32_t) { return false; }
int read_fifo_line(char*, int) { return 0; }
int sleep_ms(unsigned) { return 1; }
void relay_upgrade(int) {}
int receive_firmware(int fd) { refuse_action(fd, code_not_supported); }
