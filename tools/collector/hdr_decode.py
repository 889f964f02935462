"""Reads the response-time histograms of metrics documents: HdrHistogram's
compressed V2 log form (base64 of cookie 0x1c849314, length, zlib stream of
the V2 encoding: 40-byte big-endian header, then zigzag LEB128 counts where
a negative number is a run of zero counts).

    decode(text)                     -> Histogram (ValueError on bad input)
    merge([Histogram, ...])          -> {lowest value of a slot: (width, count)}
    percentiles(merged, [50, 99])    -> [value, ...] (highest value of the slot)
"""
import base64
import binascii
import math
import struct
import zlib

COMPRESSED_COOKIE = 0x1C849314
ENCODING_COOKIE = 0x1C849313
COOKIE_BASE_MASK = ~0xF0 & 0xFFFFFFFF  # the word-size nibble differs between writers
MAX_COUNTS = 1 << 22  # far beyond any 5-figure histogram up to 2^62; guards memory


class Histogram:
    def __init__(self, lowest, highest, figures, counts):
        self.lowest, self.highest, self.figures = lowest, highest, figures
        self.counts = counts  # {index: count}, non-zero only
        self.unit_magnitude = int(math.floor(math.log2(lowest)))
        sub_bucket_count_magnitude = int(math.ceil(math.log2(2 * 10 ** figures)))
        self.half_magnitude = sub_bucket_count_magnitude - 1
        self.half_count = 1 << self.half_magnitude

    @property
    def total(self):
        return sum(self.counts.values())

    def slot(self, index):
        """(lowest value, width) of the counts slot at index."""
        bucket = (index >> self.half_magnitude) - 1
        sub = (index & (self.half_count - 1)) + self.half_count
        if bucket < 0:
            sub -= self.half_count
            bucket = 0
        return sub << (bucket + self.unit_magnitude), 1 << (bucket + self.unit_magnitude)

    def values(self):
        """(lowest value, width, count) for every counted slot, in value order."""
        return [self.slot(i) + (c,) for i, c in sorted(self.counts.items())]


def _zigzag(data, pos):
    value, shift = 0, 0
    for i in range(9):
        if pos >= len(data):
            raise ValueError("counts cut short")
        b = data[pos]
        pos += 1
        if i == 8:
            value |= b << 56
            break
        value |= (b & 0x7F) << shift
        shift += 7
        if not b & 0x80:
            break
    return (value >> 1) ^ -(value & 1), pos


def decode(text):
    try:
        packed = base64.b64decode(text, validate=True)
    except (binascii.Error, ValueError) as e:
        raise ValueError("not base64: %s" % e)
    if len(packed) < 8:
        raise ValueError("too short")
    cookie, length = struct.unpack(">II", packed[:8])
    if cookie & COOKIE_BASE_MASK != COMPRESSED_COOKIE & COOKIE_BASE_MASK or length > len(packed) - 8:
        raise ValueError("not a compressed V2 histogram")
    try:
        raw = zlib.decompressobj().decompress(packed[8:8 + length], 40 + 9 * MAX_COUNTS)
    except zlib.error as e:
        raise ValueError("zlib: %s" % e)
    if len(raw) < 40:
        raise ValueError("header cut short")
    cookie, payload, offset, figures, lowest, highest, _ratio = struct.unpack(">IIIIqqd", raw[:40])
    if cookie & COOKIE_BASE_MASK != ENCODING_COOKIE & COOKIE_BASE_MASK:
        raise ValueError("not a V2 encoding")
    if offset != 0 or not 1 <= figures <= 5 or lowest < 1 or highest < 2 * lowest or len(raw) < 40 + payload:
        raise ValueError("unsupported header")
    data, pos, index, counts = raw[40:40 + payload], 0, 0, {}
    while pos < len(data):
        value, pos = _zigzag(data, pos)
        if value < 0:
            index += -value
        else:
            if value:
                counts[index] = value
            index += 1
        if index > MAX_COUNTS:
            raise ValueError("counts beyond any histogram")
    return Histogram(lowest, highest, figures, counts)


def merge(histograms):
    merged = {}
    for h in histograms:
        for low, width, count in h.values():
            old = merged.get(low, (width, 0))
            merged[low] = (max(width, old[0]), old[1] + count)
    return merged


def percentiles(merged, wanted):
    """HdrHistogram's rule: the first slot whose running count reaches
    p% of the total (rounded up, at least 1), reported as its highest value."""
    total = sum(c for _, c in merged.values())
    if total == 0:
        return [None for _ in wanted]
    slots = sorted(merged.items())
    out = []
    for p in wanted:
        # One step down first, so that rounding (28% of 5000 is 1400.0000000000002) keeps an exact rank.
        target, running = max(1, math.ceil(min(100.0, math.nextafter(p, -math.inf)) / 100.0 * total)), 0
        for low, (width, count) in slots:
            running += count
            if running >= target:
                out.append(low + width - 1)
                break
    return out
