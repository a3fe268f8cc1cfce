// A two-process node: this process creates the region, a second process attaches to it and
// writes the node-wide values, and this process reads them back and prints the header.
//
//   node_demo [--install DIR]
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vexshmrm.h"

extern char** environ;

namespace {

int attacher() {
    int rc = shmrm_attach();
    std::printf("[attacher %d] shmrm_attach -> %d\n", static_cast<int>(getpid()), rc);
    if (rc != SHMRM_OK) return 1;
    shmrm_rwlock(SHMRM_INFINITE);
    int results[] = {shmrm_setacstat(3), shmrm_setacstat2(7), shmrm_setpow32port(5001)};
    shmrm_rwunlock();
    std::printf("[attacher %d] set acstat=3 acstat2=7 pow32port=5001 -> %d %d %d\n",
                static_cast<int>(getpid()), results[0], results[1], results[2]);
    return shmrm_detach() == SHMRM_OK && results[0] == 0 && results[1] == 0 && results[2] == 0 ? 0
                                                                                               : 1;
}

int run_attacher(const char* self) {
    pid_t pid = 0;
    char* argv[] = {const_cast<char*>(self), const_cast<char*>("--attacher"), nullptr};
    if (posix_spawn(&pid, self, nullptr, nullptr, argv, environ) != 0) return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--attacher") == 0) return attacher();
        if (std::strcmp(argv[i], "--install") == 0 && i + 1 < argc) {
            setenv("VEX_INSTALL_PATH", argv[++i], 1);
        }
    }
    const char* install = std::getenv("VEX_INSTALL_PATH");
    std::printf("[creator %d] install path: %s\n", static_cast<int>(getpid()),
                install ? install : "(built-in default)");
    int rc = shmrm_create();
    std::printf("[creator %d] shmrm_create -> %d\n", static_cast<int>(getpid()), rc);
    if (rc != SHMRM_OK) return 1;

    int child = run_attacher("/proc/self/exe");
    std::printf("[creator %d] attacher finished with status %d\n", static_cast<int>(getpid()),
                child);

    int size = 0;
    shmrm_dump(nullptr, &size);
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
    shmrm_rolock(SHMRM_INFINITE);
    rc = shmrm_dump(bytes.data(), &size);
    shmrm_rounlock();
    rmhead h;
    std::memcpy(&h, bytes.data(), sizeof h);
    std::printf("\nregion header (%d bytes in all, dump -> %d)\n", size, rc);
    std::printf("  %-10s %d\n  %-10s %d\n  %-10s %d\n", "grpmax", h.grpmax, "rscmax", h.rscmax,
                "monmax", h.monmax);
    std::printf("  %-10s %d\n  %-10s %d\n", "grpcnt", h.grpcnt, "moncnt", h.moncnt);
    std::printf("  %-10s %d\n  %-10s %d\n  %-10s %d\n", "acstat", h.acstat, "acstat2", h.acstat2,
                "pow32port", h.pow32port);
    if (install) std::printf("\nmodule log: %s/log/shmrm.log\n", install);
    rc = shmrm_delete();
    std::printf("[creator %d] shmrm_delete -> %d\n", static_cast<int>(getpid()), rc);
    return child == 0 && h.acstat == 3 && h.pow32port == 5001 ? 0 : 1;
}
