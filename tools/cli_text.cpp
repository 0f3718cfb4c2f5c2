#include "cli_text.h"

#include <cstdio>

#include "logging.h"

namespace ipcd_tools {

namespace logging = ecu::kora::logging;

namespace {
std::string g_program = "ipcd-tool";
}

void set_program(const std::string& name) {
    g_program = name;
}
const std::string& program() {
    return g_program;
}

void error_line(const std::string& text) {
    // One write, so that lines from two threads never mix.
    std::string line = g_program + ": " + text + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

void route_logging(bool verbose) {
    logging::set_sink([verbose](int severity, const std::string& module, const std::string& text) {
        // What the user must know: why the catalogue, the settings or the
        // broker connection failed.
        if (severity <= logging::error &&
            (module == "kora.rt.catalogue" || module == "kora.com.transport" ||
             module == "kora.config")) {
            error_line(text);
        } else if (verbose) {
            error_line(std::string(logging::level_name(severity)) + " " + module + ": " + text);
        }
    });
}

std::optional<std::uint64_t> parse_number(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    std::uint64_t value = 0;
    for (char c : digits) {
        unsigned digit = 0;
        if (c >= '0' && c <= '9') {
            digit = static_cast<unsigned>(c - '0');
        } else if (hex && c >= 'a' && c <= 'f') {
            digit = static_cast<unsigned>(c - 'a' + 10);
        } else if (hex && c >= 'A' && c <= 'F') {
            digit = static_cast<unsigned>(c - 'A' + 10);
        } else {
            return std::nullopt;
        }
        const unsigned base = hex ? 16 : 10;
        if (value > (UINT64_MAX - digit) / base) {
            return std::nullopt;
        }
        value = value * base + digit;
    }
    return value;
}

std::optional<std::vector<std::uint8_t>> parse_hex(const std::string& text) {
    if (text.empty() || text.size() % 2 != 0) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        auto byte = parse_number("0x" + text.substr(i, 2));
        if (!byte) {
            return std::nullopt;
        }
        out.push_back(static_cast<std::uint8_t>(*byte));
    }
    return out;
}

std::string to_hex(const std::uint8_t* data, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        out.push_back(digits[data[i] >> 4U]);
        out.push_back(digits[data[i] & 0x0FU]);
    }
    return out;
}

}  // namespace ipcd_tools
