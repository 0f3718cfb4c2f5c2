#pragma once

// The record format of both queue-port directions: a 24-byte little-endian
// header (magic "QPR1", RT id, timestamp, payload length <= 65536, tag, three
// reserved bytes) followed by the payload.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ipc_signal.h"

namespace ecu::kora::ipc {

inline constexpr std::size_t record_header_size = 24;
inline constexpr std::size_t record_max_payload = 65536;
inline constexpr std::uint8_t record_magic[4] = {'Q', 'P', 'R', '1'};

// Encodes one record (header and payload) into out, replacing its content.
// False when the payload is longer than record_max_payload.
bool encode_record(const IpcSignal& signal, std::vector<std::uint8_t>& out);

// Splits a byte stream into records: feed it bytes as they come, in any chunk
// sizes, and take complete records out. A stream out of step is damage: a
// wrong magic, a length over the limit, or a record whose declared end is
// followed by bytes that do not begin the next record (its length is wrong,
// or stray bytes follow it). Damage is skipped up to the next magic, so
// nothing after it is lost; the damaged record itself is dropped.
class RecordDecoder {
public:
    // Appends bytes to the stream.
    void feed(const std::uint8_t* data, std::size_t size);
    // Room for up to size more bytes at the end of the stream, for a read
    // straight into it; commit(n) then appends the n bytes that were read.
    std::uint8_t* prepare(std::size_t size);
    void commit(std::size_t n) { m_end += n; }
    // Takes the next complete record out; false when none is complete yet.
    bool next(IpcSignal& out);
    // No more bytes will come: a record still incomplete is damage (its
    // length reached past the end), and the records that its declared length
    // covered are decoded after all. What cannot start a record is dropped.
    void finish();
    // The record held incomplete at the front will not be completed (its
    // bytes stopped coming): it is damage, and the records that its declared
    // length covered are decoded by the next calls. Reading goes on.
    void abandon_partial() { m_abandon = true; }
    // The RT id and declared payload length of the incomplete record held at
    // the front; false while fewer than its header's first 20 bytes are held.
    bool partial_header(std::uint32_t& id, std::size_t& length) const;
    // Bytes skipped as damage since the last call (and resets the count).
    std::size_t take_skipped();
    // Bytes held that do not yet form a complete record.
    std::size_t pending() const { return m_end - m_start; }

private:
    // Skips from the front of the held bytes to the next place where a magic
    // begins (or could begin with bytes still to come).
    void skip_damage();

    // The stream's bytes are [m_start, m_end) of m_buffer; the rest is room.
    std::vector<std::uint8_t> m_buffer;
    std::size_t m_start{};
    std::size_t m_end{};
    std::size_t m_skipped{};
    bool m_finished{};
    bool m_abandon{};
};

}  // namespace ecu::kora::ipc
