// What the internal frame costs on top of protobuf itself: serialize and
// deserialize of an RtSignal through the adapter, next to encoding and parsing
// the body alone. Prints a table of the framed/raw ratios after the runs.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "message_adapter.h"

namespace {

using ecu::kora::com::Message;
using ecu::kora::com::PbInternalMessageAdapter;
using ecu::kora::pb::RtSignal;

const std::vector<std::int64_t> payload_sizes{0, 64, 1024, 65536};

// An RT record as the relay builds it: every field set.
RtSignal make_signal(std::int64_t size) {
    RtSignal s;
    s.set_timestamp(0x0001020304050607ULL);
    std::string data(static_cast<std::size_t>(size), '\0');
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 31U);
    }
    s.set_data(data);
    s.set_tag(5);
    s.set_source("ipcd-bench");
    return s;
}

void serialize_framed(benchmark::State& state) {
    const RtSignal body = make_signal(state.range(0));
    PbInternalMessageAdapter<RtSignal> adapter;
    for (auto _ : state) {
        auto out = adapter.serialize(body);
        benchmark::DoNotOptimize(out.message.payload.data());
    }
}

// Encoding into a buffer that already exists: the floor the frame builds on.
void serialize_raw(benchmark::State& state) {
    const RtSignal body = make_signal(state.range(0));
    std::vector<std::uint8_t> buffer(body.ByteSizeLong());
    const int size = static_cast<int>(buffer.size());
    for (auto _ : state) {
        bool ok = body.SerializeToArray(buffer.data(), size);
        benchmark::DoNotOptimize(ok);
        benchmark::ClobberMemory();
    }
}

void deserialize_framed(benchmark::State& state) {
    PbInternalMessageAdapter<RtSignal> adapter;
    const Message message = adapter.serialize(make_signal(state.range(0))).message;
    for (auto _ : state) {
        auto in = adapter.deserialize(message);
        benchmark::DoNotOptimize(in.body);
    }
}

// A fresh body per parse, as the adapter hands out a fresh body per frame.
void deserialize_raw(benchmark::State& state) {
    const std::string encoded = make_signal(state.range(0)).SerializeAsString();
    const int size = static_cast<int>(encoded.size());
    for (auto _ : state) {
        RtSignal parsed;
        bool ok = parsed.ParseFromArray(encoded.data(), size);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(parsed);
    }
}

constexpr int repetitions = 3;

void register_all() {
    const std::pair<const char*, void (*)(benchmark::State&)> benches[] = {
        {"serialize/framed", serialize_framed},
        {"serialize/raw", serialize_raw},
        {"deserialize/framed", deserialize_framed},
        {"deserialize/raw", deserialize_raw},
    };
    for (std::int64_t size : payload_sizes) {
        for (const auto& [name, fn] : benches) {
            benchmark::RegisterBenchmark(name, fn)
                ->Arg(size)
                ->Unit(benchmark::kNanosecond)
                ->Repetitions(repetitions)
                ->ReportAggregatesOnly(true);
        }
    }
}

// Shows the median of each benchmark on the console and keeps its CPU time
// per call: the machine is shared, so wall time and single runs are noisy.
class MedianReporter : public benchmark::ConsoleReporter {
public:
    MedianReporter() : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_ColorTabular : OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        std::vector<Run> shown;
        for (const auto& run : runs) {
            const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!run.error_occurred && (single || median)) {
                shown.push_back(run);
                m_ns[run.run_name.function_name + "/" + run.run_name.args] =
                    run.GetAdjustedCPUTime();
            }
        }
        if (!shown.empty()) {
            ConsoleReporter::ReportRuns(shown);
        }
    }

    // Nanoseconds per call, or a negative value when the run was filtered out.
    double ns(const std::string& name, std::int64_t size) const {
        const auto it = m_ns.find(name + "/" + std::to_string(size));
        return it == m_ns.end() ? -1.0 : it->second;
    }

private:
    std::map<std::string, double> m_ns;
};

void print_table(const MedianReporter& r) {
    auto cell = [](double v, int width, int precision) {
        if (v < 0) {
            std::printf(" | %*s", width, "-");
        } else {
            std::printf(" | %*.*f", width, precision, v);
        }
    };
    std::printf(
        "\nframing: RtSignal, median CPU ns per call, ratio = framed / raw protobuf body\n");
    std::printf("%8s | %12s | %8s | %5s | %14s | %8s | %5s\n", "size", "serialize ns", "raw ns",
                "ratio", "deserialize ns", "raw ns", "ratio");
    for (std::int64_t size : payload_sizes) {
        std::printf("%8lld", static_cast<long long>(size));
        for (const char* dir : {"serialize", "deserialize"}) {
            const double framed = r.ns(std::string(dir) + "/framed", size);
            const double raw = r.ns(std::string(dir) + "/raw", size);
            cell(framed, dir[0] == 's' ? 12 : 14, 1);
            cell(raw, 8, 1);
            cell(framed >= 0 && raw > 0 ? framed / raw : -1.0, 5, 2);
        }
        std::printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    register_all();
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    print_table(reporter);
    benchmark::Shutdown();
    return 0;
}
