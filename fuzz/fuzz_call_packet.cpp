// The demo call's receiving side on random datagrams, against a model that
// reads the header byte by byte and computes the CRC bit by bit; and the
// run-length code: every input round-trips, and decoding random codes never
// writes past its room.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <vector>

#include "call_codec.h"

namespace {

void check(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "fuzz_call_packet: %s\n", what);
        abort();
    }
}

uint32_t model_crc(const uint8_t* p, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int b = 0; b < 8; ++b)
            c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
    }
    return ~c;
}

uint64_t model_le(const uint8_t* p, int bytes) {
    uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i)
        v = (v << 8) | p[i];
    return v;
}

call::parse_result_t model_parse(const uint8_t* d, size_t n, call::packet_header_t& h) {
    if (n < 40 || n > 36 + 1200 + 4)
        return call::PACKET_SHORT;
    if (model_crc(d, n - 4) != model_le(d + n - 4, 4))
        return call::PACKET_BAD_CRC;
    h.kind = d[2];
    h.flags = d[3];
    h.seq = static_cast<uint32_t>(model_le(d + 4, 4));
    h.frame_id = static_cast<uint32_t>(model_le(d + 8, 4));
    h.index = static_cast<uint16_t>(model_le(d + 12, 2));
    h.count = static_cast<uint16_t>(model_le(d + 14, 2));
    h.capture_us = model_le(d + 16, 8);
    h.send_us = model_le(d + 24, 8);
    h.payload_len = static_cast<uint16_t>(model_le(d + 32, 2));
    if (model_le(d, 2) != 0xCA11 || (h.kind != 1 && h.kind != 2) || h.count == 0 || h.index >= h.count ||
        h.payload_len != n - 40)
        return call::PACKET_BAD_HEADER;
    return call::PACKET_OK;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // As received, and sealed with a good CRC so the header checks are
    // reached too.
    std::vector<uint8_t> sealed(data, data + size);
    if (size >= 4) {
        const uint32_t c = model_crc(sealed.data(), size - 4);
        for (int i = 0; i < 4; ++i)
            sealed[size - 4 + i] = static_cast<uint8_t>(c >> (8 * i));
    }
    for (int pass = 0; pass < 2; ++pass) {
        const uint8_t* p = pass == 0 ? data : sealed.data();
        call::packet_header_t got, want;
        const call::parse_result_t rv = call::parse_packet(p, size, got);
        check(rv == model_parse(p, size, want), "parse result differs from the model");
        if (rv == call::PACKET_OK)
            check(got.seq == want.seq && got.frame_id == want.frame_id && got.index == want.index &&
                      got.count == want.count && got.capture_us == want.capture_us && got.send_us == want.send_us &&
                      got.payload_len == want.payload_len && got.kind == want.kind && got.flags == want.flags,
                  "header fields differ from the model");
    }

    std::vector<uint8_t> code(call::rle_bound(size));
    const size_t n = call::rle_encode(data, size, code.data());
    check(n <= code.size(), "code longer than its bound");
    std::vector<uint8_t> back(size);
    size_t written = 0;
    check(call::rle_decode(code.data(), n, back.data(), back.size(), written) && written == size &&
              std::equal(back.begin(), back.end(), data),
          "round trip changed the bytes");

    // Random bytes as a code: exact-size room, so ASan sees any overrun.
    const size_t cap = size * 2;
    std::vector<uint8_t> out(cap);
    if (call::rle_decode(data, size, out.data(), cap, written)) {
        std::vector<uint8_t> again(call::rle_bound(written));
        const size_t m = call::rle_encode(out.data(), written, again.data());
        std::vector<uint8_t> twice(written);
        size_t w2 = 0;
        check(call::rle_decode(again.data(), m, twice.data(), twice.size(), w2) && w2 == written &&
                  std::equal(twice.begin(), twice.end(), out.begin()),
              "a decoded code does not round-trip");
    } else {
        check(written <= cap, "a refused code reports more than its room");
    }
    return 0;
}
