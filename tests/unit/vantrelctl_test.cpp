// vantrelctl's pure pieces: state derivation, durations, name resolution.
#include <gtest/gtest.h>

#include <cstring>

#include "app_state.h"
#include "duration.h"
#include "resolve.h"

TEST(VantrelctlState, DerivedFromStatusFields)
{
    struct row { app_facts facts; const char* state; bool should_run; };
    const row rows[] = {
        {{1234, 0, 1, ""}, "running", true}, {{1234, 0, 0, ""}, "running", false}, {{1234, 3, 1, ""}, "stopping", true},
        {{0, 0, 0, ""}, "stopped", false}, {{0, 0, 1, ""}, "starting", true},
        {{0, 0, 0, "Respawn too fast"}, "exited too fast", true}, {{0, 0, 0, "Start error"}, "start error", true},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.state);
        EXPECT_STREQ(state_name(derive_state(r.facts)), r.state);
        EXPECT_EQ(should_run(r.facts), r.should_run);
        EXPECT_EQ(counts_as_running(r.facts), std::string(r.state) == "running");
    }
}

TEST(VantrelctlDuration, TwoUnitsAtMost)
{
    const std::pair<int64_t, const char*> rows[] = {
        {-5, "0s"}, {0, "0s"}, {59, "59s"}, {60, "1m 00s"}, {3599, "59m 59s"}, {3600, "1h 00m"},
        {86399, "23h 59m"}, {86400, "1d 00h"}, {90061, "1d 01h"}, {864000, "10d 00h"},
    };
    for (const auto& [seconds, text] : rows) EXPECT_EQ(format_duration(seconds), text) << seconds;
}

TEST(VantrelctlResolve, NamesIndexesHandlesAndGlobs)
{
    const std::vector<app_ref> apps = {
        {0, "1f", "Mix A", "elem_mixer"}, {1, "20", "Mix B", "elem_mixer"},
        {2, "2a", "Mix A", "elem_matrix"}, {3, "ff", "2", "elem_dve"}, {4, "100", "elem_clock", "elem_clock"},
    };
    struct row { std::vector<std::string> tokens; bool many; std::vector<int> indexes; const char* error; };
    const row rows[] = {
        {{"Mix B"}, false, {1}, ""}, {{"1"}, false, {1}, ""}, {{"@20"}, false, {1}, ""}, {{"@0X0020"}, false, {1}, ""},
        {{"elem_dve"}, false, {3}, ""}, {{"M?x B"}, false, {1}, ""}, {{"elem_clock"}, false, {4}, ""},
        {{"Mix A"}, false, {}, "'Mix A' is ambiguous; candidates:\n  0 @1f Mix A (elem_mixer)\n"
                               "  2 @2a Mix A (elem_matrix)\nname one by index or @handle"},
        {{"Mix*"}, false, {}, "'Mix*' is ambiguous"}, {{"elem_mixer"}, false, {}, "'elem_mixer' is ambiguous"},
        {{"2"}, false, {}, "'2' is ambiguous"}, {{"5"}, false, {}, "no application '5'"},
        {{"@21"}, false, {}, "no application with handle @21"}, {{"Z*"}, true, {}, "no application matches 'Z*'"},
        {{"Mix*", "1"}, true, {0, 1, 2}, ""}, {{"elem_clock", "Mix B"}, true, {1, 4}, ""},
        {{"all"}, true, {0, 1, 2, 3, 4}, ""}, {{"Mix A"}, true, {}, "'Mix A' is ambiguous"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.tokens[0]);
        resolution got = r.many ? resolve_many(apps, r.tokens) : resolve_one(apps, r.tokens[0]);
        EXPECT_EQ(got.indexes, r.indexes);
        EXPECT_EQ(got.error.substr(0, strlen(r.error)), r.error);
        EXPECT_EQ(got.ok(), r.error[0] == '\0');
    }
}
