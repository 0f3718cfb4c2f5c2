// The signal catalogue: loading and its error lines, topic lookups, unpacking
// of framed SignalGroupData messages, and the padded group image.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "message_adapter.h"
#include "signal_adapter.h"
#include "signal_group.pb.h"
#include "support/support.h"

namespace {

using ecu::kora::com::Message;
using ecu::kora::com::PbInternalMessageAdapter;
using ecu::kora::pb::SignalGroupData;
using ecu::kora::rt::SignalAdapter;
using ecu::kora::rt::SignalGroup;
using Bytes = std::vector<std::uint8_t>;

constexpr int error_level = 3;
const char* const log_module = "kora.rt.catalogue";

// Extra keys at every level: the loader must ignore them.
const char* const test_catalogue = R"({
  "version": 3,
  "groups": [
    { "topic": "rt/a", "id": 10, "retained": true, "size": 8, "comment": "x",
      "signals": [ { "name": "x", "offset": 0, "size": 2, "unit": "km/h" },
                   { "name": "y", "offset": 2, "size": 4 },
                   { "name": "z", "offset": 7, "size": 1 } ] },
    { "topic": "rt/a/b", "id": 11, "size": 4,
      "signals": [ { "name": "flag", "offset": 0, "size": 1 } ] },
    { "topic": "rt/b", "id": 7, "size": 4, "signals": [] },
    { "topic": "rt/c", "id": 7, "retained": false, "size": 4, "signals": [] },
    { "topic": "rt/zero", "id": 0, "size": 0, "signals": [] },
    { "topic": "rt/b", "id": 8, "retained": true, "size": 4, "signals": [] }
  ]
})";

Bytes bytes(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

SignalGroupData body(const std::vector<std::pair<std::string, std::string>>& values) {
    SignalGroupData data;
    for (const auto& [name, value] : values) {
        auto* signal = data.add_signals();
        signal->set_name(name);
        signal->set_data(value);
    }
    return data;
}

Message frame(const SignalGroupData& data) {
    auto result = PbInternalMessageAdapter<SignalGroupData>().serialize(data);
    EXPECT_TRUE(result.success);
    return result.message;
}

class CatalogueTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(adapter.load(dir.write("catalogue.json", test_catalogue)));
        log.clear();
    }

    std::vector<ipcd_test::LogCapture::Line> errors() const {
        std::vector<ipcd_test::LogCapture::Line> found;
        for (const auto& line : log.lines()) {
            if (line.severity <= error_level && line.module == log_module) {
                found.push_back(line);
            }
        }
        return found;
    }

    ipcd_test::TempDir dir;
    ipcd_test::LogCapture log;
    SignalAdapter adapter;
};

TEST_F(CatalogueTest, ShippedSampleLoadsWithSystemTopicsAndServesInstance) {
    const std::string sample = std::string(IPCD_SOURCE_DIR) + "/dist/rt_catalogue.json";
    ASSERT_TRUE(adapter.load(sample));
    EXPECT_TRUE(errors().empty());
    EXPECT_EQ(adapter.get_topics("rt/system/"),
              (std::vector<std::string>{"rt/system/time_sync", "rt/system/timestamp"}));
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/system/time_sync"), 1U);
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/system/timestamp"), 2U);
    EXPECT_TRUE(adapter.is_topic_retained("rt/vehicle/speed"));
    EXPECT_GE(adapter.get_topics("rt/vehicle/").size(), 10U);
    const SignalGroup* request = adapter.find_group("rt/hmi/climate_request");
    ASSERT_NE(request, nullptr);
    EXPECT_NE(request->id(), 0U);
    EXPECT_TRUE(request->signal_names().empty());

    // The process-wide adapter reads the file named by the environment.
    ::setenv("KIRN_RT_CATALOGUE", sample.c_str(), 1);
    EXPECT_EQ(SignalAdapter::instance().map_topic_to_rtid("rt/system/time_sync"), 1U);
    EXPECT_EQ(&SignalAdapter::instance(), &SignalAdapter::instance());
}

TEST_F(CatalogueTest, InvalidFilesEmptyTheCatalogueWithOneErrorLine) {
    auto group = [](const std::string& fields) { return R"({"groups": [{)" + fields + "}]}"; };
    const std::string ok_signal = R"("signals": [{"name": "s", "offset": 0, "size": 1}])";
    const std::string head = R"("topic": "rt/t", "id": 1, "size": 8, )";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"{\n  \"groups\": [\n    {,\n", "not valid JSON at line 3, column 6: syntax error"},
        {"",
         "not valid JSON at line 1, column 1: syntax error while parsing value - unexpected end"},
        {R"({"groups": []} trailing)",
         "not valid JSON at line 1, column 18: syntax error while parsing value - invalid literal"},
        {"[]", "top level: must be an object, found array"},
        {R"({"group": []})", "groups: required key is missing"},
        {R"({"groups": {}})", "groups: must be an array, found object"},
        {R"({"groups": [5]})", "groups[0]: must be an object, found 5"},
        {group(R"("id": 1, "size": 8, )" + ok_signal), "groups[0].topic: required key is missing"},
        {group(R"("topic": 7, "id": 1, "size": 8, )" + ok_signal),
         "groups[0].topic: must be a string, found 7"},
        {group(R"("topic": "", "id": 1, "size": 8, )" + ok_signal),
         "groups[0].topic: must not be empty"},
        {group(R"("topic": "rt/#", "id": 1, "size": 8, )" + ok_signal),
         "groups[0].topic: topic string \"rt/#\" holds a wildcard"},
        {group(R"("topic": "rt/+/x", "id": 1, "size": 8, )" + ok_signal),
         "groups[0].topic: topic string \"rt/+/x\" holds a wildcard"},
        {group(R"("topic": "rt/a\u0000b", "id": 1, "size": 8, )" + ok_signal),
         "or a NUL and cannot be published"},
        {group(R"("topic": "rt/t", "size": 8, )" + ok_signal), "groups[0].id: required key"},
        {group(R"("topic": "rt/t", "id": -1, "size": 8, )" + ok_signal),
         "groups[0].id: must be an unsigned 32-bit integer, found -1"},
        {group(R"("topic": "rt/t", "id": 4294967296, "size": 8, )" + ok_signal),
         "groups[0].id: must be an unsigned 32-bit integer, found 4294967296"},
        {group(R"("topic": "rt/t", "id": "1", "size": 8, )" + ok_signal),
         R"(groups[0].id: must be an unsigned 32-bit integer, found string "1")"},
        {group(R"("topic": "rt/t", "id": 1.5, "size": 8, )" + ok_signal),
         "groups[0].id: must be an unsigned 32-bit integer, found 1.5"},
        {group(head + R"("retained": "yes", )" + ok_signal),
         R"(groups[0].retained: must be true or false, found string "yes")"},
        {group(R"("topic": "rt/t", "id": 1, "size": 70000, )" + ok_signal),
         "groups[0].size: must be an unsigned integer up to 65536, found 70000"},
        {group(R"("topic": "rt/t", "id": 1, )" + ok_signal), "groups[0].size: required key"},
        {group(R"("topic": "rt/t", "id": 1, "size": 8)"), "groups[0].signals: required key"},
        {group(head + R"("signals": {})"), "groups[0].signals: must be an array, found object"},
        {group(head + R"("signals": [{"offset": 0, "size": 1}])"),
         "groups[0].signals[0].name: required key is missing"},
        {group(head + R"("signals": [{"name": "s", "offset": -2, "size": 1}])"),
         "groups[0].signals[0].offset: must be an unsigned integer up to 65536, found -2"},
        {group(head + R"("signals": [{"name": "s", "offset": 0, "size": 0}])"),
         "groups[0].signals[0].size: must be at least 1"},
        {group(head + R"("signals": [{"name": "s", "offset": 0, "size": null}])"),
         "groups[0].signals[0].size: must be an unsigned integer up to 65536, found null"},
        {R"({"groups": [{"topic": "rt/ok", "id": 1, "size": 8, "signals": []},
                        {"topic": "rt/t", "id": 2, "size": 8, "signals": [
                          {"name": "a", "offset": 0, "size": 4},
                          {"name": "b", "offset": 6, "size": 4}]}]})",
         "groups[1].signals[1].offset: offset + size (10) exceeds the group size 8"},
        {group(head + R"("signals": [{"name": "a", "offset": 0, "size": 1},
                                     {"name": "a", "offset": 1, "size": 1}])"),
         "groups[0].signals[1].name: duplicate signal name 'a'"},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& [text, fragment] = cases[i];
        SCOPED_TRACE("case " + std::to_string(i) + ": " + fragment);
        const std::string path = dir.write("bad" + std::to_string(i) + ".json", text);
        ASSERT_TRUE(adapter.load(dir.file("catalogue.json")));
        log.clear();
        EXPECT_FALSE(adapter.load(path));
        const auto lines = errors();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].severity, error_level);
        EXPECT_EQ(lines[0].text.rfind("Signal catalogue '" + path + "': ", 0), 0U) << lines[0].text;
        EXPECT_NE(lines[0].text.find(fragment), std::string::npos) << lines[0].text;
        EXPECT_TRUE(adapter.get_topics("").empty());
        EXPECT_EQ(adapter.find_group("rt/a"), nullptr);
        EXPECT_EQ(adapter.map_topic_to_rtid("rt/a"), 0U);
    }
}

TEST_F(CatalogueTest, MissingFileIsReportedWithTheSystemReason) {
    const std::string path = dir.file("absent.json");
    EXPECT_FALSE(adapter.load(path));
    ASSERT_EQ(errors().size(), 1U);
    EXPECT_TRUE(log.has(
        error_level, "Signal catalogue '" + path + "' cannot be read: No such file or directory"));
    EXPECT_TRUE(adapter.get_topics("").empty());
}

TEST_F(CatalogueTest, LookupsFollowFileOrderPrefixesAndDuplicates) {
    // A shared id is allowed; loading names both topics, since only the first
    // receives the id's records.
    ASSERT_TRUE(adapter.load(dir.file("catalogue.json")));
    const auto shared = log.find("RT id 7");
    ASSERT_EQ(shared.size(), 1U);
    EXPECT_EQ(shared[0].severity, ecu::kora::logging::warning);
    EXPECT_NE(shared[0].text.find("groups[3]: RT id 7 of 'rt/c' is already the id of 'rt/b'"),
              std::string::npos)
        << shared[0].text;

    EXPECT_EQ(adapter.get_topics(""),
              (std::vector<std::string>{"rt/a", "rt/a/b", "rt/b", "rt/c", "rt/zero", "rt/b"}));
    EXPECT_EQ(adapter.get_topics("rt/a"), (std::vector<std::string>{"rt/a", "rt/a/b"}));
    EXPECT_EQ(adapter.get_topics("rt/a/"), (std::vector<std::string>{"rt/a/b"}));
    EXPECT_TRUE(adapter.get_topics("rt/x").empty());
    EXPECT_TRUE(adapter.get_topics("rt/a/b/c").empty());

    // Shared ids and id 0 are kept as listed; a repeated topic resolves to its first group.
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/b"), 7U);
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/c"), 7U);
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/zero"), 0U);
    EXPECT_NE(adapter.find_group("rt/zero"), nullptr);
    EXPECT_FALSE(adapter.is_topic_retained("rt/b"));
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/unknown"), 0U);
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/a/"), 0U);

    EXPECT_TRUE(adapter.is_topic_retained("rt/a"));
    EXPECT_FALSE(adapter.is_topic_retained("rt/a/b"));  // default
    EXPECT_FALSE(adapter.is_topic_retained("rt/unknown"));

    const SignalGroup* a = adapter.find_group("rt/a");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->id(), 10U);
    EXPECT_EQ(a->size(), 8U);
    ASSERT_EQ(a->definitions().size(), 3U);
    EXPECT_EQ(a->definitions()[1].name(), "y");
    EXPECT_EQ(a->definitions()[1].offset(), 2U);
    EXPECT_EQ(a->definitions()[1].size(), 4U);
    EXPECT_EQ(adapter.find_group("rt/none"), nullptr);
}

TEST_F(CatalogueTest, UnpackCarriesTheMessageSignalsAndItsTimestamp) {
    auto data = body({{"y", "\x01\x02\x03\x04"}, {"x", "\x09"}, {"x", "\x05\x06"}});
    data.set_timestamp(1234);
    auto [ok, group, error] = adapter.unpack("rt/a", frame(data));
    ASSERT_TRUE(ok) << error;
    EXPECT_TRUE(error.empty());
    EXPECT_EQ(group.topic(), "rt/a");
    EXPECT_EQ(group.id(), 10U);
    EXPECT_EQ(group.size(), 8U);
    EXPECT_EQ(group.definitions().size(), 3U);
    EXPECT_EQ(group.timestamp(), 1234U);
    // Message order; a repeated name is listed once with its later value.
    EXPECT_EQ(group.signal_names(), (std::vector<std::string>{"y", "x"}));
    EXPECT_EQ(group.signal("x").data(), bytes("\x05\x06"));
    EXPECT_EQ(group.signal("y").data(), bytes("\x01\x02\x03\x04"));
    EXPECT_EQ(group.signal("y").offset(), 2U);
    EXPECT_TRUE(group.signal("z").name().empty());  // defined but not carried
    EXPECT_TRUE(group.signal("z").data().empty());

    // Without a body timestamp the header's counts, not the Message field.
    Message msg = frame(body({{"z", "\x07"}}));
    const std::uint64_t stamp = 0x1122334455667788ULL;
    for (int i = 0; i < 8; ++i) {
        msg.payload[10 + i] = static_cast<std::uint8_t>(stamp >> (8 * i));
    }
    msg.timestamp = 0;
    auto [ok2, group2, error2] = adapter.unpack("rt/a", msg);
    ASSERT_TRUE(ok2) << error2;
    EXPECT_EQ(group2.timestamp(), stamp);
    EXPECT_EQ(group2.signal_names(), (std::vector<std::string>{"z"}));

    // The catalogue's own definition stays uncarried.
    EXPECT_TRUE(adapter.find_group("rt/a")->signal_names().empty());
}

TEST_F(CatalogueTest, UnpackFailuresExplainThemselves) {
    Message truncated = frame(body({{"x", "\x01\x02"}}));
    truncated.payload.pop_back();
    Message short_frame;
    short_frame.payload = bytes("\x09\x01\x00");
    const std::vector<std::tuple<std::string, Message, std::string>> cases = {
        {"rt/nope", frame(body({{"x", "\x01"}})), "Topic 'rt/nope' is not in the signal catalogue"},
        {"rt/a", frame(body({{"x", "\x01"}, {"w", "\x01"}})),
         "Signal 'w' is not defined for topic 'rt/a'"},
        {"rt/a", frame(body({{"flag", "\x01"}})), "Signal 'flag' is not defined for topic 'rt/a'"},
        {"rt/a", frame(body({{"x", "\x01\x02\x03"}})),
         "Signal 'x' of topic 'rt/a': value of 3 bytes exceeds its size 2"},
        {"rt/a", truncated, "Frame for topic 'rt/a' does not decode: error 5 (body undecodable)"},
        {"rt/a", short_frame, "Frame for topic 'rt/a' does not decode: error 1 (frame too short)"},
        {"rt/a", Message{}, "Frame for topic 'rt/a' does not decode: error 1 (frame too short)"},
    };
    for (const auto& [topic, msg, text] : cases) {
        SCOPED_TRACE(text);
        auto [ok, group, error] = adapter.unpack(topic, msg);
        EXPECT_FALSE(ok);
        EXPECT_EQ(error, text);
        EXPECT_TRUE(group.topic().empty());
        EXPECT_TRUE(group.signal_names().empty());
    }
}

TEST_F(CatalogueTest, PaddingPlacesEachCarriedSignalInAZeroImage) {
    EXPECT_EQ(adapter.add_padding(*adapter.find_group("rt/a")), std::string(8, '\0'));
    EXPECT_EQ(adapter.add_padding(SignalGroup{}), "");

    // x is shorter than its two bytes: the rest of its place stays zero.
    auto [ok, group, error] = adapter.unpack(
        "rt/a", frame(body({{"z", "\x07"}, {"x", "\xAA"}, {"y", "\x01\x02\x03\x04"}})));
    ASSERT_TRUE(ok) << error;
    EXPECT_EQ(adapter.add_padding(group), std::string("\xAA\x00\x01\x02\x03\x04\x00\x07", 8));
}

TEST_F(CatalogueTest, SetSignalDataMergesIntoACachedGroup) {
    auto [ok1, cached, e1] =
        adapter.unpack("rt/a", frame(body({{"x", "\x11\x12"}, {"y", "AAAA"}})));
    auto [ok2, fresh, e2] = adapter.unpack("rt/a", frame(body({{"y", "BBBB"}})));
    ASSERT_TRUE(ok1 && ok2) << e1 << e2;
    for (const auto& name : fresh.signal_names()) {
        EXPECT_TRUE(cached.set_signal_data(name, fresh.signal(name).data()));
    }
    EXPECT_EQ(cached.signal_names(), (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(adapter.add_padding(cached), std::string("\x11\x12"
                                                       "BBBB\x00\x00",
                                                       8));

    // New names are appended once; undefined names and oversized data are refused.
    EXPECT_TRUE(cached.set_signal_data("z", {0x7F}));
    EXPECT_TRUE(cached.set_signal_data("z", {0x7E}));
    EXPECT_EQ(cached.signal_names(), (std::vector<std::string>{"x", "y", "z"}));
    EXPECT_FALSE(cached.set_signal_data("w", {1}));
    EXPECT_FALSE(cached.set_signal_data("x", {1, 2, 3}));
    EXPECT_EQ(cached.signal("x").data(), bytes("\x11\x12"));
    EXPECT_EQ(adapter.add_padding(cached), std::string("\x11\x12"
                                                       "BBBB\x00\x7E",
                                                       8));
    EXPECT_FALSE(SignalGroup{}.set_signal_data("x", {1}));
}

}  // namespace
