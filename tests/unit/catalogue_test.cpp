// The signal catalogue: loading and its error lines, lookups, unpacking of
// framed SignalGroupData messages, and the padded group image.

#include <gtest/gtest.h>

#include <optional>

#include "log_capture.h"
#include "logging.h"
#include "message_adapter.h"
#include "signal_adapter.h"
#include "temp_dir.h"

namespace {

using ecu::kora::com::Message;
using ecu::kora::pb::SignalGroupData;
using ecu::kora::rt::SignalAdapter;
using Bytes = std::vector<std::uint8_t>;
using Names = std::vector<std::string>;

// Extra keys at every level: the loader must ignore them.
const char* const g_catalogue = R"({"version": 3, "groups": [
    {"topic": "rt/a", "id": 10, "retained": true, "size": 8, "comment": "x",
     "signals": [{"name": "x", "offset": 0, "size": 2, "unit": "km/h"},
                 {"name": "y", "offset": 2, "size": 4}, {"name": "z", "offset": 7, "size": 1}]},
    {"topic": "rt/a/b", "id": 11, "size": 4, "signals": [{"name": "flag", "offset": 0, "size": 1}]},
    {"topic": "rt/b", "id": 7, "size": 4, "signals": []},
    {"topic": "rt/c", "id": 7, "size": 4, "signals": []},
    {"topic": "rt/b", "id": 8, "retained": true, "size": 4, "signals": []}]})";

Message frame(std::initializer_list<std::pair<const char*, std::string>> values,
              std::optional<std::uint64_t> timestamp = std::nullopt) {
    SignalGroupData data;
    if (timestamp) {
        data.set_timestamp(*timestamp);
    }
    for (const auto& [name, value] : values) {
        auto* signal = data.add_signals();
        signal->set_name(name);
        signal->set_data(value);
    }
    return ecu::kora::com::PbInternalMessageAdapter<SignalGroupData>().serialize(data).message;
}

class Catalogue : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(adapter.load(dir.write("catalogue.json", g_catalogue))); }
    ipcd_test::TempDir dir;
    ipcd_test::LogCapture log;
    SignalAdapter adapter;
};

TEST_F(Catalogue, ShippedSampleHasTheSystemTopics) {
    ASSERT_TRUE(adapter.load(std::string(IPCD_SOURCE_DIR) + "/dist/rt_catalogue.json"));
    EXPECT_NE(adapter.map_topic_to_rtid("rt/system/time_sync"), 0U);
    EXPECT_NE(adapter.map_topic_to_rtid("rt/system/timestamp"), 0U);
}

TEST_F(Catalogue, InvalidFilesEmptyItWithOneErrorLine) {
    auto group = [](const std::string& fields) { return R"({"groups": [{)" + fields + "}]}"; };
    const std::string signal = R"("signals": [{"name": "s", "offset": 0, "size": 1}])";
    const std::string head = R"("topic": "rt/t", "id": 1, "size": 8, )";
    const std::pair<std::string, std::string> cases[] = {
        {"{\n  \"groups\": [\n    {,\n", "not valid JSON at line 3, column 6: syntax error"},
        {R"({"group": []})", "groups: required key is missing"},
        {group(R"("topic": 7, "id": 1, "size": 8, )" + signal),
         "groups[0].topic: must be a string"},
        {group(R"("topic": "rt/#", "id": 1, "size": 8, )" + signal),
         R"(groups[0].topic: topic string "rt/#" holds a wildcard)"},
        {group(R"("topic": "rt/+/x", "id": 1, "size": 8, )" + signal), "holds a wildcard"},
        {group(R"("topic": "rt/a\u0000b", "id": 1, "size": 8, )" + signal), "or a NUL"},
        {group(R"("topic": "rt/t", "id": 4294967296, "size": 8, )" + signal),
         "groups[0].id: must be an unsigned 32-bit integer, found 4294967296"},
        {group(head + R"("retained": "yes", )" + signal),
         "groups[0].retained: must be true or false"},
        {group(R"("topic": "rt/t", "id": 1, "size": 70000, )" + signal),
         "groups[0].size: must be an unsigned integer up to 65536, found 70000"},
        {group(head + R"("signals": [{"name": "s", "offset": 0, "size": 0}])"),
         "groups[0].signals[0].size: must be at least 1"},
        {group(head + R"("signals": [{"name": "a", "offset": 6, "size": 4}])"),
         "groups[0].signals[0].offset: offset + size (10) exceeds the group size 8"},
        {group(head + R"("signals": [{"name": "a", "offset": 0, "size": 1},
                                     {"name": "a", "offset": 1, "size": 1}])"),
         "groups[0].signals[1].name: duplicate signal name 'a'"},
    };
    for (const auto& [text, fragment] : cases) {
        const std::string path = dir.write("bad.json", text);
        log.clear();
        EXPECT_FALSE(adapter.load(path)) << fragment;
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1U) << fragment;
        EXPECT_EQ(lines[0].severity, ecu::kora::logging::error);
        EXPECT_NE(lines[0].text.find("Signal catalogue '" + path + "': "), std::string::npos);
        EXPECT_NE(lines[0].text.find(fragment), std::string::npos) << lines[0].text;
        EXPECT_TRUE(adapter.get_topics("").empty());
    }
    EXPECT_FALSE(adapter.load(dir.file("absent.json")));
    EXPECT_NE(log.lines().back().text.find("cannot be read: No such file or directory"),
              std::string::npos);
}

TEST_F(Catalogue, LookupsFollowFileOrderAndTheFirstGroup) {
    // A shared id is allowed; loading names both topics.
    log.clear();
    ASSERT_TRUE(adapter.load(dir.file("catalogue.json")));
    const auto shared = log.find("RT id 7");
    ASSERT_EQ(shared.size(), 1U);
    EXPECT_EQ(shared[0].severity, ecu::kora::logging::warning);
    EXPECT_NE(shared[0].text.find("groups[3]: RT id 7 of 'rt/c' is already the id of 'rt/b'"),
              std::string::npos);

    EXPECT_EQ(adapter.get_topics(""), (Names{"rt/a", "rt/a/b", "rt/b", "rt/c", "rt/b"}));
    EXPECT_EQ(adapter.get_topics("rt/a"), (Names{"rt/a", "rt/a/b"}));
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/b"), 7U);  // a repeated topic: its first group
    EXPECT_FALSE(adapter.is_topic_retained("rt/b"));
    EXPECT_TRUE(adapter.is_topic_retained("rt/a"));
    EXPECT_FALSE(adapter.is_topic_retained("rt/a/b"));  // the default
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/a/"), 0U);
}

TEST_F(Catalogue, UnpackCarriesTheMessageSignalsAndItsTimestamp) {
    auto [ok, group, error] = adapter.unpack(
        "rt/a", frame({{"y", "\x01\x02\x03\x04"}, {"x", "\x09"}, {"x", "\xAA"}}, 1234));
    ASSERT_TRUE(ok) << error;
    EXPECT_EQ(group.timestamp(), 1234U);
    // Message order; a repeated name once, with its later value.
    EXPECT_EQ(group.signal_names(), (Names{"y", "x"}));
    EXPECT_TRUE(group.signal("z").data().empty());  // defined, not carried
    // x is shorter than its two bytes: the rest of its place stays zero.
    EXPECT_EQ(adapter.add_padding(group), std::string("\xAA\x00\x01\x02\x03\x04\x00\x00", 8));
    EXPECT_TRUE(adapter.find_group("rt/a")->signal_names().empty());

    // Without a body timestamp the frame header's counts.
    Message msg = frame({{"z", "\x07"}});
    for (int i = 0; i < 8; ++i) {
        msg.payload[10 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(0x11 * (i + 1));
    }
    auto [ok2, group2, error2] = adapter.unpack("rt/a", msg);
    ASSERT_TRUE(ok2) << error2;
    EXPECT_EQ(group2.timestamp(), 0x8877665544332211ULL);

    // A cached group takes later values signal by signal.
    EXPECT_TRUE(group.set_signal_data("z", {0x07}));
    EXPECT_FALSE(group.set_signal_data("w", {0x01}));
    EXPECT_FALSE(group.set_signal_data("z", {0x01, 0x02}));
    EXPECT_EQ(adapter.add_padding(group), std::string("\xAA\x00\x01\x02\x03\x04\x00\x07", 8));
}

TEST_F(Catalogue, UnpackFailuresExplainThemselves) {
    Message truncated = frame({{"x", "\x01\x02"}});
    truncated.payload.pop_back();
    const std::tuple<std::string, Message, std::string> cases[] = {
        {"rt/nope", frame({{"x", "\x01"}}), "Topic 'rt/nope' is not in the signal catalogue"},
        {"rt/a", frame({{"flag", "\x01"}}), "Signal 'flag' is not defined for topic 'rt/a'"},
        {"rt/a", frame({{"x", "\x01\x02\x03"}}),
         "Signal 'x' of topic 'rt/a': value of 3 bytes exceeds its size 2"},
        {"rt/a", truncated, "Frame for topic 'rt/a' does not decode: error 5 (body undecodable)"},
        {"rt/a", Message{}, "Frame for topic 'rt/a' does not decode: error 1 (frame too short)"},
    };
    for (const auto& [topic, msg, text] : cases) {
        auto [ok, group, error] = adapter.unpack(topic, msg);
        EXPECT_FALSE(ok);
        EXPECT_EQ(error, text);
        EXPECT_TRUE(group.signal_names().empty());
    }
}

}  // namespace
