// Syslog lines about the connection, prefixed with "a.b.c.d - ".
#pragma once

void log_client(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
