// Every test process gets an IPC namespace of its own, so that tests running in parallel never
// meet. The library reads the namespace when it is loaded, before main, so the process starts
// itself again with the variable set.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (std::getenv("VEX_IPC_NAMESPACE") == nullptr) {
        std::string ns = "vextest" + std::to_string(getpid());
        setenv("VEX_IPC_NAMESPACE", ns.c_str(), 1);
        execv("/proc/self/exe", argv);
        std::perror("execv");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
