// CRC-16 and CRC-32 of byte ranges, as plain C entry points.
//
// Both are reflected CRCs that work on a raw running value: nothing is
// inverted inside, so a caller chains calls over pieces and picks its own
// convention. For the common CRC-32 (zlib, Ethernet, PNG) start from
// 0xFFFFFFFF and invert the result; for CRC-16/ARC start from 0, for MODBUS
// from 0xFFFF, with no final inversion.
//
//   unsigned int c = 0xFFFFFFFFu;
//   crc_32(&c, head, head_len);
//   crc_32(&c, body, body_len);
//   unsigned int standard = ~c;  // "123456789" gives 0xCBF43926
//
// Every call gives exactly the result of the one-byte-per-step table for
// every length, alignment and start value. The fastest path the CPU offers
// is picked once at run time (carry-less multiply folding with 128-bit or
// 512-bit vectors on x86, a 16-bytes-per-step table elsewhere); the library
// needs no special compiler flags for it.
//
// Any thread may call them at any time. crc_16 builds its tables on first
// use into a singleton that the last util_uninit destroys; a later call
// builds them again.
#ifndef SSB_CRC_H
#define SSB_CRC_H

#include "util_def.h"

// Reflected CRC-32, polynomial 0xEDB88320 (IEEE 802.3). Updates *crc over
// `length` bytes at `data` and returns the new value. Length 0 returns the
// value unchanged. A null `crc` returns 0; null `data` with a length leaves
// the value as it was; both log an assertion line.
SSB_C_API unsigned int crc_32(unsigned int* crc, const unsigned char* data, unsigned length);

// Reflected CRC-16, polynomial 0xA001 (0x8005 bit-reversed). The same
// contract as crc_32.
SSB_C_API unsigned short crc_16(unsigned short* crc, const unsigned char* data, unsigned length);

#endif
