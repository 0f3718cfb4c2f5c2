#pragma once

// The command-line side that ipcd-sim and ipcd-ctl share: the program name in
// front of error lines, routing the platform's log lines, and the number and
// hex texts their arguments use.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ipcd_tools {

// The program name in front of every error line, e.g. "ipcd-sim".
void set_program(const std::string& name);
const std::string& program();

// Prints "PROGRAM: text" on stderr as one line.
void error_line(const std::string& text);

// Routes the platform's log lines: errors of the catalogue, the settings and
// the broker connection become error lines, the rest (transport and framing
// chatter) is dropped unless verbose.
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

}  // namespace ipcd_tools
