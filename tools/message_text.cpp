#include "message_text.h"

#include <algorithm>

#include "cli_text.h"
#include "message_adapter.h"
#include "topics.h"

namespace ipcd_tools {

namespace com = ecu::kora::com;
namespace pb = ecu::kora::pb;
namespace topics = ecu::kora::com::topics;
using topics::catalogue_topic;

namespace {

// The header fields of a frame; empty when there is no readable header.
Json header_of(const com::Message& msg) {
    pb::QTXHeader header;
    if (msg.payload.size() < com::qtx_header_length ||
        !header.ParseFromArray(msg.payload.data(), static_cast<int>(com::qtx_header_length))) {
        return nullptr;
    }
    const std::uint64_t info = header.frame_info();
    return Json{{"protocol_type", info & 0xFFFFU},
                {"header_length", (info >> 16U) & 0xFFFFU},
                {"body_length", info >> 32U},
                {"timestamp", header.timestamp()}};
}

template <typename T>
bool body_of(const com::Message& msg, T& body) {
    auto result = com::PbInternalMessageAdapter<T>(1).deserialize(msg);
    body = result.body;
    return result.success;
}

Json signal_values(const Catalogue* catalogue, const std::string& topic, const std::string& data) {
    const auto* group = catalogue != nullptr ? catalogue->by_topic(topic) : nullptr;
    if (group == nullptr) {
        return nullptr;
    }
    Json out = Json::object();
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(data.data());
    for (const auto& [name, value] : Catalogue::decode(*group, bytes, data.size())) {
        auto number = parse_number(value);
        out[name] = number ? Json(*number) : Json(value);
    }
    return out;
}

}  // namespace

std::string flat(const Json& value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (value.is_array()) {
        std::string out;
        for (const auto& v : value) {
            out += (out.empty() ? "" : ",") + flat(v);
        }
        return out.empty() ? "-" : out;
    }
    if (value.is_boolean()) {
        return value.get<bool>() ? "1" : "0";
    }
    return value.dump();
}

Json decode(const Catalogue* catalogue, const std::string& topic, const com::Message& msg) {
    Json j{{"topic", topic}, {"retained", msg.retained}, {"qos", msg.qos}};
    Json header = header_of(msg);
    Json body;
    std::string type;
    auto starts = [&topic](const std::string& prefix) { return topic.rfind(prefix, 0) == 0; };
    if (!header.is_null() && topic != topics::end_of_data) {
        if (starts(topics::rt_prefix) || topic == topics::system_state) {
            pb::RtSignal b;
            if (body_of(msg, b)) {
                type = "RtSignal";
                body = Json{{"timestamp", b.timestamp()},
                            {"data", to_hex(b.data())},
                            {"tag", b.tag()},
                            {"source", b.source()}};
                if (topic == topics::system_state && !b.data().empty()) {
                    body["state"] = static_cast<std::uint8_t>(b.data()[0]);
                }
                Json values = signal_values(catalogue, topic, b.data());
                if (!values.is_null()) {
                    body["signals"] = values;
                }
            }
        } else if (topic == topics::announcement) {
            pb::SubscriptionMessage b;
            if (body_of(msg, b)) {
                type = "SubscriptionMessage";
                body = Json{{"topics",
                             Json(std::vector<std::string>(b.topics().begin(), b.topics().end()))}};
            }
        } else if (topic == topics::subscription_status) {
            pb::SubscriptionStatus b;
            if (body_of(msg, b)) {
                type = "SubscriptionStatus";
                body = Json{{"topics",
                             Json(std::vector<std::string>(b.topics().begin(), b.topics().end()))},
                            {"topic_count", b.topic_count()},
                            {"requested_count", b.requested_count()}};
            }
        } else if (topic == topics::tpa_status) {
            pb::TPAStatus b;
            if (body_of(msg, b)) {
                type = "TPAStatus";
                body = Json{{"wait_for_target", b.wait_for_target()},
                            {"target_reached", b.target_reached()}};
            }
        } else if (starts(topics::rttx_prefix)) {
            pb::SignalGroupData b;
            if (body_of(msg, b)) {
                type = "SignalGroupData";
                body = Json{{"timestamp", b.timestamp()}, {"signals", Json::object()}};
                const auto* group =
                    catalogue != nullptr ? catalogue->by_topic(catalogue_topic(topic)) : nullptr;
                for (const auto& s : b.signals()) {
                    Json value = to_hex(s.data());
                    if (group != nullptr && s.data().size() <= 8) {
                        std::uint64_t n = 0;
                        for (std::size_t i = 0; i < s.data().size(); ++i) {
                            n |= static_cast<std::uint64_t>(static_cast<std::uint8_t>(s.data()[i]))
                                 << (8 * i);
                        }
                        value = n;
                    }
                    body["signals"][s.name()] = value;
                }
            }
        }
    }
    if (type.empty()) {
        j["type"] = "raw";
        j["payload"] = to_hex(msg.payload);
    } else {
        j["header"] = header;
        j["type"] = type;
        j["body"] = body;
    }
    return j;
}

std::string text_line(const Json& j, bool with_topic) {
    std::string out = (with_topic ? j["topic"].get<std::string>() + " " : std::string()) +
                      "retained=" + flat(j["retained"]) + " qos=" + flat(j["qos"]);
    if (j["type"] == "raw") {
        return out + " raw " + flat(j["payload"]);
    }
    const Json& h = j["header"];
    out += " proto=" + flat(h["protocol_type"]) + " hlen=" + flat(h["header_length"]) +
           " blen=" + flat(h["body_length"]) + " ts=" + flat(h["timestamp"]) + " " +
           flat(j["type"]);
    for (const auto& [key, value] : j["body"].items()) {
        if (key == "signals") {
            out += " |";
            for (const auto& [name, v] : value.items()) {
                out += " " + name + "=" + flat(v);
            }
        } else {
            out += " " + key + "=" + flat(value);
        }
    }
    return out;
}

namespace {
// A payload that is a JSON object, else null.
Json object_of(const std::string& payload) {
    Json j = Json::parse(payload, nullptr, false);
    return j.is_object() ? j : Json();
}
}  // namespace

std::string stats_text(const std::string& payload) {
    const Json j = object_of(payload);
    if (j.is_null()) {
        return {};
    }
    // What each key counts, in the order an operator reads them.
    static const std::pair<const char*, const char*> known[] = {
        {"version", "ipcd version"},
        {"uptime_s", "seconds since start"},
        {"connected", "connected to the broker"},
        {"reconnects", "reconnections to the broker"},
        {"rt_to_broker", "RT records relayed to the broker"},
        {"broker_to_rt", "records written to TX"},
        {"dropped_offline", "dropped: offline queue full"},
        {"dropped_unrequested", "dropped: topic not requested"},
        {"rx_damaged", "damaged RX records"},
        {"unknown_ids", "RT ids not in the catalogue"},
        {"rttx_refused", "rttx/ messages refused"},
        {"earlybird_depth", "earlybird queue now"},
        {"offline_depth", "offline queue now"},
    };
    std::string out;
    auto line = [&out](const std::string& key, const std::string& what, const Json& value) {
        std::string text = what.empty() ? key : what + " (" + key + ")";
        text.resize(std::max<std::size_t>(text.size() + 1, 56), ' ');
        out +=
            text + (value.is_boolean() ? (value.get<bool>() ? "yes" : "no") : flat(value)) + "\n";
    };
    for (const auto& [key, what] : known) {
        if (j.contains(key)) {
            line(key, what, j[key]);
        }
    }
    for (const auto& [key, value] : j.items()) {
        if (std::none_of(std::begin(known), std::end(known),
                         [&key = key](const auto& k) { return key == k.first; })) {
            line(key, "", value);
        }
    }
    return out;
}

std::string health_text(const std::string& payload, bool& up) {
    const Json j = object_of(payload);
    if (j.is_null() || !j.contains("state") || !j["state"].is_string()) {
        return {};
    }
    up = j["state"] == "up";
    std::string out = "ipcd is " + j["state"].get<std::string>();
    for (const auto& [key, value] : j.items()) {
        if (key != "state") {
            out += " " + key + "=" + flat(value);
        }
    }
    return out;
}

}  // namespace ipcd_tools
