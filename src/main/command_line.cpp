#include "command_line.h"

#include <getopt.h>

#include <cstdlib>
#include <iostream>

#include "build_stamp.h"
#include "logging.h"

namespace ecu::kora::ipcd {

CommandLineOptions g_command_line;

namespace {

const auto g_log = logging::module("ipcd");

constexpr const char* g_short_options = "r:t:p:H:c:l:s:vVLQh";
constexpr option g_long_options[] = {
    {"config", required_argument, nullptr, 'c'},
    {"port", required_argument, nullptr, 'p'},
    {"host", required_argument, nullptr, 'H'},
    {"queue-rx", required_argument, nullptr, 'r'},
    {"queue-tx", required_argument, nullptr, 't'},
    {"loglevel", required_argument, nullptr, 'l'},
    {"log-rt-signal", required_argument, nullptr, 's'},
    {"verbose", no_argument, nullptr, 'v'},
    {"log-stdout", no_argument, nullptr, 'L'},
    {"log-queue-size", no_argument, nullptr, 'Q'},
    {"version", no_argument, nullptr, 'V'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

}  // namespace

int parse_opts(int argc, char** argv) {
    CommandLineOptions& opts = g_command_line;
    // 0 makes getopt start afresh, so that parse_opts can run more than once.
    optind = 0;
    for (;;) {
        int c = getopt_long(argc, argv, g_short_options, g_long_options, nullptr);
        if (c == -1) {
            break;
        }
        switch (c) {
            case 'c':
                opts.config_file = optarg;
                break;
            case 'p':
                opts.port = optarg;
                break;
            case 'H':
                opts.host = optarg;
                break;
            case 'r':
                opts.queue_rx = optarg;
                break;
            case 't':
                opts.queue_tx = optarg;
                break;
            case 'l':
                opts.loglevel = optarg;
                break;
            case 's':
                opts.log_rt_signal = optarg;
                break;
            case 'v':
                opts.loglevel = "DEBUG";
                break;
            case 'L':
                opts.log_stdout = true;
                // At once, so that even the start-up version line goes there.
                logging::set_log_mode(logging::LogMode::standard_output);
                break;
            case 'Q':
                opts.log_queue_size = true;
                break;
            case 'V':
                version();
                std::exit(0);
            case 'h':
                usage();
                std::exit(0);
            default:
                return 0;
        }
    }
    if (optind >= argc) {
        return 1;
    }
    logging::ERROR << g_log << "No additional arguments required!";
    std::exit(1);
}

void usage() {
    std::cout << "Usage: ipcd [OPTION]\n\n"
              << "Options:\n\n"
              << "  -c, --config CONFIG     provide a ICPd configuration file\n"
              << "                          Default: /etc/kirn/ipcd.conf\n"
              << "  -p, --port PORT         a port which shall be used, override config\n"
              << "  -H, --host HOST         a hostname which shall be used, override config\n"
              << "  -r, --queue-rx RX-PORT  receiving queue port.\n"
              << "  -t, --queue-tx TX-PORT  transmitting queue port.\n"
              << "  -v, --verbose           set verbose logging.\n"
              << "  -s, --log-rt-signal     Comma separated list of RT-Signal ids which shall be "
                 "logged\n"
              << "                          This will printed to STDOUT, independent of the "
                 "speificed log-level\n"
              << "                          Note: this can also specific in the config: "
                 "log_rt_signal=1,3,4,42\n"
              << "  -L, --log-stdout        Set logging to STDOUT instead of syslog.\n"
              << "  -l, --loglevel          Enforces the loglevel and overrides the LOG_LEVEL.\n"
              << "        Possibles values: EMERG, ALERT, CRITICAL, ERROR, WARNING, NOTICE, INFO, "
                 "DEBUG\n"
              << "        Default: " << logging::get_default_log_level_name() << "\n"
              << "  -Q, --log-queue-size    Logs the queue-size to STDOUT\n"
              << "  -h, --help              show this help"
              << "\n"
              << "  -V, --version           show version of IPCd"
              << "\n"
              << std::endl;
}

void version() {
    std::cout << "IPCd version: " << ipcd_build_stamp() << std::endl;
}

}  // namespace ecu::kora::ipcd
