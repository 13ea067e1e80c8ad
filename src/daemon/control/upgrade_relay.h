// The upgrade's progress, from the FIFO "/tmp/upgrade" to the client.
#pragma once

// Sleeps ms milliseconds, however often interrupted; always 1.
int sleep_ms(unsigned ms);
// One line from the FIFO without its newline, at most 1024 characters;
// 0 when nothing is there yet.
int read_fifo_line(char* line, int fd);
// Starts the upgrade and relays its lines until "done" or a failed send.
void relay_upgrade(int fd);
