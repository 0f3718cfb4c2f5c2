#!/usr/bin/env python3
"""Writes the seed corpora under corpus/<target>/: a few small valid inputs
per fuzz target. Run once; the output is committed."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def varint(n):
    out = b""
    while True:
        b = n & 0x7F
        n >>= 7
        if n:
            out += bytes([b | 0x80])
        else:
            return out + bytes([b])


def field_varint(num, value):
    return varint(num << 3) + varint(value)


def field_bytes(num, value):
    return varint((num << 3) | 2) + varint(len(value)) + value


def frame(body, timestamp=1234):
    info = 1 | (18 << 16) | (len(body) << 32)
    return b"\x09" + struct.pack("<Q", info) + b"\x11" + struct.pack("<Q", timestamp) + body


def signal_group(timestamp, signals):
    body = field_varint(1, timestamp) if timestamp is not None else b""
    for name, data in signals:
        body += field_bytes(2, field_bytes(1, name) + field_bytes(2, data))
    return body


def record(rid, data, timestamp=1, tag=0):
    return b"QPR1" + struct.pack("<IQIB3x", rid, timestamp, len(data), tag) + data


def write(target, name, content):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(content)


# fuzz_frame: body type byte (0 RtSignal, 1 SubscriptionMessage,
# 2 SubscriptionStatus, 3 TPAStatus, 4 SignalGroupData), then the frame.
rt = field_varint(1, 42) + field_bytes(2, b"\x03\x01") + field_varint(3, 9) + field_bytes(4, b"ipcd")
write("fuzz_frame", "rt_signal", b"\x00" + frame(rt))
write("fuzz_frame", "subscription", b"\x01" + frame(field_bytes(1, b"rt/vehicle/gear") + field_bytes(1, b"rt/vehicle/speed")))
write("fuzz_frame", "status", b"\x02" + frame(field_bytes(1, b"rt/vehicle/gear") + field_varint(2, 14) + field_varint(3, 1)))
write("fuzz_frame", "tpa", b"\x03" + frame(field_varint(1, 1) + field_varint(2, 1)))
write("fuzz_frame", "group", b"\x04" + frame(signal_group(1000, [(b"fan_level", b"\x03")])))
write("fuzz_frame", "empty_body", b"\x01" + frame(b""))

# fuzz_records: chunks of (length byte - 1, bytes).
def chunked(stream, sizes):
    out, at, i = b"", 0, 0
    while at < len(stream):
        n = min(sizes[i % len(sizes)], len(stream) - at)
        out += bytes([n - 1]) + stream[at:at + n]
        at += n
        i += 1
    return out


two = record(21, b"\x00\x01\x02\x03", 7, 1) + record(20, b"\x64\x00\x01", 42)
write("fuzz_records", "two_records", chunked(two, [256]))
write("fuzz_records", "short_reads", chunked(two, [1, 5, 3, 24]))
write("fuzz_records", "damage", chunked(b"\x00QP" + record(1, b"") + b"QPR1" + b"\xff" * 20 + record(2, b"x"), [7, 13]))
write("fuzz_records", "empty_payload", chunked(record(0, b""), [24]))
# Lengths wrong within the limit: one reaching into the next record, one short.
long_len = bytearray(record(5, b"abcdef")); long_len[16] = 30
short_len = bytearray(record(6, b"abcdef")); short_len[16] = 2
write("fuzz_records", "wrong_length", chunked(bytes(long_len) + two + bytes(short_len) + two, [9, 40]))

# fuzz_config: key=value text.
write("fuzz_config", "full", b"# ipcd\nhost = 127.0.0.1\nport=1883\nclient_name=ipcd\nqueue_rx=/dev/qport/rx\n"
      b"logmode=1\nloglevel=INFO\nlog_rt_signal=1,20,21\n")
write("fuzz_config", "bad_port", b"port=65536\nno equals sign here\n\n   # comment\nkeepalive=60\n")
write("fuzz_config", "port_only", b"1883")

# fuzz_catalogue: JSON, a zero byte, a frame for unpack.
catalogue = (b'{"groups": [{"topic": "rt/hmi/climate_request", "id": 30, "size": 8, "signals": ['
             b'{"name": "target_temp", "offset": 0, "size": 2}, {"name": "fan_level", "offset": 2, "size": 1}]},'
             b'{"topic": "rt/vehicle/speed", "id": 20, "retained": true, "size": 4, "signals": []}]}')
write("fuzz_catalogue", "unpacks", catalogue + b"\x00" + frame(signal_group(2000, [(b"fan_level", b"\x03"), (b"target_temp", b"\xd2\x00")])))
write("fuzz_catalogue", "no_timestamp", catalogue + b"\x00" + frame(signal_group(None, [(b"target_temp", b"\x01")])))
write("fuzz_catalogue", "unknown_signal", catalogue + b"\x00" + frame(signal_group(1, [(b"nope", b"\x01")])))
write("fuzz_catalogue", "bad_schema", b'{"groups": [{"topic": 5}]}\x00')
