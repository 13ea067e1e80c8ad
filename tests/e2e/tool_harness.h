// Running kelputil in the simulated router, or a fleet of them, as an
// operator would: shell steps, each with its exit status and what its
// output must (or must not) hold.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

// out: stdout and stderr together
struct run_result { int status = -1; std::string out; };

// Runs script (sh) inside kelp-router with router_args (e.g. {"--fleet",
// "50"}), without a terminal, KELPUTIL_PASSWORD set to password and kelputil
// first in PATH. meanwhile is called every 20 ms while it runs. The whole
// router is killed after limit_ms.
run_result in_router(const std::string& script, const std::vector<std::string>& router_args = {},
                     const std::string& password = "pw", const std::function<void()>& meanwhile = {},
                     int limit_ms = 60000);

// One step: a shell fragment, its exit status, and what its output holds:
//   "text"        appears;           "!text"   does not appear;
//   "~text"       appears, any run of blanks matching any other (table cells);
//   "/ptr=JSON"   the last JSON object's value at the pointer is JSON;
//   "/ptr>N"      ... is a number above N;
//   "/ptr:k1,k2"  ... is an object with exactly these keys.
struct step { std::string command; int exit; std::vector<std::string> want; };

// Runs the steps in order in one router (each in the same scratch folder)
// and checks them. Every JSON line the steps print must validate against
// docs/kelputil.schema.json.
void run_steps(const std::vector<step>& steps, const std::vector<std::string>& router_args = {},
               int limit_ms = 60000);

class tool_test : public ::testing::Test {
protected:
    void SetUp() override;
};
