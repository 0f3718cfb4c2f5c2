#include "build_configuration.h"

#include <fstream>

#include "logging.h"
#include "transport_settings.h"

namespace ecu::kora::ipcd {

namespace {

const auto g_log = logging::module("ipcd");

// Reads the file into the configuration; false when it cannot be opened.
bool read_config_file(const std::string& path, std::unique_ptr<config::Configuration>& config) {
    std::ifstream file(path);
    if (!file.is_open()) {
        return false;
    }
    config::set_config_from_input(config, file);
    return true;
}

void apply_log_mode(const std::string& mode) {
    if (mode == "stdout") {
        logging::set_log_mode(logging::LogMode::standard_output);
    } else if (mode == "stderr") {
        logging::set_log_mode(logging::LogMode::standard_error);
    } else if (mode == "syslog") {
        logging::set_log_mode(logging::LogMode::syslog);
    } else {
        logging::NOTICE << g_log << "logmode from config '" << mode << "' not recognized";
    }
}

}  // namespace

std::unique_ptr<config::Configuration> build_configuration(const CommandLineOptions& options,
                                                           const std::string& default_file) {
    auto config = std::make_unique<config::Configuration>();
    if (!options.config_file.empty()) {
        if (!read_config_file(options.config_file, config)) {
            logging::ERROR << g_log << "Unable to open config file.";
            return nullptr;
        }
    } else {
        // A missing default file is not an error: defaults and options suffice.
        read_config_file(default_file, config);
    }

    // Defaults go into their own table, so a value from the file always wins.
    com::add_transport_settings(*config);
    config->required_keys().insert("queue_rx");
    config->required_keys().insert("queue_tx");
    config->defaults()["queue_rx"] = "/dev/qport/telematics_kpx_receive";
    config->defaults()["queue_tx"] = "/dev/qport/telematics_kpx_send";
    config->defaults()["client_name"] = "ipcd";

    const std::string log_mode = config->get("logmode");
    if (!log_mode.empty() && !options.log_stdout) {
        apply_log_mode(log_mode);
    }
    if (!options.loglevel.empty()) {
        logging::configure_logging(options.loglevel);
    } else if (!config->get("loglevel").empty()) {
        logging::configure_logging(config->get("loglevel"));
    }
    logging::enable("daemon", true);

    if (!options.host.empty()) {
        logging::DEBUG << g_log << "Setting hostname to " << options.host;
        config->values()["host"] = options.host;
    }
    if (!options.port.empty()) {
        logging::DEBUG << g_log << "Setting port to " << options.port;
        config->values()["port"] = options.port;
    }
    if (!options.queue_rx.empty()) {
        config->values()["queue_rx"] = options.queue_rx;
    }
    if (!options.queue_tx.empty()) {
        config->values()["queue_tx"] = options.queue_tx;
    }
    if (!config->verify()) {
        return nullptr;
    }
    return config;
}

}  // namespace ecu::kora::ipcd
