#pragma once

// The command line: options only, no operands. parse_opts() fills the
// process-wide CommandLineOptions, which main() lays over the configuration.

#include <set>
#include <sstream>
#include <string>

namespace ecu::kora::ipcd {

struct CommandLineOptions {
    std::string config_file;      // -c
    std::string host;             // -H
    std::string port;             // -p
    std::string queue_rx;         // -r
    std::string queue_tx;         // -t
    std::string loglevel;         // -l, -v
    std::string log_rt_signal;    // -s
    bool log_queue_size = false;  // -Q
    bool log_stdout = false;      // -L
};

// Written only by parse_opts, read only by main. An empty text counts as an
// option that was not given.
extern CommandLineOptions g_command_line;

// 1 when every option was understood and no operand is left; 0 for an
// unknown option or a missing argument. Does not return for -h, -V or an
// operand (exit 0, 0 and 1).
int parse_opts(int argc, char** argv);
void usage();
void version();

// Cuts text at each separator and reads each piece as a number with stream
// extraction (leading blanks skipped, anything after the digits ignored);
// pieces that do not read are dropped. Duplicates collapse.
template <typename T>
std::set<T> split_as(const std::string& text, char separator) {
    std::set<T> result;
    std::istringstream stream(text);
    std::string token;
    while (std::getline(stream, token, separator)) {
        std::istringstream token_stream(token);
        T value{};
        if (token_stream >> value) {
            result.insert(value);
        }
    }
    return result;
}

}  // namespace ecu::kora::ipcd
