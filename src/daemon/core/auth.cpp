#include "core/auth.h"

#include <crypt.h>
#include <stdio.h>
#include <string.h>

#include "core/connection.h"
#include "core/tokens.h"
#include "protocol.h"
#include "rc4.h"

// Used only when /dev/urandom cannot be opened.
static const uint8_t fallback_challenge[8] = {0x6b, 0x65, 0x6c, 0x70, 0x2d, 0x76, 0x33, 0x21};

void read_random8(uint8_t out[8]) {
    FILE* f = fopen("/dev/urandom", "r");
    if (!f) {
        memcpy(out, fallback_challenge, 8);
        return;
    }
    if (fread(out, 8, 1, f) != 1) {
        // Count deliberately not acted upon; keep the bytes defined.
    }
    fclose(f);
}

static bool find_user_hash(FILE* f, const char* user, char* hash) {
    char line[1024];
    char token[1024];
    while (fgets(line, sizeof line, f)) {
        int end = next_token(line, 0, token, "\n\r:");
        if (strcmp(token, user) == 0) {
            next_token(line, end, hash, "\n\r:");
            return true;
        }
    }
    return false;
}

int check_password(const char* user, const char* password) {
    if (strcmp(user, "admin") != 0) return 0;
    FILE* f = fopen("/etc/passwd", "r");
    if (!f) return 0;
    char hash[1024];
    bool found = find_user_hash(f, user, hash);
    fclose(f);
    if (!found) return 0;
    char salt[3] = {hash[0], hash[0] ? hash[1] : '\0', '\0'};
    const char* computed = crypt(password, salt);
    return computed && strcmp(computed, hash) == 0 ? 1 : 0;
}

static void build_greeting(uint8_t g[greeting_len], const uint8_t challenge[8]) {
    memset(g + greeting_marker_offset, 0xFF, greeting_len - greeting_marker_offset);
    memcpy(g + challenge_offset, challenge, challenge_len);
    put_le16(g + greeting_tag_offset, protocol_tag);
    memcpy(g, greeting_text, greeting_text_len + 1);
}

int authenticate(int fd) {
    uint8_t challenge[challenge_len];
    uint8_t greeting[greeting_len];
    read_random8(challenge);
    build_greeting(greeting, challenge);
    send_all(fd, greeting, (int)greeting_len);

    uint8_t reply[auth_reply_len];
    if (recv_all(fd, reply, (int)auth_reply_len) != (int)auth_reply_len) return -1;
    if (get_le16(reply) != protocol_tag) return -1;

    char* password = (char*)reply + auth_password_offset;
    do_rc4((uint8_t*)password, (int)auth_password_len, challenge, (int)challenge_len);
    password[auth_password_len - 1] = '\0';
    printf("Password received: %s\n", password);

    uint8_t answer[auth_answer_len] = {0x01, 0x01, 0x01};
    if (check_password("admin", password) == 0) answer[2] = 0;
    send_all(fd, answer, (int)auth_answer_len);
    return answer[2];
}
