// The signal catalogue: the errors of a file that does not load, lookups, and
// unpacking framed SignalGroupData into a padded image.

#include <gtest/gtest.h>

#include "frames.h"
#include "logging.h"
#include "signal_adapter.h"
#include "support.h"

namespace {

using Names = std::vector<std::string>;

const char* const g_catalogue = R"({"version": 3, "groups": [
    {"topic": "rt/a", "id": 10, "retained": true, "size": 8, "comment": "extra keys are ignored",
     "signals": [{"name": "x", "offset": 0, "size": 2}, {"name": "y", "offset": 2, "size": 4},
                 {"name": "z", "offset": 7, "size": 1, "nmae": {"topic": 1}}]},
    {"topic": "rt/a/b", "id": 7, "size": 4, "signals": [], "retianed": true},
    {"topic": "rt/zero", "id": 0, "size": 4, "signals": []},
    {"topic": "rt/c", "id": 7, "size": 4, "signals": []},
    {"topic": "rt/a/b", "id": 8, "retained": true, "size": 4, "signals": []}]})";

ecu::kora::com::Message frame(std::initializer_list<std::pair<const char*, std::string>> values,
                              std::uint64_t timestamp = 0) {
    return ipcd_test::message(ipcd_test::group_data(values, timestamp));
}

TEST(Catalogue, LoadsLooksUpAndRefusesWhatCannotWork) {
    ipcd_test::TempDir dir;
    ipcd_test::LogCapture log;
    ecu::kora::rt::SignalAdapter adapter;
    ASSERT_TRUE(adapter.load(dir.write("c.json", g_catalogue)));
    const std::string named = "Signal catalogue '" + dir.file("c.json") + "'";
    const std::string known_but_unread[] = {
        // clang-format off
        named + " line 1: top level: unknown key 'version' is ignored",
        named + " line 2: groups[0]: unknown key 'comment' is ignored",
        named + " line 4: groups[0].signals[2]: unknown key 'nmae' is ignored (did you mean name?)",
        named + " line 5: groups[1]: unknown key 'retianed' is ignored (did you mean retained?)",
        named + ": groups[2]: 'rt/zero' has RT id 0, which every lookup of its topic returns for \"not found\": no client can request it or write to it",
        named + ": groups[3]: RT id 7 of 'rt/c' is already the id of 'rt/a/b'",
        // clang-format on
    };
    ASSERT_EQ(log.lines().size(), std::size(known_but_unread));
    for (std::size_t i = 0; i < std::size(known_but_unread); ++i) {
        EXPECT_EQ(log.lines()[i].text, known_but_unread[i]);
        EXPECT_EQ(log.lines()[i].severity, ecu::kora::logging::warning);
    }
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/zero"), 0U);  // loaded all the same
    EXPECT_EQ(adapter.get_topics("rt/a"), (Names{"rt/a", "rt/a/b", "rt/a/b"}));
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/a/b"), 7U);  // a repeated topic: its first group
    EXPECT_FALSE(adapter.is_topic_retained("rt/a/b"));
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/a/"), 0U);

    const std::string head = R"({"groups": [{"id": 1, "size": 8, "signals": [], "topic": )";
    const std::pair<std::string, std::string> cases[] = {
        {"{\n  \"groups\": [\n    {,\n", "not valid JSON at line 3, column 6: syntax error"},
        {R"({"group": []})", "groups: required key is missing"},
        {head + R"("rt/#"}]})", R"(groups[0].topic: topic string "rt/#" holds a wildcard)"},
        {head + R"("rt/+/x"}]})", R"("rt/+/x" holds a wildcard (+ or #) or a NUL)"},
        {head + R"("rt/a\u0000"}]})", "holds a wildcard (+ or #) or a NUL"},
        {R"({"groups": [{"topic": "t", "id": 4294967296, "size": 8, "signals": []}]})",
         "groups[0].id: must be an unsigned 32-bit integer, found 4294967296"},
        {R"({"groups": [{"topic": "t", "id": 1, "size": 8, "signals": [{"name": "a", "offset": 6, "size": 4}]}]})",
         "groups[0].signals[0].offset: offset + size (10) exceeds the group size 8"},
    };
    for (const auto& [text, reason] : cases) {
        log.clear();
        EXPECT_FALSE(adapter.load(dir.write("bad.json", text)));
        ASSERT_EQ(log.lines().size(), 1U) << reason;
        EXPECT_EQ(log.lines()[0].severity, ecu::kora::logging::error);
        const std::string line = log.lines()[0].text;
        const std::string named = "Signal catalogue '" + dir.file("bad.json") + "': ";
        EXPECT_TRUE(line.rfind(named, 0) == 0 && line.find(reason) != std::string::npos) << line;
        EXPECT_TRUE(adapter.get_topics("").empty());
    }
}

TEST(Catalogue, UnpacksIntoAPaddedImageOrSaysWhyNot) {
    ipcd_test::TempDir dir;
    ipcd_test::LogCapture log;  // its duplicate id is reported
    ecu::kora::rt::SignalAdapter adapter;
    ASSERT_TRUE(adapter.load(dir.write("c.json", g_catalogue)));
    auto [ok, group, error] = adapter.unpack(
        "rt/a", frame({{"y", "\x01\x02\x03\x04"}, {"x", "\x09"}, {"x", "\xAA"}}, 1234));
    ASSERT_TRUE(ok) << error;
    EXPECT_EQ(group.timestamp(), 1234U);
    EXPECT_EQ(group.signal_names(), (Names{"y", "x"}));  // message order, a repeat once
    EXPECT_EQ(adapter.add_padding(group), std::string("\xAA\x00\x01\x02\x03\x04\x00\x00", 8));
    EXPECT_TRUE(group.set_signal_data("z", {0x07}));  // merged later, signal by signal
    EXPECT_FALSE(group.set_signal_data("w", {0x01}));
    EXPECT_FALSE(group.set_signal_data("z", {0x01, 0x02}));
    EXPECT_EQ(adapter.add_padding(group), std::string("\xAA\x00\x01\x02\x03\x04\x00\x07", 8));
    auto untimed = frame({{"z", "\x07"}});  // without a body timestamp the header's counts
    untimed.payload[10] = 0x42;
    EXPECT_EQ(std::get<1>(adapter.unpack("rt/a", untimed)).timestamp() & 0xFF, 0x42U);

    const std::tuple<const char*, ecu::kora::com::Message, std::string> failures[] = {
        // clang-format off
        {"rt/a", frame({{"w", "\x01"}}), "Signal 'w' is not defined for topic 'rt/a'"},
        {"rt/a", frame({{"x", "\x01\x02\x03"}}), "Signal 'x' of topic 'rt/a': value of 3 bytes exceeds its size 2"},
        {"rt/a", {}, "Frame for topic 'rt/a' does not decode: error 1 (frame too short)"},
        {"rt/none", frame({}), "Topic 'rt/none' is not in the signal catalogue"},
        // clang-format on
    };
    for (const auto& [topic, message, text] : failures) {
        EXPECT_EQ(std::get<2>(adapter.unpack(topic, message)), text);
        // The reason a client's message is refused is seen at the default level.
        EXPECT_TRUE(log.has(ecu::kora::logging::warning,
                            "Unpacking for '" + std::string(topic) + "': " + text));
    }
}

}  // namespace
