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
#include <vector>

#include "os.h"
#include "shmrm_internal.h"

namespace {

void print_left(const char* name, void*) {
    std::fprintf(stderr, "left behind: /dev/shm/%s\n", name);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string own = "vextest" + vextest::process_id_text();
    if (std::getenv("VEX_IPC_NAMESPACE") == nullptr) {
        // The library was loaded under no namespace; it lets go before the program starts again.
        shmrm::unload();
        vextest::set_env("VEX_IPC_NAMESPACE", own);
        vex::process::exec_self(std::vector<std::string>(argv + 1, argv + argc));
        std::perror("exec");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    // When the last process of a namespace has let go of the library, nothing of the namespace
    // may remain: this process (and namespaces below its own) are checked once it has.
    if (own == std::getenv("VEX_IPC_NAMESPACE")) {
        shmrm::unload();
        if (vex::os::namespace_objects(own.c_str(), print_left, nullptr) != 0) {
            std::fprintf(stderr, "the test run left named objects behind\n");
            rc = 1;
        }
        vex::os::sweep_namespace(own.c_str());
    }
    return rc;
}
#endif
