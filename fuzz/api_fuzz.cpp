// libFuzzer target: an input is a sequence of choices that the reference model's driver
// (tests/support/model.h) turns into API calls with adversarial arguments, run against library and
// model at once; a disagreement aborts. The region is created once per process at the model's
// capacities, in a temporary install directory and an IPC namespace of its own; every input starts
// from an emptied region. The seed corpora are the model test's generator, recorded, and every
// sixth region it left, as shmrmctl dumps it (for dump_fuzz):
//   VEX_FUZZ_WRITE_SEEDS=fuzz/corpus build/fuzz/fuzz/api_fuzz
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include "os.h"
#include "shmrm_internal.h"
#include "snapshot.h"
#include "support/model.h"
#include "support/sandbox.h"

namespace {

using namespace vextest;

std::string g_namespace;
FakeImports* g_fake;

void run(Choices& choices, int steps) {
    // Every call traced with its parameters (searches trace each slot they visit), or errors only.
    shmrm::state.log_level.store(choices.pick(2) ? SHMRM_LOG_PARAM : SHMRM_LOG_ERROR);
    if (auto d = run_model(choices, *g_fake, steps)) {
        std::fprintf(stderr, "model disagreement at step %d: %s\n", d->step, d->text.c_str());
        std::abort();
    }
}

// The region and the lock of the namespace go with the process; what a crashed run of it left
// goes too.
void release_objects() {
    if (shmrm::region() != nullptr) shmrm_delete();
    shmrm::unload();
    vex::os::sweep_namespace(g_namespace.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    // The library reads the namespace as it loads: start again with one of this process's own.
    g_namespace = "vexfuzz" + process_id_text();
    const char* ns = std::getenv("VEX_IPC_NAMESPACE");
    if (ns == nullptr || g_namespace != ns) {
        shmrm::unload();  // it was loaded under no namespace
        set_env("VEX_IPC_NAMESPACE", g_namespace);
        vex::process::exec_self(std::vector<std::string>(*argv + 1, *argv + *argc));
        std::perror("exec");
        std::exit(1);
    }
    vex::os::sweep_namespace(g_namespace.c_str());
    std::atexit(release_objects);
    static Sandbox sandbox;  // removed at exit
    sandbox.configure(Capacities{kGroups, kSlots, kMonitors});
    static FakeImports fake;
    fake.keep_lines = false;  // the model judges results and bytes, not the lines
    g_fake = &fake;
    if (shmrm_create() != SHMRM_OK) {
        std::fprintf(stderr, "shmrm_create failed\n");
        std::exit(1);
    }
    if (const char* dir = std::getenv("VEX_FUZZ_WRITE_SEEDS")) {
        auto save = [dir](const std::string& name, std::span<const std::byte> bytes) {
            std::filesystem::create_directories(std::filesystem::path(dir + name).parent_path());
            std::ofstream(dir + name, std::ios::binary)
                .write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
        };
        for (int seed = 1; seed <= 24; ++seed) {
            Bytes input, region(kRegionSize);
            Choices choices(static_cast<unsigned>(seed), &input);
            run(choices, 5 + 5 * seed);
            save("/api/seed" + std::to_string(seed), std::as_bytes(std::span(input)));
            int size = kRegionSize;
            if (seed % 6 != 0 || shmrm_dump(region.data(), &size) != SHMRM_OK) continue;
            const auto bytes = std::as_bytes(std::span(region));
            save("/dump/region" + std::to_string(seed),
                 shmrmctl::encode_dump(bytes, shmrmctl::header_caps(bytes)));
        }
        std::exit(0);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Choices choices(data, size);
    run(choices, INT_MAX);
    return 0;
}
