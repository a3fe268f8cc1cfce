// Every test process gets an IPC namespace of its own, so that tests running in parallel never
// meet. The library reads the namespace when it is loaded. On POSIX systems that happens before
// main, so the process starts itself again with the variable set; on Windows the test program
// holds the library's objects itself and loads them here, as the DLL's entry point would.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/sandbox.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>

#include "shmrm_internal.h"

int main(int argc, char** argv) {
    // Plain "\n" line ends, as the test runner reading the output expects.
    _setmode(_fileno(stdout), _O_BINARY);
    if (std::getenv("VEX_IPC_NAMESPACE") == nullptr)
        vextest::set_env("VEX_IPC_NAMESPACE", "vextest" + vextest::process_id_text());
    if (!shmrm::load()) {
        std::fprintf(stderr, "the region lock cannot be obtained\n");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    const int rc = RUN_ALL_TESTS();
    shmrm::unload();
    return rc;
}
#else
#include <unistd.h>

#include <filesystem>

int main(int argc, char** argv) {
    const std::string own = "vextest" + vextest::process_id_text();
    if (std::getenv("VEX_IPC_NAMESPACE") == nullptr) {
        vextest::set_env("VEX_IPC_NAMESPACE", own);
        execv("/proc/self/exe", argv);
        std::perror("execv");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    const int rc = RUN_ALL_TESTS();
    // The named objects of a namespace this process made up (the region lock and the guards
    // stay in the system's shared-memory folder) go with it.
    if (own == std::getenv("VEX_IPC_NAMESPACE")) {
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ec)) {
            if (entry.path().filename().string().rfind(own + ".", 0) == 0)
                std::filesystem::remove(entry.path(), ec);
        }
    }
    return rc;
}
#endif
