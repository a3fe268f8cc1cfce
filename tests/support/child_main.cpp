// A process of the node for tests: it loads the library like any caller and runs one command
// per line of standard input, answering each with one line: the result code, then any values.
// End of input ends the process.
#include <fcntl.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "vexshmrm.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <process.h>
#define getpid _getpid
#define open _open
#define close _close
#else
#include <unistd.h>
#endif

namespace {

using Setter = int (*)(int);
using Getter = int (*)(int*);

struct Word {
    const char* name;
    Setter set;
    Getter get;
};

const Word kWords[] = {
    {"acstat", shmrm_setacstat, shmrm_getacstat},
    {"acstat2", shmrm_setacstat2, shmrm_getacstat2},
    {"pow32port", shmrm_setpow32port, shmrm_getpow32port},
};

std::string run(const std::string& line) {
    std::istringstream in(line);
    std::string cmd;
    in >> cmd;
    std::ostringstream out;
    if (cmd == "create") return std::to_string(shmrm_create());
    if (cmd == "attach") return std::to_string(shmrm_attach());
    if (cmd == "detach") return std::to_string(shmrm_detach());
    if (cmd == "delete") return std::to_string(shmrm_delete());
    if (cmd == "clear") return std::to_string(shmrm_clear());
    if (cmd == "pid") return "0 " + std::to_string(getpid());
    if (cmd == "rwlock" || cmd == "rolock") {
        unsigned timeout = 0;
        in >> timeout;
        return std::to_string(cmd == "rwlock" ? shmrm_rwlock(timeout) : shmrm_rolock(timeout));
    }
    if (cmd == "rwunlock") return std::to_string(shmrm_rwunlock());
    if (cmd == "rounlock") return std::to_string(shmrm_rounlock());
    if (cmd == "lock-in-thread") {
        // A thread that takes the lock and ends without releasing it.
        int rc = -1;
        std::thread([&rc] { rc = shmrm_rwlock(SHMRM_INFINITE); }).join();
        return std::to_string(rc);
    }
    if (cmd == "addgrp") {
        std::string name;
        in >> name;
        return std::to_string(shmrm_addgrp(name.c_str()));
    }
    if (cmd == "enumgrp") {  // the result, then the names separated by commas
        char buf[4096];
        int size = sizeof buf;
        int rc = shmrm_enumgrp(buf, &size);
        out << rc << ' ';
        for (const char* name = buf; rc == SHMRM_OK && *name != '\0'; name += strlen(name) + 1)
            out << (name == buf ? "" : ",") << name;
        return out.str();
    }
    if (cmd == "critical") {
        // Under the region lock, no other process may be inside at the same time: the marker
        // file exists only while one is.
        std::string marker;
        in >> marker;
        if (shmrm_rwlock(10000) != SHMRM_OK) return "lock";
        const int fd = open(marker.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (fd >= 0) {
            close(fd);
            std::remove(marker.c_str());
        }
        shmrm_rwunlock();
        return fd >= 0 ? "0" : "overlap";
    }
    if (cmd == "spin") {  // traced calls for the given milliseconds; the number made
        int ms = 0;
        in >> ms;
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        long calls = 0;
        for (int v = 0; std::chrono::steady_clock::now() < until; ++calls)
            shmrm_getacstat(&v);
        return "0 " + std::to_string(calls);
    }
    if (cmd == "setmaxvalue") {
        int a = 0, b = 0, c = 0;
        in >> a >> b >> c;
        return std::to_string(shmrm_setmaxvalue(a, b, c));
    }
    if (cmd == "getmaxvalue") {
        int a = 0, b = 0, c = 0;
        int rc = shmrm_getmaxvalue(&a, &b, &c);
        out << rc << ' ' << a << ' ' << b << ' ' << c;
        return out.str();
    }
    if (cmd == "size") {
        int size = 0;
        int rc = shmrm_dump(nullptr, &size);
        out << rc << ' ' << size;
        return out.str();
    }
    for (const Word& w : kWords) {
        if (cmd == std::string("set") + w.name) {
            int v = 0;
            in >> v;
            return std::to_string(w.set(v));
        }
        if (cmd == std::string("get") + w.name) {
            int v = 0;
            int rc = w.get(&v);
            out << rc << ' ' << v;
            return out.str();
        }
    }
    return "unknown " + cmd;
}

}  // namespace

int main() {
#if defined(_WIN32)
    // Replies end in a plain "\n", as on every system.
    _setmode(_fileno(stdout), _O_BINARY);
#endif
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line == "exit") return 0;
        if (line == "abort") std::abort();
        std::cout << run(line) << std::endl;
    }
    return 0;
}
