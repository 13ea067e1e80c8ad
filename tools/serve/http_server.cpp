#include "http_server.h"

#include <errno.h>
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <regex>
#include <thread>

#include "durations.h"
#include "files.h"

using steady = std::chrono::steady_clock;
using kelp::error_kind;
using kelp::fail;

namespace {

// Nothing the API reads comes in a body: a larger one is refused.
constexpr size_t max_body = 64 << 10;
std::string too_large_body() {
    return "the request body is over " + size_text(max_body) + ": this API reads none that large";
}
// Longer addresses are refused as cpp-httplib did; libmicrohttpd itself
// refuses a request line beyond its connection memory.
constexpr size_t max_target = 8192;
// Smaller answers gain nothing from gzip.
constexpr size_t gzip_from = 1024;
// How long a stop lets the last answers go out.
constexpr auto stop_grace = std::chrono::seconds(2);

}  // namespace

std::string http_request::get_param_value(const char* key) const {
    auto it = params.find(key);
    return it == params.end() ? "" : it->second;
}

std::string http_request::get_header_value(const char* name) const {
    auto it = headers.find(name);
    return it == headers.end() ? "" : it->second;
}

std::shared_ptr<http_later> http_answer::later(long long deadline_ms, http_answer on_deadline) {
    http_answer refusal;  // the server's, or this on a quick route
    refusal.status = 500;
    refusal.set_content("internal error: this route cannot answer later\n", "text/plain");
    std::shared_ptr<http_later> handle = defer_ ? defer_(deadline_ms, std::move(on_deadline), &refusal) : nullptr;
    if (handle)
        deferred_ = true;
    else
        *this = std::move(refusal);
    return handle;
}

namespace {

struct compiled_route {
    std::string method;
    std::regex pattern;
    const http_route* route;
};

// One request, from its headers until its answer is sent.
struct exchange : http_later {
    http_server::core* server = nullptr;
    MHD_Connection* conn = nullptr;
    http_request req;
    const http_route* route = nullptr;
    bool started = false, suspended = false, body_too_big = false;
    std::mutex lock;
    bool answered = false;  // the first answer won; result is set
    http_answer result;
    // While it waits for an answer given later: its place among the deadlines.
    bool waiting = false;
    std::multimap<steady::time_point, std::weak_ptr<exchange>>::iterator deadline;
    http_answer on_deadline;

    void answer(http_answer a) override;
};

}  // namespace

struct http_server::core {
    http_settings cfg;
    std::vector<http_route> routes;
    std::vector<compiled_route> table;
    MHD_Daemon* daemon = nullptr;
    int listen_fd = -1;
    std::string cert, key;

    std::mutex lock;
    std::condition_variable work_ready, deadline_moved, exchanges_done;
    std::deque<std::shared_ptr<exchange>> jobs;
    std::vector<std::thread> workers;
    std::thread deadline_thread;
    std::multimap<steady::time_point, std::weak_ptr<exchange>> deadlines;
    size_t waiting = 0, live = 0;
    std::atomic<bool> stopping = false;  // no new waits, every request answered 503
    bool quit = false;                   // the handlers' threads end

    http_answer error(int status, const std::string& message) const {
        if (cfg.error) return cfg.error(status, message);
        http_answer a;
        a.status = status;
        a.set_content(message + "\n", "text/plain");
        return a;
    }
    std::shared_ptr<http_later> defer(const std::shared_ptr<exchange>& ex, long long deadline_ms,
                                      http_answer on_deadline, http_answer* refusal);
    void deliver(exchange& ex, http_answer a);
    void run(const std::shared_ptr<exchange>& ex);
    void work();
    void watch_deadlines();
};

void exchange::answer(http_answer a) {
    {
        std::lock_guard<std::mutex> hold(lock);
        if (answered) return;  // the server may be gone by now
        answered = true;
    }
    server->deliver(*this, std::move(a));
}

namespace {

// --- listening --------------------------------------------------------

std::string address_text(const std::string& host, int port) {
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string listen_advice(int err) {
    switch (err) {
    case EADDRINUSE: return "the address is in use: stop what listens there, or give another --listen";
    case EADDRNOTAVAIL: return "the address is not this machine's: give one of its own to --listen";
    case EACCES: return "ports below 1024 need privileges: give another port to --listen";
    default: return std::string(strerror(err)) + " (--listen)";
    }
}

// Our own socket, so that an address in use is told apart from a TLS
// failure. IPv6 "::" takes IPv4 clients too, as it did before.
kelp::status open_listener(const std::string& host, int port, int* out) {
    std::string where = address_text(host, port);
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    int gai = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (gai != 0)
        return fail(error_kind::local, "cannot listen on " + where + ": " + gai_strerror(gai) + " (--listen)");
    int err = 0;
    for (addrinfo* a = found; a; a = a->ai_next) {
        int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
        if (fd < 0) {
            err = errno;
            continue;
        }
        int on = 1, off = 0;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (a->ai_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
        if (bind(fd, a->ai_addr, a->ai_addrlen) == 0 && listen(fd, 128) == 0) {
            freeaddrinfo(found);
            *out = fd;
            return kelp::ok();
        }
        err = errno;
        close(fd);
    }
    freeaddrinfo(found);
    return fail(error_kind::local, "cannot listen on " + where + ": " + listen_advice(err));
}

kelp::status read_pem(const char* option, const std::string& path, std::string* out) {
    kelp::bytes data;
    kelp::status st = read_input(path, &data, settings_file_max);
    if (!st) return fail(error_kind::local, std::string(option) + ": " + st.message);
    out->assign(data.begin(), data.end());
    explicit_bzero(data.data(), data.size());
    return st;
}

// --- the answer's form ------------------------------------------------

// "gzip" among the codings the client takes, without q=0.
bool accepts_gzip(const std::string& accept) {
    static const std::regex coding(R"(\s*(gzip|\*)\s*(;\s*q\s*=\s*([0-9.]+))?\s*(,|$))", std::regex::icase);
    for (std::sregex_iterator it(accept.begin(), accept.end(), coding), end; it != end; ++it)
        if (!(*it)[3].matched || atof((*it)[3].str().c_str()) > 0) return true;
    return false;
}

bool compressible(const std::string& type) {
    return type.rfind("text/", 0) == 0 || type.find("json") != std::string::npos ||
           type.find("javascript") != std::string::npos || type.find("xml") != std::string::npos;
}

bool gzip(const std::string& in, std::string* out) {
    z_stream z{};
    if (deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) return false;
    out->resize(deflateBound(&z, in.size()));
    z.next_in = (Bytef*)in.data();
    z.avail_in = (uInt)in.size();
    z.next_out = (Bytef*)out->data();
    z.avail_out = (uInt)out->size();
    bool done = deflate(&z, Z_FINISH) == Z_STREAM_END;
    out->resize(z.total_out);
    deflateEnd(&z);
    return done;
}

// Compressed when the client takes gzip and it pays.
void shape(const http_request& req, http_answer& a) {
    if (!compressible(a.content_type)) return;
    a.set_header("Vary", "Accept-Encoding");
    std::string packed;
    if (a.body.size() < gzip_from || !accepts_gzip(req.get_header_value("Accept-Encoding")) || !gzip(a.body, &packed))
        return;
    a.body = std::move(packed);
    a.set_header("Content-Encoding", "gzip");
}

void free_body(void* body) { delete (std::string*)body; }

MHD_Result send_answer(MHD_Connection* conn, http_answer& a) {
    auto* body = new std::string(std::move(a.body));
    MHD_Response* r =
        MHD_create_response_from_buffer_with_free_callback_cls(body->size(), body->data(), free_body, body);
    if (!r) {
        delete body;
        return MHD_NO;
    }
    if (!a.content_type.empty()) MHD_add_response_header(r, "Content-Type", a.content_type.c_str());
    for (const auto& [name, value] : a.headers) MHD_add_response_header(r, name.c_str(), value.c_str());
    MHD_Result ok = MHD_queue_response(conn, (unsigned)a.status, r);
    MHD_destroy_response(r);
    return ok;
}

// --- reading the request ----------------------------------------------

MHD_Result collect(void* cls, MHD_ValueKind, const char* key, const char* value) {
    auto* into = (std::map<std::string, std::string>*)cls;
    (*into)[key] = value ? value : "";
    return MHD_YES;
}

MHD_Result collect_header(void* cls, MHD_ValueKind, const char* key, const char* value) {
    auto* into = (decltype(http_request::headers)*)cls;
    (*into)[key] = value ? value : "";
    return MHD_YES;
}

void read_head(MHD_Connection* conn, const char* url, const char* method, http_request* req) {
    req->method = method;
    req->path = url;
    MHD_get_connection_values(conn, MHD_GET_ARGUMENT_KIND, collect, &req->params);
    MHD_get_connection_values(conn, MHD_HEADER_KIND, collect_header, &req->headers);
}

size_t target_size(const http_request& req) {
    size_t n = req.path.size();
    for (const auto& [key, value] : req.params) n += key.size() + value.size() + 2;
    return n;
}

}  // namespace

// --- routing ------------------------------------------------------------

namespace {

// The route for the request, or the error that answers it.
const http_route* route_for(const http_server::core& c, http_request& req, http_answer* error) {
    std::string allowed, asked = req.method == "HEAD" ? "GET" : req.method;
    for (const compiled_route& r : c.table) {
        std::smatch m;
        if (!std::regex_match(req.path, m, r.pattern)) continue;
        if (r.method == asked) {
            req.matches.assign(m.begin(), m.end());
            return r.route;
        }
        if (allowed.find(r.method) == std::string::npos) allowed += (allowed.empty() ? "" : ", ") + r.method;
    }
    if (allowed.empty()) {
        *error = c.error(404, "no such resource: " + req.path);
        return nullptr;
    }
    *error = c.error(405, req.method + " is not allowed on " + req.path + ": use " + allowed);
    error->set_header("Allow", allowed.find("GET") != std::string::npos ? allowed + ", HEAD" : allowed);
    return nullptr;
}

// True when the request is answered here and now (*out); false when its
// handler must run on a thread of its own.
bool answered_at_once(http_server::core& c, exchange& ex, http_answer* out) {
    http_request& req = ex.req;
    if (c.stopping) return *out = c.error(503, "the service is stopping"), true;
    if (target_size(req) > max_target)
        return *out = c.error(414, "the address is longer than " + std::to_string(max_target) + " bytes"), true;
    if (ex.body_too_big) return *out = c.error(413, too_large_body()), true;
    if (c.cfg.before && c.cfg.before(req, *out)) return true;
    ex.route = route_for(c, req, out);
    if (!ex.route) return true;
    if (!ex.route->quick) return false;
    ex.route->handler(req, *out);
    return true;
}

MHD_Result on_request(void* cls, MHD_Connection* conn, const char* url, const char* method, const char*,
                      const char* upload, size_t* upload_size, void** slot) {
    auto* c = (http_server::core*)cls;
    if (!*slot) {
        auto ex = std::make_shared<exchange>();
        ex->server = c;
        ex->conn = conn;
        read_head(conn, url, method, &ex->req);
        *slot = new std::shared_ptr<exchange>(ex);
        {
            std::lock_guard<std::mutex> hold(c->lock);
            c->live++;
        }
        if (strtoull(ex->req.get_header_value("Content-Length").c_str(), nullptr, 10) <= max_body) return MHD_YES;
        // Refused before it is read; libmicrohttpd then closes the connection.
        http_answer big = c->error(413, too_large_body());
        return send_answer(conn, big);
    }
    std::shared_ptr<exchange> ex = *(std::shared_ptr<exchange>*)*slot;
    if (*upload_size) {
        if (ex->req.body.size() + *upload_size > max_body)
            ex->body_too_big = true;
        else
            ex->req.body.append(upload, *upload_size);
        *upload_size = 0;
        return MHD_YES;
    }
    if (ex->suspended) {  // resumed with its answer
        std::lock_guard<std::mutex> hold(ex->lock);
        ex->suspended = false;
        return send_answer(conn, ex->result);
    }
    if (ex->started) return MHD_YES;
    ex->started = true;
    http_answer now;
    if (answered_at_once(*c, *ex, &now)) {
        shape(ex->req, now);
        return send_answer(conn, now);
    }
    // The handler runs on a thread of its own; the connection waits without one.
    std::unique_lock<std::mutex> hold(c->lock);
    if (c->quit) {
        hold.unlock();
        now = c->error(503, "the service is stopping");
        return send_answer(conn, now);
    }
    MHD_suspend_connection(conn);
    ex->suspended = true;
    c->jobs.push_back(ex);
    c->work_ready.notify_one();
    return MHD_YES;
}

void on_completed(void* cls, MHD_Connection*, void** slot, MHD_RequestTerminationCode) {
    auto* c = (http_server::core*)cls;
    if (!*slot) return;
    delete (std::shared_ptr<exchange>*)*slot;
    *slot = nullptr;
    std::lock_guard<std::mutex> hold(c->lock);
    c->live--;
    c->exchanges_done.notify_all();
}

}  // namespace

// --- handlers' threads and deferred answers -----------------------------

std::shared_ptr<http_later> http_server::core::defer(const std::shared_ptr<exchange>& ex, long long deadline_ms,
                                                     http_answer on_deadline, http_answer* refusal) {
    std::lock_guard<std::mutex> hold(lock);
    if (stopping) {
        *refusal = error(503, "the service is stopping");
        return nullptr;
    }
    if (waiting >= cfg.max_waiting) {
        *refusal = error(503, std::to_string(waiting) + " clients wait for answers already: try again later");
        refusal->set_header("Retry-After", std::to_string(cfg.retry_after_s));
        return nullptr;
    }
    waiting++;
    ex->waiting = true;
    ex->on_deadline = std::move(on_deadline);
    ex->deadline = deadlines.emplace(steady::now() + std::chrono::milliseconds(deadline_ms), ex);
    deadline_moved.notify_one();
    return ex;
}

// The first answer of a suspended request: sent from the network thread.
void http_server::core::deliver(exchange& ex, http_answer a) {
    shape(ex.req, a);
    {
        std::lock_guard<std::mutex> hold(lock);
        if (ex.waiting) {
            ex.waiting = false;
            waiting--;
            deadlines.erase(ex.deadline);
        }
    }
    std::lock_guard<std::mutex> hold(ex.lock);
    ex.result = std::move(a);
    MHD_resume_connection(ex.conn);
}

void http_server::core::run(const std::shared_ptr<exchange>& ex) {
    http_answer res;
    res.defer_ = [this, ex](long long deadline_ms, http_answer on_deadline, http_answer* refusal) {
        return defer(ex, deadline_ms, std::move(on_deadline), refusal);
    };
    try {
        ex->route->handler(ex->req, res);
    } catch (const std::exception& e) {
        res = error(500, std::string("internal error: ") + e.what());
    }
    if (!res.deferred_) ex->answer(std::move(res));
}

void http_server::core::work() {
    std::unique_lock<std::mutex> hold(lock);
    for (;;) {
        work_ready.wait(hold, [&] { return quit || !jobs.empty(); });
        if (jobs.empty()) return;
        std::shared_ptr<exchange> ex = std::move(jobs.front());
        jobs.pop_front();
        bool late = quit;
        hold.unlock();
        if (late)
            ex->answer(error(503, "the service is stopping"));
        else
            run(ex);
        hold.lock();
    }
}

void http_server::core::watch_deadlines() {
    std::unique_lock<std::mutex> hold(lock);
    while (!quit) {
        if (deadlines.empty()) {
            deadline_moved.wait(hold);
            continue;
        }
        // A copy: the entry may be gone when the wait reads the time again.
        steady::time_point next = deadlines.begin()->first;
        if (deadline_moved.wait_until(hold, next) == std::cv_status::no_timeout) continue;
        std::vector<std::shared_ptr<exchange>> due;
        for (auto it = deadlines.begin(); it != deadlines.end() && it->first <= steady::now();) {
            if (auto ex = it->second.lock())
                due.push_back(ex), ++it;
            else
                it = deadlines.erase(it);
        }
        hold.unlock();
        for (auto& ex : due) ex->answer(ex->on_deadline);
        hold.lock();
    }
}

// --- the server -----------------------------------------------------------

http_server::http_server(http_settings settings, std::vector<http_route> routes) : core_(std::make_unique<core>()) {
    core_->cfg = std::move(settings);
    core_->routes = std::move(routes);
    for (const http_route& r : core_->routes) core_->table.push_back({r.method, std::regex(r.pattern), &r});
}

http_server::~http_server() { stop(); }

kelp::status http_server::start() {
    core& c = *core_;
    const http_settings& s = c.cfg;
    bool tls = !s.tls_cert.empty();
    kelp::status st = tls ? read_pem("--tls-cert", s.tls_cert, &c.cert) : kelp::ok();
    if (st && tls) st = read_pem("--tls-key", s.tls_key, &c.key);
    if (st) st = open_listener(s.host, s.port, &c.listen_fd);
    if (!st) return st;
    unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | (tls ? MHD_USE_TLS : 0);
    std::vector<MHD_OptionItem> options = {
        {MHD_OPTION_LISTEN_SOCKET, c.listen_fd, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, (intptr_t)s.max_connections, nullptr},
        {MHD_OPTION_PER_IP_CONNECTION_LIMIT, (intptr_t)s.max_per_address, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, (intptr_t)s.idle_timeout_s, nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, (intptr_t)on_completed, &c},
    };
    if (tls) {
        options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, (void*)c.cert.c_str()});
        options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, (void*)c.key.c_str()});
    }
    options.push_back({MHD_OPTION_END, 0, nullptr});
    c.daemon =
        MHD_start_daemon(flags, 0, nullptr, nullptr, on_request, &c, MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
    if (!c.daemon) {  // the process ends: whether libmicrohttpd closed the socket does not matter
        c.listen_fd = -1;
        return fail(error_kind::local,
                    tls ? "cannot serve HTTPS with --tls-cert " + s.tls_cert + " and --tls-key " + s.tls_key +
                              ": check that both are PEM and belong together"
                        : "cannot serve on " + address_text(s.host, s.port) + ": the HTTP server did not start");
    }
    for (int i = 0; i < s.threads; i++) c.workers.emplace_back([&c] { c.work(); });
    c.deadline_thread = std::thread([&c] { c.watch_deadlines(); });
    return kelp::ok();
}

int http_server::port() const {
    sockaddr_storage a{};
    socklen_t size = sizeof a;
    if (getsockname(core_->listen_fd, (sockaddr*)&a, &size) != 0) return 0;
    return ntohs(a.ss_family == AF_INET6 ? ((sockaddr_in6*)&a)->sin6_port : ((sockaddr_in*)&a)->sin_port);
}

void http_server::stop() {
    core& c = *core_;
    if (!c.daemon) return;
    std::unique_lock<std::mutex> hold(c.lock);
    c.stopping = c.quit = true;
    hold.unlock();
    bool quiesced = MHD_quiesce_daemon(c.daemon) != MHD_INVALID_SOCKET;
    c.work_ready.notify_all();
    for (std::thread& t : c.workers) t.join();
    c.workers.clear();
    // Nobody defers any more: every waiting client is told, at once.
    hold.lock();
    std::vector<std::shared_ptr<exchange>> waiting;
    for (auto& [when, weak] : c.deadlines)
        if (auto ex = weak.lock()) waiting.push_back(ex);
    hold.unlock();
    for (auto& ex : waiting) ex->answer(c.error(503, "the service is stopping"));
    c.deadline_moved.notify_all();
    c.deadline_thread.join();
    // libmicrohttpd must not stop with a connection suspended.
    hold.lock();
    c.exchanges_done.wait_for(hold, stop_grace, [&] { return c.live == 0; });
    hold.unlock();
    MHD_stop_daemon(c.daemon);
    c.daemon = nullptr;
    if (quiesced) close(c.listen_fd);  // else libmicrohttpd closed it
    c.listen_fd = -1;
    explicit_bzero(c.key.data(), c.key.size());
}
