#pragma once

// What ipcd-sim and ipcd-ctl share: number and hex parsing, the catalogue
// (loaded with its errors turned into one-line messages), signal values
// encoded into and decoded from a group's image, and the boot clock.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "signal_adapter.h"

namespace ipcd_tools {

// The program name in front of every error line, e.g. "ipcd-sim".
void set_program(const std::string& name);
const std::string& program();

// Prints "PROGRAM: text" on stderr as one line.
void error_line(const std::string& text);

// Routes the platform's log lines: catalogue errors become error lines, the
// rest (transport and framing chatter) is dropped unless verbose.
void route_logging(bool verbose);

// A decimal or 0x-hexadecimal unsigned 64-bit number, nothing else.
std::optional<std::uint64_t> parse_number(const std::string& text);

// Hex digits (an even count, at least one byte) into bytes.
std::optional<std::vector<std::uint8_t>> parse_hex(const std::string& text);
std::string to_hex(const std::uint8_t* data, std::size_t size);
inline std::string to_hex(const std::vector<std::uint8_t>& data) {
    return to_hex(data.data(), data.size());
}
inline std::string to_hex(const std::string& data) {
    return to_hex(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
}

// CLOCK_BOOTTIME in nanoseconds: the RT side's time base.
std::uint64_t boot_time_ns();

// The catalogue file: the given path, else KIRN_RT_CATALOGUE, else the
// platform default.
std::string catalogue_path(const std::string& given);

class Catalogue {
public:
    // False after an error line naming the file and the reason.
    bool load(const std::string& path);

    const ecu::kora::rt::SignalGroup* by_topic(const std::string& topic) const;
    const ecu::kora::rt::SignalGroup* by_id(std::uint32_t id) const;
    std::vector<std::string> topics(const std::string& prefix) const;

    // "name=value" pairs into (signal name, little-endian bytes of the
    // signal's size). False with the reason in error for an unknown signal, a
    // malformed pair or a value too large for its signal.
    bool encode_pairs(const ecu::kora::rt::SignalGroup& group,
                      const std::vector<std::string>& pairs,
                      std::vector<std::pair<std::string, std::vector<std::uint8_t>>>& values,
                      std::string& error) const;

    // The group's image with the values at their offsets, zero elsewhere.
    static std::vector<std::uint8_t> image(
        const ecu::kora::rt::SignalGroup& group,
        const std::vector<std::pair<std::string, std::vector<std::uint8_t>>>& values);

    // Each signal of the group read from the image as a little-endian unsigned
    // number (hex when wider than 8 bytes); signals beyond the data are left out.
    static std::vector<std::pair<std::string, std::string>> decode(
        const ecu::kora::rt::SignalGroup& group, const std::uint8_t* data, std::size_t size);

private:
    ecu::kora::rt::SignalAdapter m_adapter;
    std::map<std::uint32_t, std::string> m_by_id;
};

// "a=1 b=2" rendering of decoded values.
std::string join_values(const std::vector<std::pair<std::string, std::string>>& values);

}  // namespace ipcd_tools
