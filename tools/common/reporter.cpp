#include "reporter.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "actions.h"
#include "clock.h"
#include "outcome.h"

namespace {

std::string human_bytes(double n) {
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    while (n >= 1024 && u < 4) n /= 1024, u++;
    char text[32];
    snprintf(text, sizeof text, u == 0 ? "%.0f %s" : "%.1f %s", n, units[u]);
    return text;
}

std::string clock_text(double seconds) {
    long s = (long)(seconds + 0.5);
    char text[32];
    if (s >= 3600)
        snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

}  // namespace

void reporter::note(const std::string& text) { fprintf(stderr, "kelputil: %s\n", terminal_text(text).c_str()); }

int terminal_width(int fd) {
    winsize w{};
    int width = 0;
    if (ioctl(fd, TIOCGWINSZ, &w) == 0) width = w.ws_col;
    if (width <= 0 && getenv("COLUMNS")) width = atoi(getenv("COLUMNS"));
    if (width <= 0) width = 80;
    return width < 20 ? 20 : width > 1000 ? 1000 : width;
}

std::string meter_line(uint64_t done, uint64_t total, double seconds, int width) {
    int pct = total ? (int)(done * 100 / total) : 100;
    double rate = seconds > 0 ? done / seconds : 0;
    char percent[8];
    snprintf(percent, sizeof percent, "%3d%%", pct);
    std::string fields[] = {percent, " " + human_bytes((double)done) + "/" + human_bytes((double)total),
                            " " + human_bytes(rate) + "/s",
                            done < total && rate > 0 ? " " + clock_text((total - done) / rate) + " left" : ""};
    // The bar keeps at least 10 cells; the fields go from the last.
    int room = width - 1;
    int count = 4;
    auto length = [&](int n) {
        size_t l = 0;
        for (int i = 0; i < n; i++) l += fields[i].size();
        return (int)l;
    };
    while (count > 1 && room - length(count) - 3 < 10) count--;
    int cells = room - length(count) - 3;
    if (cells < 1) cells = 1;
    int filled = (int)((long long)cells * pct / 100);
    std::string line = "[" + std::string(filled, '#') + std::string(cells - filled, ' ') + "] ";
    for (int i = 0; i < count; i++) line += fields[i];
    if ((int)line.size() > room) line.resize(room);
    line.append(room - line.size(), ' ');
    return line;
}

terminal_reporter::terminal_reporter(bool quiet)
    : quiet_(quiet), meter_(!quiet && isatty(2)), start_(kelp::monotonic_seconds()) {}

void terminal_reporter::end_meter() {
    if (drawn_) fputc('\n', stderr);
    drawn_ = false;
}

void terminal_reporter::progress(uint64_t done, uint64_t total) {
    if (!meter_) return;
    double t = kelp::monotonic_seconds();
    if (done != total && t - last_ < 0.1) return;
    if (last_ < 0) start_ = t;
    last_ = t;
    fprintf(stderr, "\r%s", meter_line(done, total, t - start_, terminal_width(2)).c_str());
    drawn_ = true;
    if (done == total) end_meter();
    fflush(stderr);
}

void terminal_reporter::phase(const std::string& text) {
    if (quiet_) return;
    end_meter();
    fprintf(stderr, "%s...\n", terminal_text(text).c_str());
    last_ = -1;  // the meter that follows starts its clock afresh
}

void terminal_reporter::upgrade_line(const std::string& line) {
    end_meter();
    if (!quiet_) printf("upgrade: %s\n", terminal_text(line).c_str());
    flush_stdout();
}

void terminal_reporter::interval(double start, double end, uint64_t bytes) {
    if (!quiet_) printf("[%5.1f-%5.1f s] %10.1f Mbit/s\n", start, end, kelp::mbit_per_s(bytes, end - start));
    flush_stdout();
}

void json_reporter::progress(uint64_t done, uint64_t total) {
    double t = kelp::monotonic_seconds();
    if (done != total && t - last_ < 0.5) return;
    last_ = t;
    printf("%s\n", json_line({{"event", "progress"}, {"done", done}, {"total", total}}).c_str());
    flush_stdout();
}

void json_reporter::phase(const std::string& text) {
    printf("%s\n", json_line({{"event", "phase"}, {"text", text}}).c_str());
    flush_stdout();
}

void json_reporter::upgrade_line(const std::string& line) {
    printf("%s\n", json_line({{"event", "upgrade"}, {"line", line}}).c_str());
    flush_stdout();
}

void json_reporter::interval(double start, double end, uint64_t bytes) {
    printf("%s\n", json_line({{"event", "interval"},
                              {"start", json_seconds(start)},
                              {"end", json_seconds(end)},
                              {"bytes", bytes},
                              {"mbit_per_s", kelp::mbit_per_s(bytes, end - start)}})
                       .c_str());
    flush_stdout();
}
