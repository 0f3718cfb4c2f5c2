#include "build_configuration.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

#include "logging.h"
#include "queue_port.h"
#include "transport_settings.h"

namespace ecu::kora::ipcd {

namespace {

const auto g_log = logging::module("ipcd");

// A few dozen keys need a few kilobytes. The bound keeps a path that names
// something else (/dev/zero, a log file) from being read without end.
constexpr std::size_t max_config_size = std::size_t{1} << 20;

enum class FileRead { read, missing, unusable };

// Reads the file into the configuration. missing: it does not exist or may
// not be opened; unusable: it exists but is no configuration file (why is in
// reason).
FileRead read_config_file(const std::string& path, std::unique_ptr<config::Configuration>& config,
                          std::string& reason) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        reason = std::strerror(errno);
        return FileRead::missing;
    }
    if (!S_ISREG(st.st_mode)) {
        reason = "not a regular file";
        return FileRead::unusable;
    }
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                         &std::fclose);
    if (!file) {
        reason = std::strerror(errno);
        return FileRead::missing;
    }
    // Read one byte beyond the bound: a file that grows while it is read (or
    // whose size stat does not tell) is caught as well.
    std::string text(max_config_size + 1, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    if (std::ferror(file.get()) != 0) {
        reason = std::strerror(errno);
        return FileRead::unusable;
    }
    if (text.size() > max_config_size) {
        reason = "larger than " + std::to_string(max_config_size) + " bytes";
        return FileRead::unusable;
    }
    std::istringstream input(text);
    config::set_config_from_input(config, input);
    return FileRead::read;
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
    std::string reason;
    const std::string& file = options.config_file.empty() ? default_file : options.config_file;
    if (!options.config_file.empty()) {
        if (read_config_file(options.config_file, config, reason) != FileRead::read) {
            logging::ERROR << g_log << "Config file '" << options.config_file << "': " << reason;
            logging::ERROR << g_log << "Unable to open config file.";
            return nullptr;
        }
    } else if (read_config_file(default_file, config, reason) == FileRead::unusable) {
        // A missing or unreadable default file is not an error: defaults and
        // options suffice. One that is there but no configuration is.
        logging::ERROR << g_log << "Config file '" << default_file << "': " << reason;
        return nullptr;
    }

    // Defaults go into their own table, so a value from the file always wins.
    com::add_transport_settings(*config);
    config->required_keys().insert("queue_rx");
    config->required_keys().insert("queue_tx");
    config->defaults()["queue_rx"] = ipc::default_rx_port;
    config->defaults()["queue_tx"] = ipc::default_tx_port;
    config->defaults()["client_name"] = "ipcd";
    config->defaults()["stats_interval"] = std::to_string(default_stats_interval_s);
    config->optional_keys().insert({"logmode", "loglevel", "log_queue_size", "log_rt_signal"});

    const std::string log_mode = config->get("logmode");
    if (!log_mode.empty() && !options.log_stdout) {
        apply_log_mode(log_mode);
    }
    if (!options.loglevel.empty()) {
        logging::configure_logging(options.loglevel);
    } else if (!config->get("loglevel").empty()) {
        logging::configure_logging(config->get("loglevel"));
    }
    // Once the log goes where the file says: a typo's warning is seen there.
    config->report_unknown_keys(file);
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
    if (!config::whole_number(config->get("stats_interval"), 0, max_stats_interval_s)) {
        logging::ERROR << g_log << "Configuration key 'stats_interval' is '"
                       << config->get("stats_interval") << "', not a number of seconds from 0 to "
                       << max_stats_interval_s;
        return nullptr;
    }
    return config;
}

}  // namespace ecu::kora::ipcd
