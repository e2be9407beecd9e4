// A typed value for mixed parameters: one signed integer of 8, 16, 32 or 64
// bits, or an array of one of those (a string is an 8-bit array that keeps
// its NUL).
#ifndef SSB_VARIANT_H
#define SSB_VARIANT_H

#include <stdint.h>

#include "util_def.h"

namespace ssb {

// Owns its array: it is freed (delete[]) whenever the variant is reset,
// reassigned or destroyed, and copies are deep. An array handed to an
// attach_ form becomes the variant's and must come from new[] of that
// element type (new char[] for attach_str). Arrays hold at most 65535
// elements: a longer count is cut to its low 16 bits, and a count that is 0
// after the cut stores nothing.
//
// A plain value: one thread at a time, like an int.
class UTIL_API variant_t {
public:
    enum type_t { TYPE_NULL = 0, TYPE_I8 = 1, TYPE_I16 = 2, TYPE_I32 = 3, TYPE_I64 = 4 };

    // The persisted header: a type byte and a 16-bit count.
    static const unsigned int PERSIST_HEADER_SIZE = 3;

    variant_t();
    variant_t(signed char value);
    variant_t(short value);
    variant_t(int value);
    variant_t(long long value);
    variant_t(const variant_t& other);
    variant_t& operator=(const variant_t& other);
    ~variant_t();

    // Back to null, freeing any array.
    void reset();

    unsigned char get_type() const { return m_type; }
    bool is_null() const { return m_type == TYPE_NULL; }
    bool is_array() const { return m_count > 0; }
    unsigned short get_array_size() const { return m_count; }

    void set_i8(signed char value);
    void set_i16(short value);
    void set_i32(int value);
    void set_i64(long long value);

    // The single value when the variant holds one of this type, with 0
    // through `err`; otherwise 0 with -1 (an array of the type too).
    signed char get_i8(int* err = nullptr) const;
    short get_i16(int* err = nullptr) const;
    int get_i32(int* err = nullptr) const;
    long long get_i64(int* err = nullptr) const;

    // Reset, then copy n elements; null p or n of 0 leaves the variant null.
    // false when the variant stays null (also when memory runs out, which
    // is logged).
    bool set_i8s(const signed char* p, unsigned int n);
    bool set_i16s(const short* p, unsigned int n);
    bool set_i32s(const int* p, unsigned int n);
    bool set_i64s(const long long* p, unsigned int n);

    // Reset, then take p itself under the same conditions. When false the
    // variant did not take p and it is still the caller's.
    bool attach_i8s(signed char* p, unsigned int n);
    bool attach_i16s(short* p, unsigned int n);
    bool attach_i32s(int* p, unsigned int n);
    bool attach_i64s(long long* p, unsigned int n);

    // The array when the variant holds an array of this type: its count
    // through `count` and 0 through `err`; otherwise null, 0 and -1. The
    // pointer stays the variant's and lives until it changes.
    const signed char* get_i8s(unsigned int* count, int* err = nullptr) const;
    const short* get_i16s(unsigned int* count, int* err = nullptr) const;
    const int* get_i32s(unsigned int* count, int* err = nullptr) const;
    const long long* get_i64s(unsigned int* count, int* err = nullptr) const;

    // The text and its NUL as an 8-bit array (the empty text stores one
    // element). Null s leaves the variant null.
    bool set_str(const char* s);
    bool attach_str(char* s);
    // The 8-bit array as text; null and -1 for anything else. Only what
    // set_str or attach_str stored is sure to end with a NUL.
    const char* get_str(int* err = nullptr) const;

    // Bytes of the persisted form: the 3-byte header and the payload (3 for
    // null; 4, 5, 7, 11 for single values; 3 + n * element size for arrays).
    unsigned int get_persist_size() const;

private:
    void set_single(unsigned char type, long long value);
    bool copy_array(unsigned char type, const void* p, unsigned int n);
    bool take_array(unsigned char type, void* p, unsigned int n, bool chars);
    long long get_single(unsigned char type, int* err) const;
    const void* get_array(unsigned char type, unsigned int* count, int* err) const;

    unsigned char m_type;
    unsigned short m_count;
    union {
        signed char i8;
        short i16;
        int i32;
        long long i64;
        signed char* i8s;
        short* i16s;
        int* i32s;
        long long* i64s;
        char* chars;
    } m_value;
    // The array came from attach_str (new char[]), to be freed as such.
    bool m_chars;
};

}  // namespace ssb

#endif
