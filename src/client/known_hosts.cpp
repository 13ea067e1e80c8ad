#include "known_hosts.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "folders.h"
#include "lines.h"

namespace kelp {

namespace {

// Creates the missing folders of the default file, private as ssh's are.
// A file the operator named must be in a folder that exists: a typo there
// should not leave a trail of new folders.
status make_parents(const std::string& file) {
    if (file != default_known_hosts_file()) {
        std::string dir = folder_of(file);
        struct stat st;
        if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            return fail(error_kind::local, "cannot use " + file + ": the folder " + dir +
                                               " does not exist; create it, or name a file in another folder");
        return ok();
    }
    return make_parent_folders(file);
}

std::string read_all(int fd) {
    std::string text;
    char buf[4096];
    ssize_t n;
    off_t at = 0;
    while ((n = pread(fd, buf, sizeof buf, at)) > 0) {
        text.append(buf, (size_t)n);
        at += n;
    }
    return text;
}

struct entry {
    std::string sha256;
    int line = 0;
};

// "host:port" and 64 hex digits, one blank apart.
bool well_formed(const std::string& line) {
    size_t space = line.find(' ');
    if (space == 0 || space == std::string::npos || line.size() - space - 1 != 64) return false;
    if (line.find(':') > space) return false;
    return line.find_first_not_of("0123456789abcdef", space + 1) == std::string::npos;
}

// A line that is not one of ours stops the check: trusting on first
// contact past a damaged line could accept a certificate the line refused.
status find(const std::string& text, const std::string& file, const std::string& where, entry* out) {
    int number = 0;
    for (std::string_view view : lines_of(text)) {
        std::string line(view);
        number++;
        if (line.empty() || line[0] == '#') continue;
        if (!well_formed(line))
            return fail(error_kind::local, file + ":" + std::to_string(number) +
                                               " is not a known host (HOST:PORT and a SHA-256 of 64 hex digits): "
                                               "correct or delete that line");
        size_t space = line.find(' ');
        if (line.compare(0, space, where) == 0 && out->line == 0) *out = {line.substr(space + 1), number};
    }
    return ok();
}

}  // namespace

std::string default_known_hosts_file() {
    const char* config = getenv("XDG_CONFIG_HOME");
    if (config && *config) return std::string(config) + "/kelputil/known_hosts";
    const char* home = getenv("HOME");
    if (home && *home) return std::string(home) + "/.config/kelputil/known_hosts";
    return "";
}

status check_known_host(const std::string& file, const std::string& where, const std::string& sha256,
                        bool* first_contact) {
    *first_contact = false;
    status st = make_parents(file);
    if (!st) return st;
    int fd = open(file.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) return cannot("open", file);
    if (flock(fd, LOCK_EX) != 0) {
        st = cannot("lock", file);
        close(fd);
        return st;
    }
    std::string text = read_all(fd);
    entry known;
    st = find(text, file, where, &known);
    if (!st) {
        // The damaged line says what to do.
    } else if (known.line == 0) {
        // A line cut short by a crash must not swallow this one.
        std::string line = (text.empty() || text.back() == '\n' ? "" : "\n") + where + " " + sha256 + "\n";
        if (write(fd, line.data(), line.size()) != (ssize_t)line.size())
            st = cannot("write", file);
        else
            *first_contact = true;
    } else if (known.sha256 != sha256) {
        std::string at = file + ":" + std::to_string(known.line);
        st =
            fail(error_kind::certificate, "the certificate of " + where + " has changed: it now has SHA-256 " + sha256 +
                                              ", and " + at + " holds " + known.sha256 +
                                              ". Someone may be intercepting the connection, or the router has "
                                              "a new certificate. If the change is expected, delete line " +
                                              std::to_string(known.line) + " of " + file + ", or pass --pin " + sha256);
    }
    close(fd);  // also releases the lock
    return st;
}

}  // namespace kelp
