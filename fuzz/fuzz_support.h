// What every fuzz target shares: a private view of the router's fixed paths,
// a socket whose peer already holds the input, and a way back from the
// daemon's end_process.
#pragma once

#include <stddef.h>
#include <stdint.h>

enum sandbox_extras : unsigned {
    sandbox_plain = 0,
    // /etc/passwd with "admin" whose password is fixture_password.
    sandbox_passwd = 1u << 0,
    // /dev/urandom always yields fixture_challenge, so an auth reply can be
    // enciphered ahead of time.
    sandbox_fixed_random = 1u << 1,
};

constexpr char fixture_password[] = "secret";
constexpr uint8_t fixture_challenge[8] = {'f', 'u', 'z', 'z', 'k', 'e', 'l', 'p'};

// Own mount namespace with an 8 MB tmpfs on /tmp and /run, no shell helpers
// on PATH, SIGPIPE ignored and plain (non-TLS) connection I/O. Ends the
// process when it cannot be set up (needs root).
void enter_sandbox(unsigned extras);

// Runs body(context); returns the status given to end_process, or
// still_running when body returned.
constexpr int still_running = -1000;
int run_to_end(void (*body)(void* context), void* context);

// The daemon's end of a connected stream socket sits at a fixed high number:
// the daemon may close it, and a number the kernel hands out again must never
// be closed a second time. The peer holds the input and has shut its write
// side, so the daemon's reads never wait; its replies stay unread.
constexpr int daemon_fd = 700;
constexpr int peer_fd = 701;
void open_link(const uint8_t* data, size_t size);
// Makes the daemon's writes fail at once (EPIPE).
void close_peer();
void close_link();

// Removes every plain file in dir (what the last run left behind).
void clear_dir(const char* dir);
void write_file(const char* path, const void* data, size_t size);
// -1 when the file does not exist.
long long size_of(const char* path);

// A broken invariant: prints why and aborts, so libFuzzer keeps the input.
[[noreturn]] void invariant_failed(const char* why);
