#!/usr/bin/env python3
"""Reads a map file (the metrics cache) and checks its structure: the header's dimensions,
one record per pair in ascending slot order, slots inside the table, an insertion-order chain
from the first to the last slot through every pair, and nothing left over.

    mapfile.py FILE     prints the pairs in insertion order as KEY=VALUE
"""
import struct
import sys

HEADER = struct.Struct("<7I")
RECORD = struct.Struct("<5I")


class MapFileError(Exception):
    pass


def read_map(data):
    """The pairs of a map file image in insertion order, as (key, value bytes)."""
    if len(data) < HEADER.size:
        raise MapFileError("shorter than the 28-byte header")
    _flags, buckets, bucket_size, map_size, count, first, last = HEADER.unpack_from(data)
    if buckets * bucket_size != map_size:
        raise MapFileError("map_size %d is not %d x %d" % (map_size, buckets, bucket_size))
    offset, pairs = HEADER.size, {}
    for _ in range(count):
        if offset + RECORD.size > len(data):
            raise MapFileError("record header runs past the end at %d" % offset)
        slot, next_slot, _pair_flags, klen, vlen = RECORD.unpack_from(data, offset)
        key_at = offset + RECORD.size
        offset = key_at + klen + vlen
        if offset > len(data):
            raise MapFileError("record at slot %d runs past the end" % slot)
        if slot >= map_size or slot <= max(pairs, default=-1):
            raise MapFileError("slot %d out of order or outside the table" % slot)
        pairs[slot] = (data[key_at:key_at + klen].decode(), data[key_at + klen:offset], next_slot)
    if offset != len(data):
        raise MapFileError("%d bytes left after the last record" % (len(data) - offset))
    ordered, slot = [], first
    while pairs:
        if slot not in pairs or len(ordered) > count:
            raise MapFileError("insertion chain reaches slot %d, which holds no pair" % slot)
        ordered.append(pairs[slot][:2])
        if slot == last:
            break
        slot = pairs[slot][2]
    if len(ordered) != count:
        raise MapFileError("insertion chain visits %d of %d pairs" % (len(ordered), count))
    return ordered


def read_string_map(path):
    """The pairs of a map file whose values are NUL-terminated strings, as (key, text)."""
    with open(path, "rb") as f:
        pairs = read_map(f.read())
    for key, value in pairs:
        if not value.endswith(b"\0") or b"\0" in value[:-1]:
            raise MapFileError("value of %s is not one NUL-terminated string" % key)
    return [(key, value[:-1].decode()) for key, value in pairs]


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    try:
        for key, text in read_string_map(sys.argv[1]):
            print("%s=%s" % (key, text))
    except (OSError, MapFileError) as e:
        sys.exit("%s: %s" % (sys.argv[1], e))
