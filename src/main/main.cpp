// ipcd: bridges the RT partition's queue ports and the local MQTT broker.
// main() turns the command line and the configuration file into one running
// bridge; every failure before the bridge runs ends the process with status 1.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>

#include "build_configuration.h"
#include "build_stamp.h"
#include "command_line.h"
#include "ipcd.h"
#include "logging.h"
#include "service_manager.h"
#include "supervisor.h"
#include "transport.h"

int main(int argc, char** argv) {
    using namespace ecu::kora;
    static const auto log = logging::module("ipcd");
    const ipcd::CommandLineOptions& options = ipcd::g_command_line;
    // First, while this is the only thread: every thread started later
    // inherits the blocked stop signals, which then reach only the supervisor.
    Supervisor supervisor;

    if (ipcd::parse_opts(argc, argv) == 0) {
        ipcd::usage();
        std::exit(1);
    }
    logging::NOTICE << log << "ipcd version " << ipcd_build_stamp();

    std::unique_ptr<config::Configuration> config = ipcd::build_configuration(options);
    if (!config) {
        std::exit(1);
    }

    auto transport = com::create_client(config, com::TransportType::mqtt);
    if (!transport) {
        std::exit(1);
    }
    ipcd::IPCd bridge(transport);
    if (options.log_queue_size || config->get("log_queue_size") == "true") {
        bridge.m_log_queue_size = true;
    }
    // A non-empty option replaces the configured list; the two never merge.
    const std::string rt_signal_list =
        !options.log_rt_signal.empty() ? options.log_rt_signal : config->get("log_rt_signal");
    bridge.m_log_rt_signals = ipcd::split_as<unsigned>(rt_signal_list, ',');
    bridge.m_queue_rx = config->get("queue_rx");
    bridge.m_queue_tx = config->get("queue_tx");
    bridge.m_stats_interval = std::chrono::seconds(
        config::whole_number(config->get("stats_interval"), 0, ipcd::max_stats_interval_s)
            .value_or(ipcd::default_stats_interval_s));
    bridge.m_version = ipcd_build_stamp();
    // The reading loop proves itself alive to the watchdog: a loop stuck in a
    // record (or a publish that never returns) stops the pings.
    if (const auto period = watchdog_period(); period.count() > 0) {
        // Half the period, and a millisecond at least for a period below two.
        bridge.every_read_period(
            std::max(std::chrono::milliseconds(1),
                     std::chrono::duration_cast<std::chrono::milliseconds>(period / 2)),
            &watchdog_alive);
    }

    // The first stop signal ends the daemon as the shutdown indication does
    // (reading stops, the end of data is published, status 0), and in
    // addition publishing stops waiting for a broker that takes nothing, so
    // that what waits for it is written within a bound. A second signal ends
    // the process at once (the supervisor's own doing).
    supervisor.start([&bridge](int signal) {
        logging::NOTICE << log << "Received " << (signal == SIGTERM ? "SIGTERM" : "SIGINT")
                        << ", stopping";
        bridge.request_stop();
    });

    // Returns only when the broker connection failed; every other end of the
    // bridge ends the process itself.
    bridge.run();
    return 0;
}
