// The named objects of the platform layer, below the library.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "os.h"

namespace {

namespace os = vex::os;

std::string unique_name(const char* what) {
    return std::string("vexostest.") + std::to_string(os::process_id()) + "." + what;
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
    EXPECT_TRUE(os::unmap_view(view));
    EXPECT_TRUE(os::unmap_view(view2));

    EXPECT_EQ(os::open_named_mapping(name.c_str()), nullptr);
    EXPECT_EQ(os::last_error(), os::kErrorFileNotFound);
    os::Handle fresh = os::create_named_mapping(4096, name.c_str());
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(os::last_error(), 0u);
    auto* view3 = static_cast<unsigned char*>(os::map_view(fresh, &mapped));
    ASSERT_NE(view3, nullptr);
    EXPECT_EQ(view3[100], 0) << "a new mapping is zero";
    EXPECT_TRUE(os::unmap_view(view3));
    EXPECT_TRUE(os::close_handle(fresh));
}

TEST(NamedMapping, RefusesUnusableNamesAndHandles) {
    EXPECT_EQ(os::create_named_mapping(4096, "bad/name"), nullptr);
    EXPECT_EQ(os::create_named_mapping(4096, ""), nullptr);
    EXPECT_EQ(os::create_named_mapping(0, unique_name("zero").c_str()), nullptr);
    EXPECT_EQ(os::open_named_mapping(std::string(300, 'x').c_str()), nullptr);
    EXPECT_EQ(os::create_named_mutex("bad/name"), nullptr);
    int not_a_handle = 0;
    EXPECT_EQ(os::map_view(&not_a_handle, nullptr), nullptr);
    EXPECT_FALSE(os::unmap_view(&not_a_handle));
    EXPECT_FALSE(os::close_handle(&not_a_handle));
    EXPECT_EQ(os::wait_mutex(&not_a_handle, 0), os::kWaitFailed);
}

TEST(NamedMutex, RecursiveOwnedByAThreadAndAbandonedWithIt) {
    const std::string name = unique_name("mutex");
    os::Handle a = os::create_named_mutex(name.c_str());
    os::Handle b = os::create_named_mutex(name.c_str());  // a second handle, the same mutex
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(os::wait_mutex(a, 0), os::kWaitObject0);
    EXPECT_EQ(os::wait_mutex(b, os::kInfinite), os::kWaitObject0);
    unsigned other = 1;
    std::thread([&] { other = os::wait_mutex(b, 20); }).join();
    EXPECT_EQ(other, os::kWaitTimeout);
    EXPECT_TRUE(os::release_mutex(a));
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

}  // namespace
