// Gives the test process its own /tmp and /run, so that code with the
// router's fixed paths can run without touching the host.
#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <gtest/gtest.h>

inline void enter_private_dirs() {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "needs root";
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
}
