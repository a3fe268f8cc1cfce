// serve: the node's status over HTTP for monitoring systems and browsers, read-only. /metrics
// (metrics.h), /api/status (the JSON of status --json), /api/events (Server-Sent Events of
// every change) and / (the status page built into the program).
#pragma once

#include <string>

namespace shmrmctl {

struct ServeOptions {
    std::string listen = "127.0.0.1:9477";  // ADDR:PORT ([ADDR]:PORT for IPv6); port 0: any free
    std::string token_file;                 // when set, every request needs its bearer token
    double interval_s = 1.0;                // between the event stream's looks at the region
    unsigned int lock_wait_ms = 200;        // the longest a request waits for the region lock
};

// Whether this build can serve (not on systems the HTTP library is not built for).
bool serve_supported();
// Serves until stopped (SIGINT, SIGTERM); prints "listening on http://ADDR:PORT/" once the
// socket is bound. The exit status.
int serve_command(const ServeOptions& options);

}  // namespace shmrmctl
