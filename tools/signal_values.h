#pragma once

// Signal values of the catalogue's groups as the tools read and print them:
// "name=value" pairs encoded into a group's padded image, and an image decoded
// back into values.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "signal_adapter.h"

namespace ipcd_tools {

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
