#pragma once

// The record that passes through a queue port, and the interface of whoever
// receives the records a reader delivers.

#include <cstdint>
#include <vector>

namespace ecu::kora::ipc {

// One queue-port record.
struct IpcSignal {
    std::uint32_t id{};
    std::uint8_t tag{};
    std::uint64_t timestamp{};
    std::vector<std::uint8_t> data;
};

// Receives the records of a queue-port reader, on the reader's thread.
template <typename T>
class IDataConsumer {
public:
    virtual ~IDataConsumer() = default;
    // Once per record, in arrival order, one call at a time.
    virtual void consume(const T& signal) = 0;
    // Once, after the last record, when the reading loop ends.
    virtual void finished() = 0;
    // After the reader skipped damaged bytes to find the next record.
    virtual void resynchronised(std::size_t skipped_bytes) { (void)skipped_bytes; }
};

}  // namespace ecu::kora::ipc
