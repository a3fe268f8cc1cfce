// The named objects of the platform layer, below the library.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "os.h"
#include "support/sandbox.h"
#include "vexutil.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <vector>
#endif

namespace {

namespace os = vex::os;
using ::testing::AnyOf;

// Inside the test process's IPC namespace, so that what the objects leave behind (their guards)
// goes with it.
std::string unique_name(const char* what) {
    const char* ns = std::getenv("VEX_IPC_NAMESPACE");
    return std::string(ns != nullptr ? ns : "vexostest") + ".os." + what;
}

TEST(NamedMapping, LivesWhileAHandleOrAViewHoldsIt) {
    const std::string name = unique_name("map");
    os::Handle first = os::create_named_mapping(4096, name.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(os::last_error(), 0u);
    std::size_t mapped = 0;
    auto* view = static_cast<unsigned char*>(os::map_view(first, &mapped));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(mapped, 4096u);
    view[100] = 7;

    os::Handle second = os::create_named_mapping(8192, name.c_str());
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(os::last_error(), os::kErrorAlreadyExists);
    std::size_t mapped2 = 0;
    auto* view2 = static_cast<unsigned char*>(os::map_view(second, &mapped2));
    ASSERT_NE(view2, nullptr);
    EXPECT_EQ(mapped2, 4096u) << "an existing mapping keeps its size";
    EXPECT_EQ(view2[100], 7);

    // Handles closed, views still mapped: the memory lives on (and on POSIX systems its name
    // too; Windows drops a name with the last handle).
    EXPECT_TRUE(os::close_handle(first));
    EXPECT_TRUE(os::close_handle(second));
    view[200] = 9;
    EXPECT_EQ(view2[200], 9);
#if !defined(_WIN32)
    os::Handle opened = os::open_named_mapping(name.c_str());
    ASSERT_NE(opened, nullptr);
    EXPECT_TRUE(os::close_handle(opened));
#endif
    EXPECT_TRUE(os::unmap_view(view2));
    EXPECT_TRUE(os::unmap_view(view));

    EXPECT_EQ(os::open_named_mapping(name.c_str()), nullptr);
    EXPECT_EQ(os::last_error(), os::kErrorFileNotFound);
    os::Handle fresh = os::create_named_mapping(4096, name.c_str());
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(os::last_error(), 0u);
    auto* view3 = static_cast<unsigned char*>(os::map_view(fresh, nullptr));
    ASSERT_NE(view3, nullptr);
    EXPECT_EQ(view3[100], 0) << "a new mapping is zero";
    EXPECT_TRUE(os::unmap_view(view3));
    EXPECT_TRUE(os::close_handle(fresh));
}

// A reader's view sees what a writer's view wrote, and cannot itself be written.
TEST(NamedMapping, AReadViewSeesWritesAndCannotWrite) {
    os::Handle h = os::create_named_mapping(4096, unique_name("readview").c_str());
    ASSERT_NE(h, nullptr);
    auto* writer = static_cast<char*>(os::map_view(h, nullptr));
    std::size_t mapped = 0;
    auto* reader = static_cast<const char*>(os::map_view_read(h, &mapped));
    ASSERT_NE(writer, nullptr);
    ASSERT_NE(reader, nullptr);
    EXPECT_GE(mapped, 4096u);
    std::strcpy(writer, "seen");
    EXPECT_STREQ(reader, "seen");
#if !defined(_WIN32)
    char start[32];
    std::snprintf(start, sizeof start, "%lx-", reinterpret_cast<unsigned long>(reader));
    std::istringstream maps(vextest::Sandbox::read_file("/proc/self/maps"));
    std::string perms;
    for (std::string line; std::getline(maps, line);)
        if (line.rfind(start, 0) == 0) perms = line.substr(line.find(' ') + 1, 4);
    EXPECT_EQ(perms, "r--s");
#endif
    EXPECT_TRUE(os::unmap_view(const_cast<char*>(reader)));
    EXPECT_TRUE(os::unmap_view(writer));
    EXPECT_TRUE(os::close_handle(h));
}

TEST(NamedMapping, RefusesUnusableNamesAndHandles) {
    EXPECT_EQ(os::create_named_mapping(4096, "bad/name"), nullptr);
    EXPECT_EQ(os::create_named_mapping(4096, ""), nullptr);
    EXPECT_EQ(os::create_named_mapping(0, unique_name("zero").c_str()), nullptr);
    EXPECT_EQ(os::open_named_mapping(std::string(300, 'x').c_str()), nullptr);
    EXPECT_EQ(os::create_named_mutex("bad/name"), nullptr);
    EXPECT_FALSE(os::remove_if_unused("bad/name"));
    EXPECT_FALSE(os::remove_if_unused(""));
    int not_a_handle = 0;
    EXPECT_EQ(os::map_view(&not_a_handle, nullptr), nullptr);
    EXPECT_FALSE(os::unmap_view(&not_a_handle));
    EXPECT_FALSE(os::close_handle(&not_a_handle));
    EXPECT_EQ(os::wait_mutex(&not_a_handle, 0), os::kWaitFailed);
    EXPECT_FALSE(os::release_mutex(&not_a_handle));
#if !defined(_WIN32)
    EXPECT_EQ(os::create_named_mapping(~0ull, unique_name("huge").c_str()), nullptr);
    // Fits as a name, but not with the suffix of the object that guards it.
    EXPECT_EQ(os::create_named_mapping(4096, std::string(250, 'x').c_str()), nullptr);
    EXPECT_FALSE(os::remove_if_unused(std::string(250, 'x').c_str()));
    os::Handle mutex = os::create_named_mutex(unique_name("inside").c_str());
    ASSERT_NE(mutex, nullptr);
    EXPECT_FALSE(os::close_handle(static_cast<char*>(mutex) + 1)) << "inside a handle";
    EXPECT_TRUE(os::close_handle(mutex));
#endif
}

// The utility layer refuses what it cannot pass on, with the last error "invalid parameter".
TEST(Utility, RefusesArgumentsItCannotPassOn) {
    const std::string name = unique_name("util"), long_name(300, 'n');
    const std::function<void*()> refused[] = {
        [&] { return vex::VexutilCreateNamedFileMapping(3, 4, 0, 4096, name.c_str()); },
        [&] { return vex::VexutilCreateNamedFileMapping(-1, 2, 0, 4096, name.c_str()); },
        [&] { return vex::VexutilCreateNamedFileMapping(-1, 4, 0, 4096, nullptr); },
        [&] { return vex::VexutilOpenNamedFileMapping(4, 0, name.c_str()); },
        [&] { return vex::VexutilOpenNamedFileMapping(0xF001F, 0, long_name.c_str()); },
        [&] { return vex::VexutilCreateMutex(0, long_name.c_str()); },
    };
    for (const auto& call : refused) {
        SCOPED_TRACE(&call - refused);
        os::set_last_error(0);
        EXPECT_EQ(call(), nullptr);
        EXPECT_EQ(os::last_error(), 87u);
    }
    char buf[8];
    EXPECT_EQ(vex::VexutilObjectName(nullptr, buf, sizeof buf), nullptr);
    EXPECT_EQ(vex::VexutilObjectName("a", nullptr, sizeof buf), nullptr);
    EXPECT_EQ(vex::VexutilObjectName("a", buf, 0), nullptr);
    EXPECT_EQ(vex::VexutilGetInstallPath(nullptr, sizeof buf), 0);
    EXPECT_EQ(vex::VexutilGetInstallPath(buf, 0), 0);
    vextest::Sandbox sandbox;
    EXPECT_EQ(vex::VexutilGetInstallPath(buf, sizeof buf), 0) << "too long for the buffer";

    // A namespace too long for any name makes every name fail instead of being cut.
    const std::string ns = std::getenv("VEX_IPC_NAMESPACE") ? std::getenv("VEX_IPC_NAMESPACE") : "";
    vextest::set_env("VEX_IPC_NAMESPACE", std::string(300, 's'));
    os::set_last_error(0);
    EXPECT_EQ(vex::VexutilLoadNamespace(), 0) << "the loader says so";
    EXPECT_EQ(os::last_error(), 87u);
    char full[1024];
    EXPECT_EQ(vex::VexutilObjectName("a", full, sizeof full), nullptr);
    vextest::set_env("VEX_IPC_NAMESPACE", ns);
    EXPECT_NE(vex::VexutilLoadNamespace(), 0);
    EXPECT_EQ(vex::VexutilObjectName("a", full, sizeof full), ns + ".a");
}

TEST(NamedMutex, RecursiveOwnedByAThreadAndAbandonedWithIt) {
    const std::string name = unique_name("mutex");
    os::Handle a = os::create_named_mutex(name.c_str());
    os::Handle b = os::create_named_mutex(name.c_str());  // a second handle, the same mutex
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(os::wait_mutex(a, 0), os::kWaitObject0);
    EXPECT_EQ(os::wait_mutex(b, os::kInfinite), os::kWaitObject0);
    EXPECT_EQ(os::wait_mutex(b, 999), os::kWaitObject0);  // a deadline into the next second
    unsigned other = 1;
    std::thread([&] { other = os::wait_mutex(b, 20); }).join();
    EXPECT_EQ(other, os::kWaitTimeout);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(os::release_mutex(a));
    EXPECT_FALSE(os::release_mutex(a)) << "not owned any more";

    std::thread([&] { other = os::wait_mutex(a, 0); }).join();  // ends holding it
    EXPECT_EQ(other, os::kWaitObject0);
    EXPECT_EQ(os::wait_mutex(b, 0), os::kWaitAbandoned);
    EXPECT_TRUE(os::release_mutex(b));
    EXPECT_EQ(os::wait_mutex(b, 0), os::kWaitObject0) << "consistent again";
    EXPECT_TRUE(os::release_mutex(b));
    EXPECT_TRUE(os::close_handle(a));
    EXPECT_TRUE(os::close_handle(b));
}

#if !defined(_WIN32)
// ---- What the system refuses ------------------------------------------------------------

std::size_t open_descriptors() {
    std::size_t n = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        static_cast<void>(entry);
        ++n;
    }
    return n;
}

// Lowers one limit of this process while it lives. Past the file size limit a write fails with
// EFBIG instead of ending the process.
class Limit {
  public:
    Limit(int resource, rlim_t value) : resource_(resource) {
        getrlimit(resource_, &saved_);
        rlimit lowered = saved_;
        lowered.rlim_cur = value;
        EXPECT_EQ(setrlimit(resource_, &lowered), 0);
        xfsz_ = signal(SIGXFSZ, SIG_IGN);
    }
    ~Limit() {
        setrlimit(resource_, &saved_);
        signal(SIGXFSZ, xfsz_);
    }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

  private:
    int resource_;
    rlimit saved_{};
    sighandler_t xfsz_;
};

// The address space this process has mapped, in bytes.
rlim_t address_space() {
    std::istringstream status(vextest::Sandbox::read_file("/proc/self/status"));
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmSize:", 0) == 0) return std::stoull(line.substr(7)) * 1024;
    return RLIM_INFINITY;
}

// The descriptor the next open would get.
int lowest_free_descriptor() {
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

// Out of descriptors, past the file size limit or out of address space, a call fails with the
// system's reason, leaks no descriptor and leaves nothing half made behind.
TEST(SystemRefuses, LimitsFailTheCallAndLeakNothing) {
    vextest::Sandbox sandbox;
    const std::string name = unique_name("held"), made = unique_name("made");
    const std::string mutex = unique_name("limitmutex"), path = sandbox.path() + "/f";
    const std::string held_mutex = unique_name("heldmutex");
    os::Handle held = os::create_named_mapping(4096, name.c_str());
    ASSERT_NE(held, nullptr);
    os::Handle mutex_held = os::create_named_mutex(held_mutex.c_str());
    ASSERT_NE(mutex_held, nullptr);
    os::AppendFile file;
    ASSERT_TRUE(os::append_open(&file, path.c_str()));
    ASSERT_TRUE(os::append_write(&file, "1234", 4));
    const struct {
        const char* what;
        int resource;
        rlim_t value;  // for descriptors and address space: how much is left
        std::function<bool()> call;
        unsigned error;  // 0: the call leaves no last error
    } rows[] = {
        {"create: the guard", RLIMIT_NOFILE, 0,
         [&] { return os::create_named_mapping(4096, name.c_str()) != nullptr; }, EMFILE},
        {"create: the object", RLIMIT_NOFILE, 1,
         [&] { return os::create_named_mapping(4096, name.c_str()) != nullptr; }, EMFILE},
        {"open", RLIMIT_NOFILE, 1, [&] { return os::open_named_mapping(name.c_str()) != nullptr; },
         EMFILE},
        {"view", RLIMIT_NOFILE, 0, [&] { return os::map_view(held, nullptr) != nullptr; }, EMFILE},
        {"mutex", RLIMIT_NOFILE, 0,
         [&] { return os::create_named_mutex(mutex.c_str()) != nullptr; }, EMFILE},
        {"create: the size", RLIMIT_FSIZE, 4096,
         [&] { return os::create_named_mapping(8192, made.c_str()) != nullptr; }, EFBIG},
        {"mutex: the size", RLIMIT_FSIZE, 0,
         [&] { return os::create_named_mutex(mutex.c_str()) != nullptr; }, EFBIG},
        {"append", RLIMIT_FSIZE, 2, [&] { return os::append_write(&file, "5", 1); }, 0},
        {"remove: the guard", RLIMIT_NOFILE, 0, [&] { return os::remove_if_unused(name.c_str()); },
         EMFILE},
        {"view: the address space", RLIMIT_AS, 0,
         [&] { return os::map_view(held, nullptr) != nullptr; }, ENOMEM},
        {"mutex: the address space", RLIMIT_AS, 0,
         [&] { return os::create_named_mutex(mutex.c_str()) != nullptr; }, ENOMEM},
        {"held mutex: the address space", RLIMIT_AS, 0,
         [&] { return os::create_named_mutex(held_mutex.c_str()) != nullptr; }, ENOMEM},
    };
    const std::size_t before = open_descriptors();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        bool ok = true;
        {
            const rlim_t base = row.resource == RLIMIT_NOFILE
                                    ? static_cast<rlim_t>(lowest_free_descriptor())
                                : row.resource == RLIMIT_AS ? address_space()
                                                            : 0;
            Limit limit(row.resource, base + row.value);
            ok = row.call();
        }
        EXPECT_FALSE(ok);
        if (row.error != 0) {
            EXPECT_EQ(os::last_error(), row.error);
        }
        EXPECT_EQ(open_descriptors(), before);
    }
    EXPECT_EQ(os::open_named_mapping(made.c_str()), nullptr) << "the object was removed";
    EXPECT_EQ(os::last_error(), os::kErrorFileNotFound);
    os::Handle m = os::create_named_mutex(mutex.c_str());  // set up by the next creator
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(os::wait_mutex(m, 0), os::kWaitObject0);
    EXPECT_TRUE(os::release_mutex(m));
    EXPECT_TRUE(os::close_handle(m));
    EXPECT_TRUE(os::close_handle(mutex_held));  // which the refused open left in place
    EXPECT_TRUE(os::append_write(&file, "5", 1));
    EXPECT_EQ(vextest::Sandbox::read_file(path), "12345");
    os::append_close(&file);
    // Released without a guard: the description goes all the same, and the object left unheld
    // is stale for the next open.
    {
        Limit limit(RLIMIT_NOFILE, static_cast<rlim_t>(lowest_free_descriptor()));
        EXPECT_TRUE(os::close_handle(held));
    }
    EXPECT_EQ(os::open_named_mapping(name.c_str()), nullptr);
    EXPECT_EQ(os::last_error(), os::kErrorFileNotFound);
}

// Memory is committed when a mapping is made: one larger than the system can back is refused
// then, and leaves neither the object nor its guard behind.
TEST(SystemRefuses, AMappingItCannotBackWhenItIsMade) {
    const std::string name = unique_name("huge");
    const std::size_t before = open_descriptors();
    EXPECT_EQ(os::create_named_mapping(std::uint64_t{1} << 62, name.c_str()), nullptr);
    EXPECT_THAT(os::last_error(), AnyOf(unsigned{ENOSPC}, unsigned{EFBIG}));
    EXPECT_EQ(open_descriptors(), before);
    for (const std::string& left : {"/" + name, "/" + name + ".guard"}) {
        EXPECT_EQ(shm_open(left.c_str(), O_RDONLY, 0), -1) << left;
        EXPECT_EQ(errno, ENOENT) << left;
    }
}

TEST(SystemRefuses, HandlesRunOutAndComeBack) {
    const std::string name = unique_name("pool"), map = unique_name("poolmap");
    std::vector<os::Handle> taken;
    for (os::Handle h; taken.size() < 100 && (h = os::create_named_mutex(name.c_str()));)
        taken.push_back(h);
    ASSERT_LT(taken.size(), 100u);
    EXPECT_EQ(os::last_error(), static_cast<unsigned>(EMFILE));
    EXPECT_EQ(os::create_named_mapping(4096, map.c_str()), nullptr);
    // One handle free: the mapping takes it and its view finds none.
    EXPECT_TRUE(os::close_handle(taken.back()));
    taken.pop_back();
    os::Handle mapping = os::create_named_mapping(4096, map.c_str());
    ASSERT_NE(mapping, nullptr);
    const std::size_t before = open_descriptors();
    EXPECT_EQ(os::map_view(mapping, nullptr), nullptr);
    EXPECT_EQ(os::last_error(), static_cast<unsigned>(EMFILE));
    EXPECT_EQ(open_descriptors(), before);
    for (os::Handle h : taken)
        EXPECT_TRUE(os::close_handle(h));
    void* view = os::map_view(mapping, nullptr);
    ASSERT_NE(view, nullptr);
    EXPECT_TRUE(os::unmap_view(view));
    EXPECT_TRUE(os::close_handle(mapping));
}

TEST(NamedMapping, ReleaseLeavesANameTakenOverAlone) {
    const std::string name = unique_name("taken"), shm = "/" + name;
    os::Handle old = os::create_named_mapping(4096, name.c_str());
    ASSERT_NE(old, nullptr);
    ASSERT_EQ(shm_unlink(shm.c_str()), 0);  // removed by hand
    os::Handle fresh = os::create_named_mapping(4096, name.c_str());
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(os::last_error(), 0u) << "a new object";
    EXPECT_TRUE(os::close_handle(old));  // the last holder of the old object
    os::Handle opened = os::open_named_mapping(name.c_str());
    EXPECT_NE(opened, nullptr) << "the new object keeps its name";
    EXPECT_TRUE(os::close_handle(opened));
    ASSERT_EQ(shm_unlink(shm.c_str()), 0);
    EXPECT_TRUE(os::close_handle(fresh));  // its name already gone
    EXPECT_EQ(os::open_named_mapping(name.c_str()), nullptr);
    EXPECT_EQ(os::last_error(), os::kErrorFileNotFound);
}
#endif

}  // namespace
