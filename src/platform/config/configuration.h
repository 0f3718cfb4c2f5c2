#pragma once

// Key/value configuration: values (from the file and the command line),
// defaults, and required keys. It knows no key of its own: each service that
// reads it registers its defaults and required keys. Built and filled on the
// start-up thread, then only read.
//
// File syntax: lines of key=value; blank lines and lines whose first non-blank
// character is '#' are ignored; blanks around key and value are trimmed; the
// value is everything after the first '='; a later line for a key wins; a line
// without '=' is reported at WARNING with its number and skipped.

#include <istream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace ecu::kora::config {

class Configuration {
public:
    // The value, else the default, else an empty text; never throws.
    const std::string& get(const std::string& key) const;

    // False, with an ERROR line naming the key, when a required key has neither
    // value nor default or when "port" is not a number from 1 to 65535.
    bool verify() const;

    std::map<std::string, std::string>& values() { return m_values; }
    std::map<std::string, std::string>& defaults() { return m_defaults; }
    std::set<std::string>& required_keys() { return m_required; }
    const std::map<std::string, std::string>& values() const { return m_values; }

private:
    std::map<std::string, std::string> m_values;
    std::map<std::string, std::string> m_defaults;
    std::set<std::string> m_required;
};

// Reads key=value lines from the stream into the configuration's values
// (creating the configuration if the pointer is empty). Returns the number of
// lines that were skipped as malformed.
int set_config_from_input(std::unique_ptr<Configuration>& config, std::istream& input);

// The value of text when it is decimal digits only, of a value from low to
// high (leading zeros allowed: the value decides, not the length).
std::optional<long> whole_number(const std::string& text, long low, long high);

// True when the text is decimal digits only, of a value from 1 to 65535
// (leading zeros allowed).
bool is_port_number(const std::string& text);

}  // namespace ecu::kora::config
