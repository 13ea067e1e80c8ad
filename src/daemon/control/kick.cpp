#include "control/kick.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/connection.h"
#include "core/shell.h"
#include "protocol.h"

struct kick_texts {
    const char* announce;
    const char* handoff_file;
    const char* command;
};

static const kick_texts ppp_texts = {"ppp user name to kick: %s\n", "/tmp/kick-user", "do-pppkick"};
static const kick_texts hotspot_texts = {"hotspot user name to kick: %s\n", "/tmp/hotspot.user2kick",
                                         "do-hotkick user"};

// The whole request must arrive in one read: le32 length L, then L bytes.
static int kick_user(int fd, const kick_texts& texts) {
    uint8_t packet[kick_read_max];
    memset(packet, 0, sizeof packet);
    alarm(30);
    int n = conn_read(fd, packet, (int)sizeof packet);
    alarm(0);
    printf("size: %d\n", n);
    if (n < 5) {
        puts("short packet, unable to find user name to kick");
        return 1;
    }
    int32_t length = (int32_t)get_le32(packet);
    printf("size of username: %d\n", length);
    if ((int64_t)n != (int64_t)length + 4) {
        printf("packet size mismatch.  %d != %d\n", n, (int)((uint32_t)length + 4u));
        return 1;
    }
    if (length >= 256) {
        printf("user name length of %d is too long (max 255 characters)\n", length);
        return 1;
    }
    char name[256];
    memcpy(name, packet + 4, (size_t)length);
    name[length] = '\0';
    printf(texts.announce, name);

    FILE* f = fopen(texts.handoff_file, "w");
    if (!f) return 1;
    fprintf(f, "%s\n", name);
    fclose(f);
    return run_command(texts.command) == 0 ? 0 : 1;
}

int kick_ppp_user(int fd) { return kick_user(fd, ppp_texts); }

int kick_hotspot_user(int fd) { return kick_user(fd, hotspot_texts); }

int kick_hotspot_ip(int fd) {
    uint8_t a[4] = {0, 0, 0, 0};  // missing bytes read as 0
    alarm(30);
    conn_read(fd, a, 4);
    alarm(0);
    printf("hotspot ip name to kick: %d.%d.%d.%d\n", a[0], a[1], a[2], a[3]);
    char command[64];
    snprintf(command, sizeof command, "do-hotkick ip %d.%d.%d.%d", a[0], a[1], a[2], a[3]);
    return run_command(command) == 0 ? 0 : 1;
}
