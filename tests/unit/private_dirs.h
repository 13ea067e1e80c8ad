// Gives the test process its own /tmp and /run, so that code with the
// router's fixed paths can run without touching the host; files in them.
#pragma once

#include <sched.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/mount.h>

#include <gtest/gtest.h>

#include <vector>

using bytes = std::vector<uint8_t>;

inline void enter_private_dirs() {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "needs root";
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
}

inline void write_file(const char* path, const bytes& data) {
    FILE* f = fopen(path, "w");
    ASSERT_NE(f, nullptr);
    fwrite(data.data(), 1, data.size(), f);
    fclose(f);
}

inline bytes read_file(const char* path) {
    bytes out;
    FILE* f = fopen(path, "r");
    for (int c; f && (c = fgetc(f)) != EOF;) out.push_back((uint8_t)c);
    if (f) fclose(f);
    return out;
}
