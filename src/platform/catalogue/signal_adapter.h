#pragma once

// The signal catalogue: which RT signal groups exist, their topics, RT ids,
// retained flags, byte sizes and signals. Loaded once from a JSON file (the
// path in KIRN_RT_CATALOGUE, else /etc/kirn/rt_catalogue.json) at first use;
// afterwards only read, from any thread.
//
// {"groups": [{"topic": "rt/vehicle/speed", "id": 20, "retained": true, "size": 8,
//              "signals": [{"name": "speed_kmh", "offset": 0, "size": 2}, ...]}, ...]}

#include <cstdint>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "message.h"

namespace ecu::kora::rt {

inline constexpr const char* default_catalogue_path = "/etc/kirn/rt_catalogue.json";

// One signal of a group: where it sits in the group's image and, in a group
// that carries it, its value bytes.
class Signal {
public:
    Signal() = default;
    Signal(std::string name, std::size_t offset, std::size_t size)
        : m_name(std::move(name)), m_offset(offset), m_size(size) {}

    const std::string& name() const { return m_name; }
    std::size_t offset() const { return m_offset; }
    std::size_t size() const { return m_size; }
    const std::vector<std::uint8_t>& data() const { return m_data; }
    void set_data(const std::vector<std::uint8_t>& data) { m_data = data; }

private:
    std::string m_name;
    std::size_t m_offset = 0;
    std::size_t m_size = 0;
    std::vector<std::uint8_t> m_data;
};

// A signal group as defined by the catalogue, or as unpacked from a message:
// an unpacked group carries only the signals that the message named.
class SignalGroup {
public:
    SignalGroup() = default;

    const std::string& topic() const { return m_topic; }
    std::uint32_t id() const { return m_id; }
    bool retained() const { return m_retained; }
    std::size_t size() const { return m_size; }
    std::uint64_t timestamp() const { return m_timestamp; }
    void set_timestamp(std::uint64_t timestamp) { m_timestamp = timestamp; }

    // Every signal the catalogue defines for the group, in file order.
    const std::vector<Signal>& definitions() const { return m_definitions; }
    // Names of the signals this group carries, in the order they were set.
    const std::vector<std::string>& signal_names() const { return m_carried; }

    // The carried signal of that name; an empty Signal when not carried.
    const Signal& signal(const std::string& name) const;
    // Sets a defined signal's data and marks it carried. False when the group
    // defines no such signal or the data is longer than the signal.
    bool set_signal_data(const std::string& name, const std::vector<std::uint8_t>& data);

private:
    friend class SignalAdapter;

    std::string m_topic;
    std::uint32_t m_id = 0;
    bool m_retained = false;
    std::size_t m_size = 0;
    std::uint64_t m_timestamp = 0;
    std::vector<Signal> m_definitions;
    std::vector<std::string> m_carried;
};

class SignalAdapter {
public:
    // The process-wide catalogue, loaded at first use.
    static SignalAdapter& instance();

    // Replaces the catalogue with the file's content. On failure the catalogue
    // is empty, one ERROR line names the file (and for bad JSON or schema the
    // place and the reason), and the result is false.
    bool load(const std::string& path);

    // Every topic in file order that begins with filter ("" gives all).
    std::vector<std::string> get_topics(const std::string& filter) const;
    // The id of the first group with exactly that topic; 0 when none.
    unsigned map_topic_to_rtid(const std::string& topic) const;
    bool is_topic_retained(const std::string& topic) const;
    // The catalogue's definition of the topic's group (no signal carried);
    // nullptr when unknown.
    const SignalGroup* find_group(const std::string& topic) const;

    // Decodes a framed SignalGroupData message of the topic: success flag, the
    // group carrying the message's signals, and an error text on failure.
    std::tuple<bool, SignalGroup, std::string> unpack(const std::string& topic,
                                                      const com::Message& msg) const;
    // The group's image: size() zero bytes with each carried signal's data at
    // its offset.
    std::string add_padding(const SignalGroup& group) const;

private:
    std::vector<SignalGroup> m_groups;
    // Topic -> index of its first group in m_groups: the bridge looks topics up
    // per message.
    std::unordered_map<std::string, std::size_t> m_index;
};

}  // namespace ecu::kora::rt
