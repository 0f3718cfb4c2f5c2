// The command line of the real binary: usage, version and every way the
// options can fail, with exit status, standard output and standard error.

#include <gtest/gtest.h>

#include <regex>

#include "daemon_harness.h"
#include "support.h"

using namespace ipcd_test;

namespace {

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

Outcome run_ipcd(std::vector<std::string> args, std::vector<std::string> env = {}) {
    args.insert(args.begin(), ipcd_binary());
    env.insert(env.begin(), "LOG_LEVEL=NOTICE");
    Process p(args, env);
    auto status = p.wait(20s);
    EXPECT_TRUE(status.has_value()) << "ipcd did not end";
    return {status.value_or(-1), p.out(), p.err()};
}

const std::string g_usage =
    read_file(std::string(IPCD_SOURCE_DIR) + "/tests/integration/golden/usage.txt");

TEST(CommandLine, HelpAndVersion) {
    for (const char* help : {"-h", "--help"}) {
        Outcome r = run_ipcd({help, "--bogus"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, g_usage);
        EXPECT_EQ(r.err, "");
    }
    Outcome level = run_ipcd({"-h"}, {"LOG_LEVEL=INFO"});
    EXPECT_NE(level.out.find("        Default: INFO\n"), std::string::npos);

    Outcome v = run_ipcd({"-p", "1", "--version", "-x"});
    EXPECT_EQ(v.status, 0);
    EXPECT_TRUE(std::regex_match(
        v.out, std::regex("IPCd version: \\S+ - \\d+\\.\\d+\\.\\d+ - ([0-9a-f]{7}|unknown) - "
                          "(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d [+-]\\d{4}|unknown) - "
                          "[A-Z]+\n")))
        << v.out;
}

TEST(CommandLine, UnknownOptionOrMissingArgumentPrintsUsage) {
    struct Case {
        std::vector<std::string> args;
        std::string diagnostic;
    };
    for (const Case& c :
         {Case{{"-x"}, "invalid option"}, Case{{"--nope"}, "unrecognized option"},
          Case{{"-c"}, "requires an argument"}, Case{{"--port"}, "requires an argument"},
          Case{{"-x", "-h"}, "invalid option"}}) {
        Outcome r = run_ipcd(c.args);
        EXPECT_EQ(r.status, 1) << c.args[0];
        EXPECT_EQ(r.out, g_usage) << c.args[0];
        EXPECT_NE(r.err.find(c.diagnostic), std::string::npos) << r.err;
    }
}

TEST(CommandLine, OperandsEndWithoutUsage) {
    for (auto args :
         {std::vector<std::string>{"-L", "extra"}, std::vector<std::string>{"-L", "extra", "-v"}}) {
        Outcome r = run_ipcd(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.out.find("ERROR ipcd: No additional arguments required!"), std::string::npos);
        EXPECT_EQ(r.out.find("Usage:"), std::string::npos);
    }
}

TEST(CommandLine, StartUpFailuresBeforeTheBridge) {
    TempDir dir;
    Outcome missing = run_ipcd({"-L", "-c", dir.file("absent.conf")});
    EXPECT_EQ(missing.status, 1);
    // --log-stdout reaches the start-up version line too.
    EXPECT_NE(missing.out.find("NOTICE ipcd: ipcd version "), std::string::npos);
    EXPECT_NE(missing.out.find("ERROR ipcd: Unable to open config file."), std::string::npos);

    // The file is read before its own logmode applies, so -L shows its warnings.
    std::string conf = dir.write("ipcd.conf", "logmode=stderr\nthis line is broken\nport=0\n");
    Outcome bad = run_ipcd({"-L", "-c", conf, "-l", "LOUD"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.out.find("WARNING kora.config: Configuration line 2 has no '='"),
              std::string::npos)
        << bad.out;
    EXPECT_NE(bad.out.find("WARNING logging: Unknown log level 'LOUD'"), std::string::npos);
    EXPECT_NE(bad.out.find("ERROR kora.config: Configuration key 'port' is not a port number"),
              std::string::npos);

    Outcome port = run_ipcd({"-L", "-p", "70000"});
    EXPECT_EQ(port.status, 1);
    EXPECT_NE(port.out.find("'70000'"), std::string::npos);
}

}  // namespace
