// The simulated call's wire format and byte codec: pure functions, no
// threads, no OS calls, so the tests and the fuzz target can drive them.
#ifndef DEMO_CALL_CODEC_H
#define DEMO_CALL_CODEC_H

#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace call {

// A packet: a 36-byte header, the payload, and the common CRC-32 (zlib's)
// of header and payload, all little-endian.
//   0 magic u16 | 2 kind u8 | 3 flags u8 | 4 seq u32 | 8 frame u32
//  12 index u16 | 14 count u16 | 16 capture_us u64 | 24 send_us u64
//  32 payload_len u16 | 34 reserved u16 | 36 payload | crc u32
const uint16_t PACKET_MAGIC = 0xCA11;
const unsigned int PACKET_HEADER_SIZE = 36;
const unsigned int PACKET_CRC_SIZE = 4;
// Payload per packet: a datagram stays below a 1,280-byte path MTU.
const unsigned int PACKET_MAX_PAYLOAD = 1200;
const unsigned int PACKET_MAX_SIZE = PACKET_HEADER_SIZE + PACKET_MAX_PAYLOAD + PACKET_CRC_SIZE;
// Where the sender stamps its fields into a header built by the encoder.
const unsigned int PACKET_SEQ_OFFSET = 4;
const unsigned int PACKET_SEND_US_OFFSET = 24;

enum media_kind_t : uint8_t { KIND_AUDIO = 1, KIND_VIDEO = 2 };

struct packet_header_t {
    uint8_t kind = 0;
    uint8_t flags = 0;
    uint32_t seq = 0;
    uint32_t frame_id = 0;
    uint16_t index = 0;
    uint16_t count = 0;
    uint64_t capture_us = 0;
    uint64_t send_us = 0;
    uint16_t payload_len = 0;
};

void put_u16(unsigned char* p, uint16_t v);
void put_u32(unsigned char* p, uint32_t v);
void put_u64(unsigned char* p, uint64_t v);
uint16_t get_u16(const unsigned char* p);
uint32_t get_u32(const unsigned char* p);
uint64_t get_u64(const unsigned char* p);

// Writes PACKET_HEADER_SIZE bytes.
void write_header(const packet_header_t& header, unsigned char* out);

// The common CRC-32 of `len` bytes.
uint32_t packet_crc(const unsigned char* data, size_t len);

enum parse_result_t {
    PACKET_OK = 0,
    PACKET_SHORT,       // shorter than a header and a CRC, or longer than any packet
    PACKET_BAD_CRC,     // the bytes changed on the way
    PACKET_BAD_HEADER,  // the CRC holds but the header makes no sense
};

// Checks a received datagram and reads its header. The CRC is checked
// before any field is trusted.
parse_result_t parse_packet(const unsigned char* data, size_t len, packet_header_t& out);

// A byte run-length code for the synthetic media: a control byte c below
// 128 is followed by c + 1 literal bytes; c from 128 up repeats the next
// byte c - 125 times (3..130). Output never exceeds rle_bound(n).
size_t rle_bound(size_t n);
size_t rle_encode(const unsigned char* in, size_t n, unsigned char* out);
// False, with `written` what was decoded so far, when the input ends inside
// a code or would write past `cap`.
bool rle_decode(const unsigned char* in, size_t n, unsigned char* out, size_t cap, size_t& written);

// Nearest-rank percentile (p in 0..1] of the samples, sorting them; 0 when
// empty.
int64_t percentile(std::vector<int64_t>& samples, double p);

}  // namespace call

#endif
