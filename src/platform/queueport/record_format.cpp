#include "record_format.h"

#include <algorithm>
#include <cstring>

namespace ecu::kora::ipc {

namespace {

void put_le(std::uint8_t* at, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) {
        at[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

std::uint64_t get_le(const std::uint8_t* at, std::size_t bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) {
        value |= static_cast<std::uint64_t>(at[i]) << (8 * i);
    }
    return value;
}

constexpr std::ptrdiff_t magic_size = sizeof record_magic;

// Whether the bytes from at up to end could be the start of a record: the
// whole magic, or as much of it as has arrived.
bool magic_prefix_at(const std::uint8_t* at, const std::uint8_t* end) {
    return std::memcmp(at, record_magic,
                       static_cast<std::size_t>(std::min(magic_size, end - at))) == 0;
}

}  // namespace

bool encode_record(const IpcSignal& signal, std::vector<std::uint8_t>& out) {
    if (signal.data.size() > record_max_payload) {
        return false;
    }
    out.resize(record_header_size + signal.data.size());
    std::uint8_t* h = out.data();
    std::memcpy(h, record_magic, sizeof record_magic);
    put_le(h + 4, signal.id, 4);
    put_le(h + 8, signal.timestamp, 8);
    put_le(h + 16, signal.data.size(), 4);
    h[20] = signal.tag;
    h[21] = h[22] = h[23] = 0;
    std::copy(signal.data.begin(), signal.data.end(), out.begin() + record_header_size);
    return true;
}

std::uint8_t* RecordDecoder::prepare(std::size_t size) {
    if (m_start == m_end) {
        m_start = m_end = 0;
    } else if (m_end + size > m_buffer.size() && m_start > 0) {
        // What is left is at most one record: moving it is cheaper than growing.
        std::memmove(m_buffer.data(), m_buffer.data() + m_start, m_end - m_start);
        m_end -= m_start;
        m_start = 0;
    }
    if (m_end + size > m_buffer.size()) {
        m_buffer.resize(m_end + size);
    }
    return m_buffer.data() + m_end;
}

void RecordDecoder::feed(const std::uint8_t* data, std::size_t size) {
    if (size > 0) {
        std::memcpy(prepare(size), data, size);
        commit(size);
    }
}

void RecordDecoder::skip_damage() {
    const std::uint8_t* begin = m_buffer.data() + m_start;
    const std::uint8_t* end = m_buffer.data() + m_end;
    // memchr keeps the search cheap on long damage.
    const std::uint8_t* at = begin + 1;
    while (at < end) {
        at = static_cast<const std::uint8_t*>(
            std::memchr(at, record_magic[0], static_cast<std::size_t>(end - at)));
        if (at == nullptr) {
            at = end;
        } else if (magic_prefix_at(at, end) && !(m_finished && end - at < magic_size)) {
            break;
        } else {
            ++at;
        }
    }
    const auto skipped = static_cast<std::size_t>(at - begin);
    m_skipped += skipped;
    m_start += skipped;
}

bool RecordDecoder::next(IpcSignal& out) {
    for (;;) {
        const std::uint8_t* begin = m_buffer.data() + m_start;
        const std::uint8_t* end = m_buffer.data() + m_end;
        const auto available = static_cast<std::size_t>(end - begin);
        if (available == 0) {
            m_abandon = false;
            return false;
        }
        bool damaged = !magic_prefix_at(begin, end);
        std::size_t length = 0;
        if (!damaged && available >= 20) {
            length = static_cast<std::size_t>(get_le(begin + 16, 4));
            damaged = length > record_max_payload;
        }
        const bool complete =
            !damaged && available >= record_header_size && available >= record_header_size + length;
        if (complete) {
            // A wrong length within the limit shows where the next record
            // should begin. When those bytes have not arrived yet the record
            // goes out now: holding it for them would delay every burst's last.
            const std::uint8_t* after = begin + record_header_size + length;
            damaged = after < end && !magic_prefix_at(after, end);
        } else if (!damaged && (m_finished || m_abandon)) {
            damaged = true;
            m_abandon = false;
        }
        if (damaged) {
            skip_damage();
            continue;
        }
        if (!complete) {
            return false;
        }
        out.id = static_cast<std::uint32_t>(get_le(begin + 4, 4));
        out.timestamp = get_le(begin + 8, 8);
        out.tag = begin[20];
        out.data.assign(begin + record_header_size, begin + record_header_size + length);
        m_start += record_header_size + length;
        m_abandon = false;
        return true;
    }
}

bool RecordDecoder::partial_header(std::uint32_t& id, std::size_t& length) const {
    const std::uint8_t* begin = m_buffer.data() + m_start;
    if (m_end - m_start < 20 || !magic_prefix_at(begin, begin + magic_size)) {
        return false;
    }
    id = static_cast<std::uint32_t>(get_le(begin + 4, 4));
    length = static_cast<std::size_t>(get_le(begin + 16, 4));
    return true;
}

void RecordDecoder::finish() {
    m_finished = true;
}

std::size_t RecordDecoder::take_skipped() {
    const std::size_t skipped = m_skipped;
    m_skipped = 0;
    return skipped;
}

}  // namespace ecu::kora::ipc
