#include "serve.h"

#include "region.h"
#include "results.h"

#if !SHMRMCTL_HAVE_HTTP

namespace shmrmctl {

bool serve_supported() {
    return false;
}
int serve_command(const ServeOptions&) {
    return report("serve is not supported on this system", kExitFailure,
                  "the HTTP server library is not built for it; run serve on Linux");
}

}  // namespace shmrmctl

#else

#include <fmt/format.h>
#include <httplib.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "metrics.h"
#include "records.h"
#include "render.h"
#include "system.h"

// The status page, embedded at build time (see CMakeLists.txt).
namespace shmrmctl::web {
extern const unsigned char kIndexHtml[];
extern const std::size_t kIndexHtmlSize;
}  // namespace shmrmctl::web

namespace shmrmctl {

namespace {

using Clock = std::chrono::steady_clock;

// Limits that keep slow or hostile clients from starving the others.
constexpr std::size_t kWorkerThreads = 32;      // connections served at once
constexpr std::size_t kQueuedConnections = 64;  // accepted and waiting; then accepting waits
constexpr std::size_t kEventClients = 8;        // /api/events streams at once (each a worker)
constexpr std::size_t kPendingEvents = 4096;    // a stream further behind than this is dropped
constexpr time_t kTimeoutSeconds = 2;           // reading, writing, an idle kept-alive connection
constexpr std::size_t kPayloadMax = 1024;       // a request body (none is expected)
constexpr auto kKeepaliveEvery = std::chrono::seconds(15);

// The workers: a fixed number of threads and a bounded queue of accepted connections. When the
// queue is full the accepting thread waits, so the rest wait in the kernel's backlog instead of
// in memory.
class BoundedPool : public httplib::TaskQueue {
  public:
    BoundedPool(std::size_t threads, std::size_t queued) : max_(queued) {
        for (std::size_t i = 0; i < threads; ++i)
            threads_.emplace_back([this] { work(); });
    }
    void enqueue(std::function<void()> fn) override {
        std::unique_lock lock(mutex_);
        room_.wait(lock, [&] { return jobs_.size() < max_ || shutdown_; });
        jobs_.push_back(std::move(fn));
        ready_.notify_one();
    }
    void shutdown() override {
        {
            std::lock_guard lock(mutex_);
            shutdown_ = true;
        }
        ready_.notify_all();
        room_.notify_all();
        for (auto& t : threads_)
            t.join();
    }

  private:
    void work() {
        while (true) {
            std::function<void()> fn;
            {
                std::unique_lock lock(mutex_);
                ready_.wait(lock, [&] { return !jobs_.empty() || shutdown_; });
                if (jobs_.empty()) return;
                fn = std::move(jobs_.front());
                jobs_.pop_front();
                room_.notify_one();
            }
            fn();
        }
    }

    std::size_t max_;
    std::mutex mutex_;
    std::condition_variable ready_, room_;
    std::deque<std::function<void()> > jobs_;
    std::vector<std::thread> threads_;
    bool shutdown_ = false;
};

// The region as one request or one look of the event thread found it.
struct Taken {
    Snapshot snapshot;
    ViewOptions view;
};

// Copies the region (waiting at most `wait_ms` for its lock) and decodes it outside the lock.
std::shared_ptr<const Taken> take(unsigned int wait_ms, Failure& failure,
                                  double* held_seconds = nullptr) {
    Bytes bytes;
    if (!take_region_bytes(wait_ms, bytes, failure, held_seconds)) return nullptr;
    auto t = std::make_shared<Taken>();
    t->view.now_tick = sys::tick_now();
    t->view.taken_at = static_cast<std::int64_t>(std::time(nullptr));
    t->snapshot = decode(bytes, std::nullopt, sys::view_page());
    return t;
}

std::string one_line(const nlohmann::ordered_json& j) {
    return j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string sse(std::string_view event, const std::string& data) {
    return fmt::format("event: {}\ndata: {}\n\n", event, data);
}

std::string snapshot_event(const Taken& t) {
    return sse("snapshot", one_line(to_json(t.snapshot, t.view)));
}

std::string region_event(bool up) {
    return sse("region", up ? R"({"up":true})" : R"({"up":false})");
}

std::string change_event(const Change& c, const std::string& time) {
    static constexpr const char* what[] = {"changed", "added", "removed"};
    nlohmann::ordered_json j;
    j["time"] = time;
    j["what"] = what[static_cast<int>(c.what)];
    j["kind"] = kind_name(c.kind);
    j["id"] = c.id;
    if (c.what == Change::What::kChanged) {
        j["attribute"] = c.attribute;
        j["old"] = c.before;
        j["new"] = c.after;
    }
    return sse("change", one_line(j));
}

// The event streams' clients and what each has still to be sent. The event thread publishes;
// each client's own worker sends. A client that falls too far behind is dropped, so that a slow
// one never holds up the thread or the others.
class Events {
  public:
    struct Client {
        std::deque<std::string> pending;
        std::size_t pending_count = 0;
        bool dropped = false;
    };
    struct Joined {
        std::shared_ptr<Client> client;  // null: too many clients
        std::shared_ptr<const Taken> latest;
    };

    Joined join() {
        std::lock_guard lock(mutex_);
        if (clients_.size() >= kEventClients) return {};
        clients_.push_back(std::make_shared<Client>());
        return {clients_.back(), latest_};
    }
    void leave(const std::shared_ptr<Client>& c) {
        std::lock_guard lock(mutex_);
        clients_.remove(c);
    }
    // The region as the event thread last saw it (null: not readable), with the events that
    // lead to it from the previous look.
    void publish(std::shared_ptr<const Taken> latest, std::vector<std::string> events) {
        std::lock_guard lock(mutex_);
        latest_ = std::move(latest);
        if (events.empty()) return;
        for (auto& c : clients_) {
            if (c->dropped) continue;
            if (c->pending_count + events.size() > kPendingEvents) {
                c->dropped = true;
                c->pending.clear();
                continue;
            }
            c->pending.insert(c->pending.end(), events.begin(), events.end());
            c->pending_count += events.size();
        }
        changed_.notify_all();
    }
    // Waits at most `wait` for events; false when the client is to be closed (dropped, or the
    // server stops).
    bool next(Client& c, std::string& out, std::chrono::milliseconds wait) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, wait, [&] { return !c.pending.empty() || c.dropped || stop_; });
        if (c.dropped || stop_) return false;
        for (const auto& e : c.pending)
            out += e;
        c.pending.clear();
        c.pending_count = 0;
        return true;
    }
    void stop() {
        std::lock_guard lock(mutex_);
        stop_ = true;
        changed_.notify_all();
    }
    bool stopping() {
        std::lock_guard lock(mutex_);
        return stop_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::list<std::shared_ptr<Client> > clients_;
    std::shared_ptr<const Taken> latest_;
    bool stop_ = false;
};

// Every interval: the region again, and what changed since the last look, to every client.
void watch_region(Events& events, const ServeOptions& o, std::shared_ptr<const Taken> first) {
    std::vector<Record> previous;
    if (first) previous = records(first->snapshot);
    bool up = first != nullptr;
    events.publish(std::move(first), {});  // what a client that comes now starts from
    auto next = Clock::now();
    while (!events.stopping()) {
        next += std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(o.interval_s));
        while (Clock::now() < next && !events.stopping())
            std::this_thread::sleep_for(
                std::min<Clock::duration>(next - Clock::now(), std::chrono::milliseconds(50)));
        if (Clock::now() > next + std::chrono::seconds(1)) next = Clock::now();  // fell behind
        Failure failure;
        auto now = take(o.lock_wait_ms, failure);
        std::vector<std::string> out;
        const std::string time = rfc3339(static_cast<std::int64_t>(std::time(nullptr)));
        if (!now) {
            if (failure.exit() == kExitLockTimeout) continue;  // still there, only busy
            if (up) out.push_back(region_event(false));
            up = false;
            previous.clear();
            events.publish(nullptr, std::move(out));
            continue;
        }
        auto current = records(now->snapshot);
        if (!up) {
            // Back: where the clients stood is gone, so they start again from a snapshot.
            out.push_back(region_event(true));
            out.push_back(snapshot_event(*now));
        } else {
            for (const Change& c : diff(previous, current))
                out.push_back(change_event(c, time));
        }
        up = true;
        previous = std::move(current);
        events.publish(std::move(now), std::move(out));
    }
}

// Whether two secrets are equal, in time that does not depend on where they differ or on their
// lengths: their digests compared in constant time.
bool same_secret(const std::string& a, const std::string& b) {
    unsigned char da[EVP_MAX_MD_SIZE], db[EVP_MAX_MD_SIZE];
    unsigned int la = 0, lb = 0;
    if (EVP_Digest(a.data(), a.size(), da, &la, EVP_sha256(), nullptr) != 1) return false;
    if (EVP_Digest(b.data(), b.size(), db, &lb, EVP_sha256(), nullptr) != 1) return false;
    return la == lb && CRYPTO_memcmp(da, db, la) == 0;
}

bool read_token(const std::string& path, std::string& token, std::string& error) {
    auto bytes = read_file(path, error);
    if (!bytes) return false;
    token.assign(reinterpret_cast<const char*>(bytes->data()), bytes->size());
    while (!token.empty() && (token.back() == '\n' || token.back() == '\r' || token.back() == ' ' ||
                              token.back() == '\t'))
        token.pop_back();
    if (token.empty()) {
        error = fmt::format("the token file '{}' is empty", path);
        return false;
    }
    if (token.find_first_of(" \t\r\n") != std::string::npos) {
        error = fmt::format("the token in '{}' holds blanks or line breaks", path);
        return false;
    }
    return true;
}

bool parse_listen(const std::string& text, std::string& host, int& port) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) return false;
    host = text.substr(0, colon);
    if (host.front() == '[') {
        if (host.size() < 3 || host.back() != ']') return false;
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string::npos) {
        return false;  // an IPv6 address needs its brackets
    }
    long long p = -1;
    if (!parse_integer(text.substr(colon + 1), 0, 65535, p)) return false;
    port = static_cast<int>(p);
    return true;
}

bool loopback(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

}  // namespace

bool serve_supported() {
    return true;
}

int serve_command(const ServeOptions& o) {
    std::string host;
    int port = 0;
    if (!parse_listen(o.listen, host, port)) {
        return report(fmt::format("--listen '{}' is no ADDR:PORT", o.listen), kExitUsage,
                      "for example 127.0.0.1:9477, 0.0.0.0:9477 or [::1]:9477");
    }
    std::string token, error;
    if (!o.token_file.empty() && !read_token(o.token_file, token, error))
        return report(error, kExitBadValue);
    if (token.empty() && !loopback(host)) {
        std::fprintf(stderr,
                     "shmrmctl: warning: serving %s without --token-file: anyone who reaches "
                     "it reads the node's status\n",
                     host.c_str());
    }
    sys::install_stop_handlers();
    sys::ignore_broken_pipe();

    httplib::Server server;
    server.new_task_queue = [] { return new BoundedPool(kWorkerThreads, kQueuedConnections); };
    server.set_read_timeout(kTimeoutSeconds, 0);
    server.set_write_timeout(kTimeoutSeconds, 0);
    server.set_keep_alive_timeout(kTimeoutSeconds);
    server.set_keep_alive_max_count(1000);
    server.set_payload_max_length(kPayloadMax);
    server.set_pre_routing_handler([&token](const httplib::Request& req, httplib::Response& res) {
        // The page holds no data of the node, and a browser opening it sends no header: it is
        // served to anyone, and asks for the token (#token=...) for every data path it reads.
        if (token.empty() || (req.method == "GET" && req.path == "/"))
            return httplib::Server::HandlerResponse::Unhandled;
        const std::string given = req.get_header_value("Authorization");
        constexpr std::string_view kScheme = "Bearer ";
        if (given.size() > kScheme.size() && given.compare(0, kScheme.size(), kScheme) == 0 &&
            same_secret(given.substr(kScheme.size()), token)) {
            return httplib::Server::HandlerResponse::Unhandled;
        }
        res.status = 401;
        res.set_header("WWW-Authenticate", "Bearer realm=\"shmrmctl\"");
        res.set_content("a bearer token is required\n", "text/plain; charset=utf-8");
        return httplib::Server::HandlerResponse::Handled;
    });

    server.Get("/metrics", [&o](const httplib::Request& req, httplib::Response& res) {
        Failure failure;
        double held = 0;
        const auto t = take(o.lock_wait_ms, failure, &held);
        ScrapeFacts facts;
        if (t) facts.lock_seconds = held;
        const MetricsFormat format = negotiate_metrics(req.get_header_value("Accept"));
        res.set_content(metrics_text(t ? &t->snapshot : nullptr, format, facts),
                        metrics_content_type(format));
    });
    server.Get("/api/status", [&o](const httplib::Request&, httplib::Response& res) {
        Failure failure;
        const auto t = take(o.lock_wait_ms, failure);
        if (!t) {
            res.status = 503;
            nlohmann::ordered_json j;
            j["error"] = failure.message();
            res.set_content(one_line(j) + "\n", "application/json");
            return;
        }
        res.set_content(json_text(t->snapshot, t->view) + "\n", "application/json");
    });
    Events events;
    server.Get("/api/events", [&events](const httplib::Request&, httplib::Response& res) {
        auto joined = events.join();
        if (!joined.client) {
            res.status = 503;
            res.set_header("Retry-After", "5");
            res.set_content("too many event streams\n", "text/plain; charset=utf-8");
            return;
        }
        std::string first = joined.latest ? snapshot_event(*joined.latest) : region_event(false);
        res.set_header("Cache-Control", "no-cache");
        // Without a length and not chunked: the stream ends when the connection does. (With two
        // streams at once, ThreadSanitizer finds a race on a global inside the library's chunked
        // writer, cpp-httplib 0.11.4.)
        res.set_header("Connection", "close");
        auto client = joined.client;
        res.set_content_provider(
            "text/event-stream",
            [&events, client, first = std::move(first), last = Clock::time_point{}](
                std::size_t, httplib::DataSink& sink) mutable {
                std::string out;
                if (!first.empty()) {
                    out = std::move(first);
                    first.clear();
                } else if (!events.next(*client, out, std::chrono::milliseconds(500))) {
                    sink.done();
                    return false;
                }
                if (out.empty() && Clock::now() - last >= kKeepaliveEvery) out = ": keepalive\n\n";
                if (out.empty()) return true;
                last = Clock::now();
                return sink.write(out.data(), out.size());
            },
            [&events, client](bool) { events.leave(client); });
    });
    server.Get("/", [](const httplib::Request&, httplib::Response& res) {
        res.set_content(reinterpret_cast<const char*>(web::kIndexHtml), web::kIndexHtmlSize,
                        "text/html; charset=utf-8");
    });

    const int bound =
        port == 0 ? server.bind_to_any_port(host) : (server.bind_to_port(host, port) ? port : -1);
    if (bound < 0) {
        return report(fmt::format("cannot listen on {}", o.listen), kExitFailure,
                      "is the address this host's, and the port free?");
    }
    Failure failure;
    std::thread watcher(watch_region, std::ref(events), std::cref(o),
                        take(o.lock_wait_ms, failure));
    std::thread listener([&server] { server.listen_after_bind(); });
    std::printf("listening on http://%s:%d/\n",
                host.find(':') != std::string::npos ? ("[" + host + "]").c_str() : host.c_str(),
                bound);
    std::fflush(stdout);
    sys::wait_for_stop();
    events.stop();
    server.stop();
    listener.join();
    watcher.join();
    return kExitOk;
}

}  // namespace shmrmctl

#endif
