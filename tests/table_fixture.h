// Shared set-up of the table tests: the small region of support/model.h created with every
// trace line captured, and helpers for the trace.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "shmrm_internal.h"
#include "support/fake_imports.h"
#include "support/model.h"
#include "support/sandbox.h"
#include "vexshmrm.h"
#include "vexxml.h"

namespace vextest {

using Lines = std::vector<TraceLine>;

inline std::string exit_line(int rc) {
    char text[40];
    std::snprintf(text, sizeof text, "<<< EXIT >>> : 0x%08x", static_cast<unsigned>(rc));
    return text;
}

inline void put_word(int offset, int value) {
    std::memcpy(shmrm::region() + offset, &value, sizeof value);
}

class TableTest : public testing::Test {
  protected:
    void SetUp() override {
        sandbox_.configure(Capacities{kGroups, kSlots, kMonitors}, SHMRM_LOG_PARAM);
        ASSERT_EQ(shmrm_create(), SHMRM_OK);
        fake_.lines.clear();
    }
    void TearDown() override {
        if (shmrm::region() != nullptr) shmrm_delete();
        shmrm::log_close();
        vex::xmllib_term();
    }
    // The lines written since the last call, which forgets them.
    Lines take_lines() {
        Lines out;
        out.swap(fake_.lines);
        return out;
    }
    // The lines of a call: ENTER, `middle` (level, text), EXIT with the result.
    static Lines traced(const std::string& tag, int rc,
                        const std::vector<std::pair<int, std::string>>& middle = {}) {
        Lines out = {{SHMRM_LOG_FUNC, tag, "<<< ENTER >>>"}};
        for (const auto& [level, text] : middle)
            out.push_back({level, tag, text});
        out.push_back({SHMRM_LOG_FUNC, tag, exit_line(rc)});
        return out;
    }
    static Lines failure(const std::string& tag, const std::string& message, int rc) {
        return traced(tag, rc, {{SHMRM_LOG_ERROR, message}});
    }
    // A table of calls made in order, each with its result and its exact trace.
    struct Traced {
        std::function<int()> call;
        int rc;
        Lines lines;
    };
    void check_traces(const std::vector<Traced>& rows) {
        for (std::size_t i = 0; i < rows.size(); ++i) {
            SCOPED_TRACE("row " + std::to_string(i));
            take_lines();
            EXPECT_EQ(rows[i].call(), rows[i].rc);
            EXPECT_EQ(take_lines(), rows[i].lines);
        }
    }
    // A table of exports called while the region is not mapped: each fails with its message,
    // whatever its arguments.
    struct NotInit {
        const char* tag;
        int (*call)();
        const char* message = "not init";
    };
    template <std::size_t N>
    void check_not_init(const NotInit (&rows)[N]) {
        ASSERT_EQ(shmrm_delete(), SHMRM_OK);
        shmrm::log_open();  // so that the failures can be seen
        shmrm::state.log_level.store(SHMRM_LOG_PARAM);
        for (const NotInit& row : rows) {
            SCOPED_TRACE(row.tag);
            fake_.lines.clear();
            EXPECT_EQ(row.call(), SHMRM_ERR_NOTINIT);
            EXPECT_EQ(fake_.lines, failure(row.tag, row.message, SHMRM_ERR_NOTINIT));
        }
    }

    Sandbox sandbox_;
    FakeImports fake_;
};

}  // namespace vextest
