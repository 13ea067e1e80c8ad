#include "core/client_log.h"

#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include "core/state.h"

void log_client(int priority, const char* format, ...) {
    const unsigned char* a = (const unsigned char*)&client_address.sin_addr.s_addr;
    char line[512];
    int n = snprintf(line, sizeof line, "%d.%d.%d.%d - ", a[0], a[1], a[2], a[3]);
    va_list args;
    va_start(args, format);
    vsnprintf(line + n, sizeof line - (size_t)n, format, args);
    va_end(args);
    syslog(priority, "%s", line);
}
