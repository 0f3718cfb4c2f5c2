#include "signal_values.h"

#include <cstdlib>

#include "cli_text.h"

namespace ipcd_tools {

namespace rt = ecu::kora::rt;

std::string catalogue_path(const std::string& given) {
    if (!given.empty()) {
        return given;
    }
    const char* env = std::getenv("KIRN_RT_CATALOGUE");
    return env != nullptr && *env != '\0' ? env : rt::default_catalogue_path;
}

bool Catalogue::load(const std::string& path) {
    m_by_id.clear();
    if (!m_adapter.load(path)) {
        return false;
    }
    for (const auto& topic : m_adapter.get_topics("")) {
        m_by_id.emplace(m_adapter.find_group(topic)->id(), topic);
    }
    return true;
}

const rt::SignalGroup* Catalogue::by_topic(const std::string& topic) const {
    return m_adapter.find_group(topic);
}

const rt::SignalGroup* Catalogue::by_id(std::uint32_t id) const {
    auto it = m_by_id.find(id);
    return it == m_by_id.end() ? nullptr : m_adapter.find_group(it->second);
}

std::vector<std::string> Catalogue::topics(const std::string& prefix) const {
    return m_adapter.get_topics(prefix);
}

bool Catalogue::encode_pairs(const rt::SignalGroup& group, const std::vector<std::string>& pairs,
                             std::vector<std::pair<std::string, std::vector<std::uint8_t>>>& values,
                             std::string& error) const {
    for (const auto& pair : pairs) {
        const auto eq = pair.find('=');
        if (eq == std::string::npos || eq == 0) {
            error = "'" + pair + "' is not name=value";
            return false;
        }
        const std::string name = pair.substr(0, eq);
        const rt::Signal* def = nullptr;
        for (const auto& d : group.definitions()) {
            if (d.name() == name) {
                def = &d;
            }
        }
        if (def == nullptr) {
            error = "unknown signal '" + name + "' in " + group.topic();
            return false;
        }
        auto value = parse_number(pair.substr(eq + 1));
        if (!value) {
            error = "value '" + pair.substr(eq + 1) + "' of " + name +
                    " is not a decimal or 0x-hex number";
            return false;
        }
        const std::size_t size = def->size();
        if (size < 8 && *value >> (8 * size) != 0) {
            error = "value " + pair.substr(eq + 1) + " too large for " + name + " (" +
                    std::to_string(size) + " byte" + (size == 1 ? "" : "s") + ")";
            return false;
        }
        std::vector<std::uint8_t> bytes(size, 0);
        for (std::size_t i = 0; i < size && i < 8; ++i) {
            bytes[i] = static_cast<std::uint8_t>(*value >> (8 * i));
        }
        values.emplace_back(name, std::move(bytes));
    }
    return true;
}

std::vector<std::uint8_t> Catalogue::image(
    const rt::SignalGroup& group,
    const std::vector<std::pair<std::string, std::vector<std::uint8_t>>>& values) {
    std::vector<std::uint8_t> out(group.size(), 0);
    for (const auto& [name, bytes] : values) {
        for (const auto& d : group.definitions()) {
            if (d.name() == name) {
                std::copy(bytes.begin(), bytes.end(),
                          out.begin() + static_cast<std::ptrdiff_t>(d.offset()));
            }
        }
    }
    return out;
}

std::vector<std::pair<std::string, std::string>> Catalogue::decode(const rt::SignalGroup& group,
                                                                   const std::uint8_t* data,
                                                                   std::size_t size) {
    std::vector<std::pair<std::string, std::string>> out;
    for (const auto& d : group.definitions()) {
        if (d.offset() + d.size() > size) {
            continue;
        }
        if (d.size() > 8) {
            out.emplace_back(d.name(), "0x" + to_hex(data + d.offset(), d.size()));
            continue;
        }
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < d.size(); ++i) {
            value |= static_cast<std::uint64_t>(data[d.offset() + i]) << (8 * i);
        }
        out.emplace_back(d.name(), std::to_string(value));
    }
    return out;
}

std::string join_values(const std::vector<std::pair<std::string, std::string>>& values) {
    std::string out;
    for (const auto& [name, value] : values) {
        if (!out.empty()) {
            out += ' ';
        }
        out.append(name).append("=").append(value);
    }
    return out;
}

}  // namespace ipcd_tools
