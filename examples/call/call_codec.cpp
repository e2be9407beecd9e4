#include "call_codec.h"

#include <algorithm>
#include <cmath>

#include "crc.h"

namespace call {

void put_u16(unsigned char* p, uint16_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

void put_u32(unsigned char* p, uint32_t v) {
    put_u16(p, static_cast<uint16_t>(v));
    put_u16(p + 2, static_cast<uint16_t>(v >> 16));
}

void put_u64(unsigned char* p, uint64_t v) {
    put_u32(p, static_cast<uint32_t>(v));
    put_u32(p + 4, static_cast<uint32_t>(v >> 32));
}

uint16_t get_u16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t get_u32(const unsigned char* p) { return get_u16(p) | (static_cast<uint32_t>(get_u16(p + 2)) << 16); }

uint64_t get_u64(const unsigned char* p) { return get_u32(p) | (static_cast<uint64_t>(get_u32(p + 4)) << 32); }

void write_header(const packet_header_t& h, unsigned char* out) {
    put_u16(out, PACKET_MAGIC);
    out[2] = h.kind;
    out[3] = h.flags;
    put_u32(out + PACKET_SEQ_OFFSET, h.seq);
    put_u32(out + 8, h.frame_id);
    put_u16(out + 12, h.index);
    put_u16(out + 14, h.count);
    put_u64(out + 16, h.capture_us);
    put_u64(out + PACKET_SEND_US_OFFSET, h.send_us);
    put_u16(out + 32, h.payload_len);
    put_u16(out + 34, 0);
}

uint32_t packet_crc(const unsigned char* data, size_t len) {
    unsigned int c = 0xFFFFFFFFu;
    crc_32(&c, data, static_cast<unsigned>(len));
    return ~c;
}

parse_result_t parse_packet(const unsigned char* data, size_t len, packet_header_t& out) {
    if (len < PACKET_HEADER_SIZE + PACKET_CRC_SIZE || len > PACKET_MAX_SIZE)
        return PACKET_SHORT;
    const size_t body = len - PACKET_CRC_SIZE;
    if (packet_crc(data, body) != get_u32(data + body))
        return PACKET_BAD_CRC;
    packet_header_t h;
    h.kind = data[2];
    h.flags = data[3];
    h.seq = get_u32(data + PACKET_SEQ_OFFSET);
    h.frame_id = get_u32(data + 8);
    h.index = get_u16(data + 12);
    h.count = get_u16(data + 14);
    h.capture_us = get_u64(data + 16);
    h.send_us = get_u64(data + PACKET_SEND_US_OFFSET);
    h.payload_len = get_u16(data + 32);
    if (get_u16(data) != PACKET_MAGIC || (h.kind != KIND_AUDIO && h.kind != KIND_VIDEO) || h.count == 0 ||
        h.index >= h.count || h.payload_len != body - PACKET_HEADER_SIZE)
        return PACKET_BAD_HEADER;
    out = h;
    return PACKET_OK;
}

namespace {
const size_t RLE_MAX_LITERAL = 128;
const size_t RLE_MIN_RUN = 3;
const size_t RLE_MAX_RUN = 130;
}  // namespace

size_t rle_bound(size_t n) { return n + (n + RLE_MAX_LITERAL - 1) / RLE_MAX_LITERAL; }

size_t rle_encode(const unsigned char* in, size_t n, unsigned char* out) {
    size_t o = 0;
    size_t lit_start = 0;
    size_t i = 0;
    auto flush_literals = [&](size_t end) {
        while (lit_start < end) {
            const size_t take = std::min(end - lit_start, RLE_MAX_LITERAL);
            out[o++] = static_cast<unsigned char>(take - 1);
            std::copy(in + lit_start, in + lit_start + take, out + o);
            o += take;
            lit_start += take;
        }
    };
    while (i < n) {
        size_t run = 1;
        while (i + run < n && run < RLE_MAX_RUN && in[i + run] == in[i])
            ++run;
        if (run >= RLE_MIN_RUN) {
            flush_literals(i);
            out[o++] = static_cast<unsigned char>(run - RLE_MIN_RUN + 128);
            out[o++] = in[i];
            i += run;
            lit_start = i;
        } else {
            i += run;
        }
    }
    flush_literals(n);
    return o;
}

bool rle_decode(const unsigned char* in, size_t n, unsigned char* out, size_t cap, size_t& written) {
    size_t i = 0;
    written = 0;
    while (i < n) {
        const unsigned char c = in[i++];
        if (c < 128) {
            const size_t take = static_cast<size_t>(c) + 1;
            if (n - i < take || cap - written < take)
                return false;
            std::copy(in + i, in + i + take, out + written);
            i += take;
            written += take;
        } else {
            const size_t run = static_cast<size_t>(c) - 128 + RLE_MIN_RUN;
            if (i == n || cap - written < run)
                return false;
            std::fill(out + written, out + written + run, in[i++]);
            written += run;
        }
    }
    return true;
}

int64_t percentile(std::vector<int64_t>& samples, double p) {
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    double rank = std::ceil(p * static_cast<double>(samples.size()));
    size_t index = rank < 1 ? 0 : static_cast<size_t>(rank) - 1;
    if (index >= samples.size())
        index = samples.size() - 1;
    return samples[index];
}

}  // namespace call
