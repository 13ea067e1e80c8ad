// Setting up one session: connect, TLS and the certificate's trust, the
// greeting, the login and the request, all within the target's time-out.
//
// The daemon serves one connection per process and its supervisor starts the
// next process a moment after the last one exits. Two things follow, and they
// are the only reasons to try again: a refusal in that moment, and a
// connection that queued behind the previous session and was dropped when
// that process closed its listener, before any greeting.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "actions.h"
#include "net.h"
#include "retry.h"
#include "tls_transport.h"

namespace kelp {

password_fn fixed_password(const std::string& password) {
    return [password](std::string* out) {
        *out = password;
        return ok();
    };
}

namespace {

// Longer than a supervisor's restart pause, also on a router busy enough to
// take seconds over starting the next daemon.
constexpr int refused_grace_ms = 3000;
constexpr int retry_pause_ms = 50;
// The daemon gives up on a login that has not arrived after 10 s.
constexpr int device_login_wait_ms = 8000;

std::string where(const target& t) { return t.host + ":" + std::to_string(t.port); }

void note(const target& t, const std::string& line) {
    if (t.log) t.log(line);
}

status busy(const target& t, long long waited_ms) {
    return fail(error_kind::timed_out, where(t) + " accepted the connection but sent no greeting within " +
                                           seconds_text(waited_ms / 1000.0) +
                                           ": the device serves one session at a time and may be busy with "
                                           "another; try again later, or raise --timeout");
}

status connect_step(session& s, const target& t, long long deadline) {
    long long refused_until = std::min(deadline, monotonic_ms() + refused_grace_ms);
    for (;;) {
        long long left = deadline - monotonic_ms();
        if (left <= 0) return fail(error_kind::timed_out, "connecting to " + where(t) + " timed out");
        note(t, "connecting to " + where(t));
        int fd = -1;
        bool refused = false;
        status st = connect_tcp(t.host, t.port, (int)left, &fd, &refused);
        if (st) {
            s.adopt(fd, t.timeout_ms);
            note(t, "connected");
            return st;
        }
        if (!refused) return st;
        if (!pause_within(retry_pause_ms, refused_until))
            return fail(error_kind::connect_failed, where(t) +
                                                        " refused the connection: is kelputild running there, "
                                                        "and is the port right? (TLS 857, plain 856)");
        note(t, "refused; the device may be between two sessions, trying again");
    }
}

status tls_step(session& s, const target& t, long long started) {
    tls_facts facts;
    status st = start_tls(s, t.pin_sha256, &facts);
    if (st.kind == error_kind::wrong_protocol)
        return fail(error_kind::wrong_protocol,
                    where(t) + " speaks the plain protocol, not TLS: add --plain, or use the TLS port 857");
    if (st.kind == error_kind::timed_out) return busy(t, monotonic_ms() - started);
    if (st.kind == error_kind::certificate) st.message = where(t) + ": " + st.message;
    if (!st) return st;
    note(t, facts.version + ", " + facts.cipher + ", certificate SHA-256 " + facts.peer_sha256);
    if (t.pin_sha256.empty() && t.trust) return t.trust(where(t), facts.peer_sha256);
    return st;
}

// Whether a TLS server sits behind a silent port: it ends the connection on
// a record it cannot parse, where a busy plain daemon just keeps it queued.
bool answers_as_tls(int fd, int wait_ms) {
    static const uint8_t not_a_record[5] = {0x00, 0x03, 0x03, 0x00, 0x01};
    if (send(fd, not_a_record, sizeof not_a_record, MSG_NOSIGNAL) != (ssize_t)sizeof not_a_record) return false;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, wait_ms) <= 0) return false;
    uint8_t b;
    ssize_t n = recv(fd, &b, 1, MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno == ECONNRESET) || (n == 1 && b == 0x15);  // end, reset or an alert
}

status greet_step(session& s, const target& t, long long started, uint8_t challenge[challenge_len]) {
    if (t.tls) {
        status st = s.read_greeting(challenge);
        return st.kind == error_kind::timed_out ? busy(t, monotonic_ms() - started) : st;
    }
    // Keep the end of the wait for asking whether the port speaks TLS.
    int probe_ms = std::max(1, std::min(1000, t.timeout_ms / 4));
    int wait = s.wait_ms();
    status st = s.read_greeting(challenge, std::max(1, wait - probe_ms));
    if (st.kind != error_kind::timed_out) return st;
    if (answers_as_tls(s.fd(), std::max(1, std::min(probe_ms, s.wait_ms()))))
        return fail(
            error_kind::wrong_protocol,
            where(t) + " answers as a TLS server: drop --plain (TLS is the default), or use the plain port 856");
    return busy(t, monotonic_ms() - started);
}

status dropped_too_often(const target& t, int attempts, long long started) {
    return fail(error_kind::closed, where(t) + " closed the connection before its greeting " +
                                        std::to_string(attempts) + " times in " +
                                        seconds_text((monotonic_ms() - started) / 1000.0) + ": is it a kelputild?");
}

}  // namespace

status open_session(session& s, const target& t, const request& r) {
    long long started = monotonic_ms();
    long long deadline = started + t.timeout_ms;
    if (t.deadline_ms > 0) deadline = std::min(deadline, t.deadline_ms);
    for (int attempt = 1;; attempt++) {
        s.close();
        status st = connect_step(s, t, deadline);
        if (st) s.set_deadline(deadline);
        if (st && t.tls) st = tls_step(s, t, started);
        uint8_t challenge[challenge_len];
        if (st) st = greet_step(s, t, started, challenge);
        if (st.kind == error_kind::closed) {
            if (!pause_within(retry_pause_ms, deadline)) return dropped_too_often(t, attempt, started);
            note(t, "dropped before the greeting (the device was between two sessions); trying again");
            continue;
        }
        if (!st) return st;
        note(t, "greeting received");

        std::string password;
        long long asked = monotonic_ms();
        if (!t.password) return fail(error_kind::local, "no password given");
        if (!(st = t.password(&password))) return st;
        long long spent = monotonic_ms() - asked;
        deadline += spent;  // the operator's typing is not the device's delay
        if (spent > device_login_wait_ms) {
            note(t, "the device has stopped waiting for the login meanwhile; connecting again");
            continue;
        }
        s.set_deadline(deadline);
        if (!(st = s.authenticate(challenge, password))) return st;
        note(t, "logged in");
        if (t.log) s.set_trail(t.log);
        s.set_deadline(t.deadline_ms);
        note(t, "request: action " + std::to_string(r.action) + ", flags " + std::to_string(r.flags) +
                    (r.size ? ", " + std::to_string(r.size) + " bytes" : ""));
        return s.send_request(r);
    }
}

}  // namespace kelp
