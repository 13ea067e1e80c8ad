// bench_upload FILE: one firmware upload (no upgrade) of any size, through
// the client library's own conversation. kelputil refuses images above
// upload_max, which would keep the 32 MiB figure from being measured.
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>

#include "actions.h"

int main(int argc, char** argv) {
    const char* password = getenv("KELPUTIL_PASSWORD");
    if (argc != 2 || !password) {
        fputs("usage: KELPUTIL_PASSWORD=pw bench_upload FILE\n", stderr);
        return 1;
    }
    std::ifstream in(argv[1], std::ios::binary);
    kelp::bytes image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.good() && !in.eof()) {
        perror(argv[1]);
        return 1;
    }
    kelp::target t;
    t.port = plain_port;
    t.tls = false;
    t.password = kelp::fixed_password(password);
    kelp::session s;
    kelp::request r;
    r.action = action_firmware;
    r.size = (uint32_t)image.size();
    kelp::status st = kelp::open_session(s, t, r);
    if (st) st = kelp::converse_firmware(s, image, false, nullptr, nullptr);
    if (!st) {
        fprintf(stderr, "bench_upload: %s\n", st.message.c_str());
        return 3;
    }
    return 0;
}
