// The simplest relay, the system benchmark's second baseline: what anyone
// would write to bring RT records to the broker with libmosquitto used the
// usual way. The main thread reads queue-port records from a FIFO (blocking
// reads, as many records as one read brings) and frames each exactly as ipcd
// does; libmosquitto's own network thread (mosquitto_loop_start) writes them,
// QoS 0, TCP_NODELAY. Like the plain publisher it waits while
// g_max_outstanding messages are unwritten, so it queues as ipcd does.
//
//   bench_simple_relay FIFO PORT TOPIC
//
// Prints "ready" once the broker accepted it, then opens FIFO for reading;
// when the FIFO's writer closes it, it writes what is left, disconnects and
// exits 0. Started by system_bench; not a benchmark of its own.

#include <fcntl.h>
#include <mosquitto.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "message.h"
#include "rt_signal_frame.h"

namespace {

// As bench.h's: the transport's default bound on unwritten messages.
constexpr std::size_t g_max_outstanding = 4096;
// The record header: magic "QPR1", id, timestamp, payload length, tag, reserved.
constexpr std::size_t g_header = 24;
constexpr std::size_t g_max_payload = 65536;

std::uint64_t get_le(const std::uint8_t* at, std::size_t bytes) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < bytes; ++i) {
        v |= static_cast<std::uint64_t>(at[i]) << (8 * i);
    }
    return v;
}

struct State {
    std::mutex mutex;
    std::condition_variable cv;
    std::size_t outstanding = 0;
    int connack = -1;
};

int fail(const char* what) {
    std::fprintf(stderr, "bench_simple_relay: %s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_simple_relay FIFO PORT TOPIC\n");
        return 2;
    }
    const std::string topic = argv[3];
    mosquitto_lib_init();
    State state;
    mosquitto* mosq = mosquitto_new(nullptr, true, &state);
    if (mosq == nullptr) {
        return fail("mosquitto_new failed");
    }
    mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(mosq, [](mosquitto*, void* p, int rc) {
        auto* s = static_cast<State*>(p);
        std::lock_guard<std::mutex> lock(s->mutex);
        s->connack = rc;
        s->cv.notify_all();
    });
    mosquitto_publish_callback_set(mosq, [](mosquitto*, void* p, int) {
        auto* s = static_cast<State*>(p);
        std::lock_guard<std::mutex> lock(s->mutex);
        s->outstanding -= s->outstanding > 0 ? 1 : 0;
        s->cv.notify_all();
    });
    {
        std::unique_lock<std::mutex> lock(state.mutex);
        if (mosquitto_connect(mosq, "127.0.0.1", std::atoi(argv[2]), 60) != MOSQ_ERR_SUCCESS ||
            mosquitto_loop_start(mosq) != MOSQ_ERR_SUCCESS ||
            !state.cv.wait_for(lock, std::chrono::seconds(5), [&] { return state.connack >= 0; }) ||
            state.connack != 0) {
            return fail("cannot connect");
        }
    }
    std::printf("ready\n");
    std::fflush(stdout);
    const int fd = open(argv[1], O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return fail("cannot open the FIFO");
    }

    // Records are decoded in place; what is left of one read moves to the front.
    std::vector<std::uint8_t> buffer(4 * (g_header + g_max_payload));
    std::size_t held = 0;
    ecu::kora::com::Message frame;
    for (;;) {
        const ssize_t n = read(fd, buffer.data() + held, buffer.size() - held);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        held += static_cast<std::size_t>(n);
        std::size_t at = 0;
        while (held - at >= g_header) {
            const std::uint8_t* h = buffer.data() + at;
            const auto length = static_cast<std::size_t>(get_le(h + 16, 4));
            if (std::memcmp(h, "QPR1", 4) != 0 || length > g_max_payload) {
                return fail("damaged record stream");
            }
            if (held - at < g_header + length) {
                break;
            }
            ecu::kora::com::frame_rt_signal({get_le(h + 8, 8), h + g_header, length, h[20]}, "ipcd",
                                            frame);
            {
                std::unique_lock<std::mutex> lock(state.mutex);
                state.cv.wait(lock, [&] { return state.outstanding < g_max_outstanding; });
                ++state.outstanding;
            }
            if (mosquitto_publish(mosq, nullptr, topic.c_str(),
                                  static_cast<int>(frame.payload.size()), frame.payload.data(), 0,
                                  false) != MOSQ_ERR_SUCCESS) {
                return fail("publish failed");
            }
            at += g_header + length;
        }
        std::memmove(buffer.data(), buffer.data() + at, held - at);
        held -= at;
    }
    close(fd);
    {
        std::unique_lock<std::mutex> lock(state.mutex);
        state.cv.wait_for(lock, std::chrono::seconds(30), [&] { return state.outstanding == 0; });
    }
    mosquitto_disconnect(mosq);
    mosquitto_loop_stop(mosq, false);
    mosquitto_destroy(mosq);
    mosquitto_lib_cleanup();
    return 0;
}
