#pragma once

// Key/value configuration: values (from the file and the command line),
// defaults, required keys and the other keys someone reads. Each service that
// reads it registers its keys; the configuration itself checks only that
// required keys have a value and that "port", when set, is a port number.
// Built and filled on the start-up thread, then only read.
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

    // False, with an ERROR line naming the key, when a required key reads as
    // empty (no value and no default, or an empty value, which hides the
    // default) or when "port" is set and not a number from 1 to 65535.
    bool verify() const;

    std::map<std::string, std::string>& values() { return m_values; }
    std::map<std::string, std::string>& defaults() { return m_defaults; }
    std::set<std::string>& required_keys() { return m_required; }
    // Keys read without a default and without being required.
    std::set<std::string>& optional_keys() { return m_optional; }
    const std::map<std::string, std::string>& values() const { return m_values; }

    // One WARNING per key read from the file (named file) that no service
    // registered, with its line and, when one is close, the known key meant.
    // Call once every service has registered its keys.
    void report_unknown_keys(const std::string& file) const;

private:
    friend int set_config_from_input(std::unique_ptr<Configuration>& config, std::istream& input);

    std::map<std::string, std::string> m_values;
    std::map<std::string, std::string> m_defaults;
    std::set<std::string> m_required;
    std::set<std::string> m_optional;
    std::map<std::string, int> m_lines;  // the line each key of the file was last set on
};

// Reads key=value lines from the stream into the configuration's values
// (creating the configuration if the pointer is empty), keeping the line of
// each key. Returns the number of lines that were skipped as malformed.
int set_config_from_input(std::unique_ptr<Configuration>& config, std::istream& input);

// The value of text when it is decimal digits only, of a value from low to
// high (leading zeros allowed: the value decides, not the length).
std::optional<long> whole_number(const std::string& text, long low, long high);

// The known key nearest to key within two edits (insert, delete, replace or
// swap of neighbours), else empty: the "did you mean" of a typo.
std::string nearest_key(const std::string& key, const std::set<std::string>& known);

// True when the text is decimal digits only, of a value from 1 to 65535
// (leading zeros allowed).
bool is_port_number(const std::string& text);

}  // namespace ecu::kora::config
