#pragma once

// Start-up's configuration: the file, the bridge's keys and defaults, and the
// command line laid over both, with the log mode and level set on the way.

#include <memory>
#include <string>

#include "command_line.h"
#include "configuration.h"

namespace ecu::kora::ipcd {

inline const std::string default_config_file = "/etc/kirn/ipcd.conf";
// "stats_interval": seconds between two statistics messages; 0 switches them off.
inline constexpr long default_stats_interval_s = 10;
inline constexpr long max_stats_interval_s = 86400;

// Builds the configuration from the file (options.config_file, else
// default_file), the bridge's defaults and the command-line overrides, and sets
// the log mode and level on the way; keys of the file that nobody reads are
// warned about. Empty when start-up must end with status 1: the named file
// cannot be opened or the configuration does not verify.
std::unique_ptr<config::Configuration> build_configuration(
    const CommandLineOptions& options, const std::string& default_file = default_config_file);

}  // namespace ecu::kora::ipcd
