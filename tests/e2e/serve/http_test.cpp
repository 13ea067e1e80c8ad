// kelputil serve's HTTP side under load: clients waiting for backups of
// silent routers and idle connections must not slow anyone else down, and
// a stop answers them all at once. Then what a client sees of the server
// itself: bodiless POSTs, encodings, limits, addresses and TLS files.
#include "tool_harness.h"

namespace {

constexpr int limit_ms = 180000;
const std::string api = "http://127.0.0.1:8750/api/v1";

// 64 idle connections and 192 more clients waiting on the silent routers
// (POSTs without a body), held for a minute.
const std::string hold_connections =
    "python3 -c 'import socket, time\n"
    "idle = [socket.create_connection((\"127.0.0.1\", 8750)) for _ in range(64)]\n"
    "waits = [socket.create_connection((\"127.0.0.1\", 8750)) for _ in range(192)]\n"
    "for i, s in enumerate(waits):\n"
    "    s.sendall(b\"POST /api/v1/hosts/router%d/backup?wait=1 HTTP/1.1\\r\\nHost: t\\r\\n\\r\\n\" % (2 + i % 2))\n"
    "time.sleep(60)' & ";
// The median of five timings of /PATH, against 100 ms.
std::string quick(const std::string& path) {
    return "for i in 1 2 3 4 5; do curl -s -o /dev/null -w '%{time_total}\\n' http://127.0.0.1:8750/" + path +
           "; done | sort -n | sed -n 3p | awk '{print ($1 < 0.1 ? \"" + path + " quick\" : \"" + path +
           " slow: \" $1)}'; ";
}
std::string code_of(const std::string& args) { return "curl -s -o /dev/null -w '%{http_code} ' " + args + "; "; }
const std::string until_exit = "n=0; until [ -s status ] || [ $n -ge 150 ]; do n=$((n+1)); sleep 0.1; done; ";

class serve_http : public tool_test {};

TEST_F(serve_http, waiting_clients_hold_no_thread_and_hear_of_a_stop) {
    run_steps({
        {"(kelputil serve -i $KELP_INVENTORY --into bk --interval 1h --timeout 20 -j 4 2> log & echo $! > pid; "
         "wait $!; echo $? > status) & until_in 'API on' log; for i in $(seq 64); do "
         "curl -s -o body$i -w '%{http_code}\\n' -d '' \"" + api + "/hosts/router$((2 + i % 2))/backup?wait=1\" "
         "> code$i & done; " + hold_connections +
             "n=0; until [ $(grep -c 'asked for' log) -ge 256 ] || [ $n -ge 150 ]; do n=$((n+1)); sleep 0.1; done; "
             "echo \"$(grep -c 'asked for' log) waiting, $(cat code* | grep -c .) answered\"; " +
             quick("healthz") + quick("metrics") +
             "curl -s -D h -o b -d '' '" + api + "/hosts/router2/backup?wait=1'; head -1 h; grep -i '^retry-after' h; "
             "jq -r .error b; curl -s -o /dev/null -w '%{http_code} %{time_total}\\n' -X POST " + api +
             "/hosts/router1/backup | awk '{print $1, ($2 < 1 ? \"at once\" : \"after \" $2 \" s\")}'",
         0, {"256 waiting, 0 answered\nhealthz quick\nmetrics quick\n", "HTTP/1.1 503", "Retry-After: ",
             "256 clients wait for answers already: try again later\n202 at once"}},
        // Nobody waits past the stop, and it is not held up by them.
        {"kill -TERM $(cat pid); n=0; until [ $(cat code* | grep -c 503) -ge 64 ] || [ $n -ge 50 ]; do n=$((n+1)); "
         "sleep 0.1; done; echo \"$(cat code* | grep -c 503) told\"; [ $n -le 20 ] && echo 'within 2 s'; "
             "jq -r .error body1; " +
             until_exit + "echo \"exit $(cat status)\"",
         0, {"64 told\nwithin 2 s\nthe service is stopping\nexit 0"}},
    }, {"--fleet", "3", "--fault", "silent:2", "--fault", "silent:3"}, limit_ms);
}

// What a client sees of the server: the page's files gzipped when it takes
// gzip (never brotli), HEAD, the errors of the server itself, and the
// listening address and TLS files refused at the start with a reason.
TEST_F(serve_http, answers_addresses_and_tls_files) {
    run_steps({
        {"kelputil serve -i $KELP_INVENTORY --into bk 2> log & echo $! > pid; until_in 'API on' log; "
         "curl -s -H 'Accept-Encoding: br, gzip' -D h -o js http://127.0.0.1:8750/js/main.js; "
         "curl -s http://127.0.0.1:8750/js/main.js > plain; grep -ci '^content-encoding: gzip' h; "
         "curl -s -D - -o /dev/null -H 'Accept-Encoding: gzip' http://127.0.0.1:8750/metrics | "
         "grep -ci '^content-encoding: gzip'; gzip -dc < js | cmp - plain && echo same; "
         "curl -sI http://127.0.0.1:8750/ | head -1; curl -s -D - -o /dev/null -X DELETE " +
             api + "/hosts | grep -i '^allow'; curl -s -D - -o /dev/null " + api +
             "/hosts/router1/backup | grep -i '^allow'; " +
             code_of("'" + api + "/hosts?x=" + std::string(9000, 'a') + "'") +
             "head -c 70000 /dev/zero | " + code_of("--data-binary @- " + api + "/hosts/router1/backup") +
             code_of("http://127.0.0.1:8750/api/v2") + "kelputil serve -i $KELP_INVENTORY --into bk2",
         1, {"1\n1\nsame\nHTTP/1.1 200 OK", "Allow: GET, HEAD", "Allow: POST", "414 413 404 ",
             "cannot listen on 127.0.0.1:8750: the address is in use: stop what listens there, or give another "
             "--listen"}},
        // The first service gone (it holds the repository), the same on IPv6.
        {"kill $(cat pid); n=0; while kill -0 $(cat pid) 2>/dev/null && [ $n -lt 150 ]; do n=$((n+1)); sleep 0.1; "
         "done; sysctl -qw net.ipv6.conf.lo.disable_ipv6=0; kelputil serve -i $KELP_INVENTORY --into bk "
         "--listen '[::1]:8751' 2> log6 & until_in 'API on' log6; "
         "curl -s -g 'http://[::1]:8751/healthz' | jq -r .status; grep -o 'API on .*' log6; kill $!",
         0, {"ok\nAPI on http://[::1]:8751"}},
        {"for k in 1 2; do openssl req -x509 -newkey rsa:2048 -nodes -keyout k$k.pem -out c$k.pem -days 1 "
         "-subj /CN=kelp 2>/dev/null; done; "
         "kelputil serve -i $KELP_INVENTORY --into bk3 --tls-cert c1.pem --tls-key k2.pem",
         1, {"cannot serve HTTPS with --tls-cert c1.pem and --tls-key k2.pem: check that both are PEM and belong "
             "together"}},
    }, {"--fleet", "1"}, limit_ms);
}

}  // namespace
