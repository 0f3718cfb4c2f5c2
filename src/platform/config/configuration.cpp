#include "configuration.h"

#include <algorithm>
#include <vector>

#include "logging.h"

namespace ecu::kora::config {

namespace {

const std::shared_ptr<logging::LogModule>& log() {
    static const auto module = logging::module("kora.config");
    return module;
}

std::string trim(const std::string& text) {
    const char* blanks = " \t\r\f\v";
    auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return {};
    }
    auto last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

}  // namespace

const std::string& Configuration::get(const std::string& key) const {
    static const std::string empty;
    if (auto it = m_values.find(key); it != m_values.end()) {
        return it->second;
    }
    if (auto it = m_defaults.find(key); it != m_defaults.end()) {
        return it->second;
    }
    return empty;
}

bool Configuration::verify() const {
    bool ok = true;
    for (const auto& key : m_required) {
        if (get(key).empty()) {
            logging::ERROR << log() << "Required configuration key '" << key
                           << "' has no value and no default";
            ok = false;
        }
    }
    const std::string& port = get("port");
    if (!port.empty() && !is_port_number(port)) {
        logging::ERROR << log()
                       << "Configuration key 'port' is not a port number from 1 to 65535: '" << port
                       << "'";
        ok = false;
    }
    return ok;
}

void Configuration::report_unknown_keys(const std::string& file) const {
    std::set<std::string> known = m_required;
    known.insert(m_optional.begin(), m_optional.end());
    for (const auto& entry : m_defaults) {
        known.insert(entry.first);
    }
    for (const auto& [key, line] : m_lines) {
        if (known.count(key) != 0) {
            continue;
        }
        auto warning = logging::WARNING << log();
        warning << "Configuration file '" << file << "' line " << line << ": unknown key '" << key
                << "' is ignored";
        if (const std::string meant = nearest_key(key, known); !meant.empty()) {
            warning << " (did you mean " << meant << "?)";
        }
    }
}

int set_config_from_input(std::unique_ptr<Configuration>& config, std::istream& input) {
    if (!config) {
        config = std::make_unique<Configuration>();
    }
    int skipped = 0;
    std::string line;
    for (int number = 1; std::getline(input, line); ++number) {
        std::string content = trim(line);
        if (content.empty() || content.front() == '#') {
            continue;
        }
        auto eq = content.find('=');
        if (eq == std::string::npos) {
            // The line is not echoed: it may be a secret written without '='.
            logging::WARNING << log() << "Configuration line " << number
                             << " has no '=' and is skipped";
            ++skipped;
            continue;
        }
        std::string key = trim(content.substr(0, eq));
        if (key.empty()) {
            logging::WARNING << log() << "Configuration line " << number
                             << " has no key before '=' and is skipped";
            ++skipped;
            continue;
        }
        config->values()[key] = trim(content.substr(eq + 1));
        config->m_lines[key] = number;
    }
    return skipped;
}

std::optional<long> whole_number(const std::string& text, long low, long high) {
    if (text.empty()) {
        return std::nullopt;
    }
    long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
        if (value > high) {
            return std::nullopt;
        }
    }
    return value >= low ? std::optional<long>(value) : std::nullopt;
}

std::string nearest_key(const std::string& key, const std::set<std::string>& known) {
    constexpr std::size_t most = 2;
    std::string best;
    std::size_t best_distance = most + 1;
    for (const auto& candidate : known) {
        const std::size_t n = key.size();
        const std::size_t m = candidate.size();
        if ((n > m ? n - m : m - n) > most) {
            continue;
        }
        // Optimal string alignment distance: a swap of neighbours is one edit.
        std::vector<std::vector<std::size_t>> d(n + 1, std::vector<std::size_t>(m + 1));
        for (std::size_t i = 0; i <= n; ++i) {
            d[i][0] = i;
        }
        for (std::size_t j = 0; j <= m; ++j) {
            d[0][j] = j;
        }
        for (std::size_t i = 1; i <= n; ++i) {
            for (std::size_t j = 1; j <= m; ++j) {
                const std::size_t cost = key[i - 1] == candidate[j - 1] ? 0 : 1;
                d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
                if (i > 1 && j > 1 && key[i - 1] == candidate[j - 2] &&
                    key[i - 2] == candidate[j - 1]) {
                    d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
                }
            }
        }
        if (d[n][m] < best_distance) {
            best_distance = d[n][m];
            best = candidate;
        }
    }
    return best;
}

bool is_port_number(const std::string& text) {
    return whole_number(text, 1, 65535).has_value();
}

}  // namespace ecu::kora::config
