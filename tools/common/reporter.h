// How a running command tells the operator what it is doing: a meter on the
// terminal, JSON lines before the final object, or nothing (a fleet host).
#pragma once

#include <stdint.h>

#include <string>

class reporter {
public:
    virtual ~reporter() = default;
    virtual void progress(uint64_t /*done*/, uint64_t /*total*/) {}
    virtual void phase(const std::string& /*text*/) {}
    virtual void upgrade_line(const std::string& /*line*/) {}
    virtual void interval(double /*start*/, double /*end*/, uint64_t /*bytes*/) {}
    // Side remarks (first contact with a certificate, warnings, --verbose):
    // always on stderr, never in the JSON stream.
    virtual void note(const std::string& text);
};

// Single device, for people: the meter and phases on stderr when it is a
// terminal, upgrade lines and throughput intervals on stdout.
class terminal_reporter : public reporter {
public:
    explicit terminal_reporter(bool quiet);
    void progress(uint64_t done, uint64_t total) override;
    void phase(const std::string& text) override;
    void upgrade_line(const std::string& line) override;
    void interval(double start, double end, uint64_t bytes) override;

private:
    void end_meter();
    bool quiet_, meter_;
    bool drawn_ = false;
    double start_, last_ = -1;
};

// Single device, for programs: one JSON object per line with an "event" key.
class json_reporter : public reporter {
public:
    void progress(uint64_t done, uint64_t total) override;
    void phase(const std::string& text) override;
    void upgrade_line(const std::string& line) override;
    void interval(double start, double end, uint64_t bytes) override;

private:
    double last_ = -1;
};

// One meter line of exactly width - 1 characters (the last column would
// wrap on some terminals): bar, percentage, bytes, rate and time left, the
// later fields dropped first when the line is narrow.
std::string meter_line(uint64_t done, uint64_t total, double seconds, int width);
// The terminal's width: the window's, else COLUMNS, else 80.
int terminal_width(int fd);
