#include "queue_port.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "logging.h"

namespace ecu::kora::ipc {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const std::shared_ptr<logging::LogModule>& port_log() {
    static const auto module = logging::module("kora.ipc.queueport");
    return module;
}

constexpr std::size_t read_chunk = std::size_t{64} * 1024;
constexpr auto open_wait = 2s;
constexpr auto open_retry = 10ms;

// What happened to one system call: its result and, when it failed, errno.
struct SysResult {
    long value = 0;
    int error = 0;
    const char* name = "";

    bool failed() const { return value < 0; }
    std::string message() const { return std::string(name) + ": " + std::strerror(error); }
};

// Every system call of the queue ports goes through here, so EINTR handling
// and errno capture live in one place.
template <typename Fn>
SysResult sys_call(const char* name, Fn&& fn) {
    for (;;) {
        errno = 0;
        const long value = static_cast<long>(fn());
        if (value >= 0) {
            return {value, 0, name};
        }
        const int error = errno;
        if (error == EINTR) {
            continue;
        }
        return {value, error, name};
    }
}

void report_damage(const std::string& path, std::size_t skipped,
                   IDataConsumer<IpcSignal>& consumer) {
    logging::ERROR << port_log() << "queue port " << path << ": stream out of step, skipped "
                   << skipped << " bytes of damaged records";
    consumer.resynchronised(skipped);
}

}  // namespace

StopRequest::StopRequest()
    : m_event(static_cast<int>(
          sys_call("eventfd", [] { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }).value)) {}

StopRequest& StopRequest::operator=(bool value) {
    if (value && !m_flag.exchange(true)) {
        const std::uint64_t one = 1;
        sys_call("write", [&] { return ::write(m_event.get(), &one, sizeof one); });
    }
    return *this;
}

template <std::size_t Depth, typename Record>
QueuePortReader<Depth, Record>::QueuePortReader(IDataConsumer<Signal>& consumer)
    : m_consumer(consumer) {}

template <std::size_t Depth, typename Record>
void QueuePortReader<Depth, Record>::every(std::chrono::milliseconds period,
                                           std::function<void()> fn) {
    // A period of nothing would be a busy loop: a mistake of the caller's.
    if (period.count() <= 0) {
        throw std::invalid_argument("a reading timer needs a period above 0");
    }
    m_timers.push_back({period, std::move(fn), {}});
}

template <std::size_t Depth, typename Record>
int QueuePortReader<Depth, Record>::run_timers(Clock::time_point partial_deadline) {
    auto now = Clock::now();
    Clock::time_point next = partial_deadline;
    for (Timer& t : m_timers) {
        if (t.due <= now) {
            t.fn();
            now = Clock::now();
            // Late timers do not catch up in a burst: the next is a period on.
            t.due = std::max(t.due + t.period, now);
        }
        next = std::min(next, t.due);
    }
    if (next == Clock::time_point::max()) {
        return -1;
    }
    // Rounded up: waking a little early would only go round for nothing.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 24LL * 3600 * 1000));
}

template <std::size_t Depth, typename Record>
bool QueuePortReader<Depth, Record>::open(const std::string& path) {
    m_device.reset();
    m_path = path;
    // Non-blocking so that a FIFO opens before any writer exists.
    const auto r =
        sys_call("open", [&] { return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); });
    if (r.failed()) {
        logging::ERROR << port_log() << "cannot open RX queue port " << path << ": "
                       << std::strerror(r.error);
        return false;
    }
    m_device.reset(static_cast<int>(r.value));
    return true;
}

template <std::size_t Depth, typename Record>
void QueuePortReader<Depth, Record>::read_loop() {
    if (!m_device.valid()) {
        logging::ERROR << port_log() << "RX queue port " << m_path << " is not open";
        m_consumer.finished();
        return;
    }
    // A FIFO reads 0 both before its first writer and after its last one has
    // gone; only the latter ends it. Anything else ends at its first 0.
    struct stat st {};
    const bool fifo = !sys_call("fstat", [&] { return ::fstat(m_device.get(), &st); }).failed() &&
                      S_ISFIFO(st.st_mode);

    RecordDecoder decoder;
    Signal record;
    std::size_t damage = 0;  // bytes of the damaged stretch not yet reported
    bool explained = false;  // its line is written already: count it only
    bool ended = false;
    // While a record is held incomplete: when it must have arrived.
    auto partial_deadline = Clock::time_point::max();
    const auto start = Clock::now();
    for (Timer& t : m_timers) {
        t.due = start + t.period;
    }

    // A stretch of damage is reported once, when the record after it
    // completes (or the device ends), however many reads it spans; one whose
    // line was written already (a record given up) is only counted.
    const auto settle_damage = [&] {
        if (damage > 0) {
            if (explained) {
                m_consumer.resynchronised(damage);
            } else {
                report_damage(m_path, damage, m_consumer);
            }
        }
        damage = 0;
        explained = false;
    };

    while (!ended && !stop_requested.load()) {
        // Slots: the port (unless what it feeds is full), the stop, the source's.
        constexpr std::size_t max_slots = 6;
        pollfd pfd[max_slots] = {{m_device.get(), POLLIN, {}}, {stop_requested.fd(), POLLIN, {}}};
        std::size_t slots = 2;
        if (m_source != nullptr && !m_source->accepts_more()) {
            pfd[0].fd = -1;  // poll ignores it: the RT side waits
            // Bytes that wait in the device unread are not late.
            partial_deadline = Clock::time_point::max();
        }
        int timeout = run_timers(partial_deadline);
        if (m_source != nullptr) {
            slots += m_source->fill(pfd + 2, max_slots - 2);
            const auto due = m_source->due();
            if (due != Clock::time_point::max()) {
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
                const int ms = static_cast<int>(std::max<long long>(left.count(), 0));
                timeout = timeout < 0 ? ms : std::min(timeout, ms);
            }
        }
        const auto p = sys_call("poll", [&] { return ::poll(pfd, slots, timeout); });
        if (p.failed()) {
            logging::ERROR << port_log() << "RX queue port " << m_path << ": " << p.message();
            break;
        }
        if (stop_requested.load()) {
            break;
        }
        if (m_source != nullptr) {
            bool ready = Clock::now() >= m_source->due();
            for (std::size_t i = 2; i < slots; ++i) {
                ready = ready || pfd[i].revents != 0;
            }
            if (ready) {
                m_source->serve(pfd + 2, slots - 2);
            }
        }
        if (p.value == 0 || (pfd[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
            if (Clock::now() >= partial_deadline) {
                std::uint32_t id = 0;
                std::size_t length = 0;
                if (decoder.partial_header(id, length)) {
                    logging::ERROR
                        << port_log() << "queue port " << m_path << ": record of id " << id
                        << " announced " << length << " payload bytes, only "
                        << decoder.pending() - std::min(decoder.pending(), record_header_size)
                        << " arrived within " << partial_record_wait.count()
                        << " ms; dropped as damaged";
                    explained = true;
                }
                decoder.abandon_partial();
                partial_deadline = Clock::time_point::max();
            } else {
                continue;
            }
        } else {
            // Straight into the decoder: the bytes are not copied on their way in.
            std::uint8_t* room = decoder.prepare(read_chunk);
            const auto n =
                sys_call("read", [&] { return ::read(m_device.get(), room, read_chunk); });
            if (n.failed()) {
                if (n.error == EAGAIN || n.error == EWOULDBLOCK) {
                    continue;
                }
                logging::ERROR << port_log() << "RX queue port " << m_path << ": " << n.message();
                break;
            }
            if (n.value == 0) {
                // Without POLLHUP a FIFO has never had a writer: keep waiting.
                // Linux poll does not even wake in that state; the check keeps
                // a spurious wake-up from ending the port.
                if (!fifo || (pfd[0].revents & POLLHUP) != 0) {
                    ended = true;
                    // A record whose length reached past the end covered the
                    // records after it: they are decoded instead of dropped with it.
                    decoder.finish();
                }
            } else {
                decoder.commit(static_cast<std::size_t>(n.value));
            }
        }

        std::size_t delivered = 0;
        bool stopped = false;
        for (;;) {
            const bool got = decoder.next(record);
            damage += decoder.take_skipped();
            if (!got) {
                break;
            }
            settle_damage();
            m_consumer.consume(record);
            if (++delivered % Depth == 0 && stop_requested.load()) {
                stopped = true;
                break;
            }
        }
        if (m_source != nullptr && delivered > 0) {
            m_source->flush();
        }
        if (stopped || decoder.pending() == 0) {
            partial_deadline = Clock::time_point::max();
        } else if (delivered > 0 || partial_deadline == Clock::time_point::max()) {
            partial_deadline = Clock::now() + partial_record_wait;
        }
    }
    if (ended) {
        settle_damage();
    }
    m_consumer.finished();
}

template <std::size_t Depth, typename Record>
bool QueuePortWriter<Depth, Record>::open(const std::string& path) {
    // A reader that goes away must come back as EPIPE from write(), not as a
    // signal that ends the whole daemon.
    static std::once_flag sigpipe_once;
    std::call_once(sigpipe_once, [] { std::signal(SIGPIPE, SIG_IGN); });

    m_device.reset();
    m_path = path;
    // O_APPEND so that a regular file used as the port keeps what it holds.
    const auto deadline = Clock::now() + open_wait;
    for (;;) {
        const auto r = sys_call("open", [&] {
            return ::open(path.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC);
        });
        if (!r.failed()) {
            m_device.reset(static_cast<int>(r.value));
            return true;
        }
        // ENXIO: a FIFO whose reader has not opened it yet.
        if (r.error != ENXIO || Clock::now() >= deadline) {
            logging::ERROR << port_log() << "cannot open TX queue port " << path << ": "
                           << std::strerror(r.error);
            return false;
        }
        std::this_thread::sleep_for(open_retry);
    }
}

template <std::size_t Depth, typename Record>
bool QueuePortWriter<Depth, Record>::transmit_data(const Signal& signal) {
    if (!m_device.valid()) {
        logging::ERROR << port_log() << "TX queue port " << m_path << " is not open";
        return false;
    }
    if (!encode_record(signal, m_buffer)) {
        logging::ERROR << port_log() << "TX queue port " << m_path << ": record of id " << signal.id
                       << " has " << signal.data.size() << " payload bytes, more than "
                       << record_max_payload << "; not sent";
        return false;
    }
    // One write() normally carries the whole record. A record larger than
    // PIPE_BUF may go in parts on a non-blocking FIFO; the rest follows within
    // the same wait so that the reader never sees a torn record.
    // Signed on purpose: an unsigned Depth would make the time left wrap
    // around instead of going negative once the deadline has passed.
    constexpr std::chrono::milliseconds room_wait{125 * static_cast<long>(Depth)};
    const auto deadline = Clock::now() + room_wait;
    std::size_t done = 0;
    while (done < m_buffer.size()) {
        const auto w = sys_call("write", [&] {
            return ::write(m_device.get(), m_buffer.data() + done, m_buffer.size() - done);
        });
        if (w.failed() && w.error != EAGAIN && w.error != EWOULDBLOCK) {
            logging::ERROR << port_log() << "TX queue port " << m_path << ": " << w.message();
            return false;
        }
        if (w.value > 0) {
            done += static_cast<std::size_t>(w.value);
            continue;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            logging::ERROR << port_log() << "TX queue port " << m_path << ": no room for "
                           << (m_buffer.size() - done) << " of " << m_buffer.size()
                           << " bytes within " << room_wait.count() << " ms";
            return false;
        }
        pollfd pfd{m_device.get(), POLLOUT, {}};
        const auto p =
            sys_call("poll", [&] { return ::poll(&pfd, 1, static_cast<int>(left.count())); });
        if (p.failed()) {
            logging::ERROR << port_log() << "TX queue port " << m_path << ": " << p.message();
            return false;
        }
        // POLLERR (reader gone) shows up as EPIPE on the next write.
    }
    return true;
}

template class QueuePortReader<24, signal_t_dyn<24>>;
template class QueuePortWriter<8, signal_t_dyn<8>>;

}  // namespace ecu::kora::ipc
