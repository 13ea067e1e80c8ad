#include "core/process_exit.h"

#include <stdlib.h>
#include <unistd.h>

void end_process(int status) { exit(status); }

void end_process_from_signal(int status) { _exit(status); }
