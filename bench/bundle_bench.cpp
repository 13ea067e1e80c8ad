// In-process figures: RC4 and MD5 throughput, and building and verifying a
// 512 KiB configuration bundle through the daemon's own code paths.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <stdio.h>
#include <sys/mount.h>

#include <vector>

#include "md5.h"
#include "rc4.h"
#include "transfer/config_bundle.h"

static const size_t bundle_body = 512 * 1024 - 48;

static void BM_rc4(benchmark::State& state) {
    std::vector<uint8_t> data((size_t)state.range(0), 0x5a);
    const uint8_t key[8] = {0x5e, 0x13, 0xc0, 0x7a, 0x9d, 0x4b, 0x22, 0x68};
    for (auto _ : state) {
        do_rc4(data.data(), (int)data.size(), key, 8);
        benchmark::DoNotOptimize(data.data());
    }
    state.SetBytesProcessed((int64_t)state.iterations() * state.range(0));
}
BENCHMARK(BM_rc4)->Arg(512 * 1024);

static void BM_md5(benchmark::State& state) {
    std::vector<uint8_t> data((size_t)state.range(0), 0x5a);
    uint8_t digest[16];
    for (auto _ : state) {
        md5_state s;
        md5_init(&s);
        md5_add(&s, data.data(), data.size());
        md5_finish(&s, digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * state.range(0));
}
BENCHMARK(BM_md5)->Arg(512 * 1024);

static void write_plain() {
    FILE* f = fopen("/tmp/saved-configs", "w");
    std::vector<char> data(bundle_body, 'c');
    fwrite(data.data(), 1, data.size(), f);
    fclose(f);
}

static void BM_build_bundle(benchmark::State& state) {
    write_plain();
    for (auto _ : state)
        if (!build_config_bundle()) state.SkipWithError("build failed");
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)bundle_body);
}
BENCHMARK(BM_build_bundle);

static void BM_verify_bundle(benchmark::State& state) {
    write_plain();
    build_config_bundle();
    for (auto _ : state)
        if (!verify_config_bundle()) state.SkipWithError("verify failed");
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)bundle_body);
}
BENCHMARK(BM_verify_bundle);

int main(int argc, char** argv) {
    // The bundle lives at fixed paths under /tmp: use a private one.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) != 0) {
        perror("private /tmp (run as root)");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
