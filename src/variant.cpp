#include "variant.h"

#include <string.h>

#include <new>

#include "trace.h"

namespace ssb {

namespace {

// Element sizes by type tag; 0 for null.
const unsigned int ELEMENT_SIZE[5] = {0, 1, 2, 4, 8};

const unsigned int MAX_COUNT = 0xFFFFu;

}  // namespace

variant_t::variant_t() : m_type(TYPE_NULL), m_count(0), m_chars(false) { m_value.i64 = 0; }

variant_t::variant_t(signed char value) : variant_t() { set_i8(value); }
variant_t::variant_t(short value) : variant_t() { set_i16(value); }
variant_t::variant_t(int value) : variant_t() { set_i32(value); }
variant_t::variant_t(long long value) : variant_t() { set_i64(value); }

variant_t::variant_t(const variant_t& other) : variant_t() { *this = other; }

variant_t& variant_t::operator=(const variant_t& other) {
    if (this == &other)
        return *this;
    if (!other.is_array()) {
        reset();
        m_type = other.m_type;
        m_value = other.m_value;
        return *this;
    }
    // Copy before freeing: other's array may be handed in from elsewhere.
    copy_array(other.m_type, other.m_value.i8s, other.m_count);
    return *this;
}

variant_t::~variant_t() { reset(); }

void variant_t::reset() {
    if (m_count) {
        if (m_chars) {
            delete[] m_value.chars;
        } else {
            switch (m_type) {
            case TYPE_I8:
                delete[] m_value.i8s;
                break;
            case TYPE_I16:
                delete[] m_value.i16s;
                break;
            case TYPE_I32:
                delete[] m_value.i32s;
                break;
            case TYPE_I64:
                delete[] m_value.i64s;
                break;
            default:
                break;
            }
        }
    }
    m_type = TYPE_NULL;
    m_count = 0;
    m_chars = false;
    m_value.i64 = 0;
}

void variant_t::set_single(unsigned char type, long long value) {
    reset();
    m_type = type;
    switch (type) {
    case TYPE_I8:
        m_value.i8 = static_cast<signed char>(value);
        break;
    case TYPE_I16:
        m_value.i16 = static_cast<short>(value);
        break;
    case TYPE_I32:
        m_value.i32 = static_cast<int>(value);
        break;
    default:
        m_value.i64 = value;
        break;
    }
}

void variant_t::set_i8(signed char value) { set_single(TYPE_I8, value); }
void variant_t::set_i16(short value) { set_single(TYPE_I16, value); }
void variant_t::set_i32(int value) { set_single(TYPE_I32, value); }
void variant_t::set_i64(long long value) { set_single(TYPE_I64, value); }

long long variant_t::get_single(unsigned char type, int* err) const {
    const bool ok = m_type == type && m_count == 0;
    if (err)
        *err = ok ? 0 : -1;
    if (!ok)
        return 0;
    switch (type) {
    case TYPE_I8:
        return m_value.i8;
    case TYPE_I16:
        return m_value.i16;
    case TYPE_I32:
        return m_value.i32;
    default:
        return m_value.i64;
    }
}

signed char variant_t::get_i8(int* err) const { return static_cast<signed char>(get_single(TYPE_I8, err)); }
short variant_t::get_i16(int* err) const { return static_cast<short>(get_single(TYPE_I16, err)); }
int variant_t::get_i32(int* err) const { return static_cast<int>(get_single(TYPE_I32, err)); }
long long variant_t::get_i64(int* err) const { return get_single(TYPE_I64, err); }

bool variant_t::copy_array(unsigned char type, const void* p, unsigned int n) {
    const unsigned int count = n & MAX_COUNT;
    if (!p || !count) {
        reset();
        return false;
    }
    void* copy = nullptr;
    switch (type) {
    case TYPE_I8:
        copy = new (std::nothrow) signed char[count];
        break;
    case TYPE_I16:
        copy = new (std::nothrow) short[count];
        break;
    case TYPE_I32:
        copy = new (std::nothrow) int[count];
        break;
    case TYPE_I64:
        copy = new (std::nothrow) long long[count];
        break;
    default:
        break;
    }
    if (!copy) {
        UTIL_LOG(LOG_ERROR, "variant_t::copy_array() out of memory, count = " << count << ", this = " << log_ptr(this));
        reset();
        return false;
    }
    memcpy(copy, p, static_cast<size_t>(count) * ELEMENT_SIZE[type]);
    reset();
    m_type = type;
    m_count = static_cast<unsigned short>(count);
    m_value.i8s = static_cast<signed char*>(copy);
    return true;
}

bool variant_t::take_array(unsigned char type, void* p, unsigned int n, bool chars) {
    reset();
    const unsigned int count = n & MAX_COUNT;
    if (!p || !count)
        return false;
    m_type = type;
    m_count = static_cast<unsigned short>(count);
    m_chars = chars;
    m_value.i8s = static_cast<signed char*>(p);
    return true;
}

bool variant_t::set_i8s(const signed char* p, unsigned int n) { return copy_array(TYPE_I8, p, n); }
bool variant_t::set_i16s(const short* p, unsigned int n) { return copy_array(TYPE_I16, p, n); }
bool variant_t::set_i32s(const int* p, unsigned int n) { return copy_array(TYPE_I32, p, n); }
bool variant_t::set_i64s(const long long* p, unsigned int n) { return copy_array(TYPE_I64, p, n); }

bool variant_t::attach_i8s(signed char* p, unsigned int n) { return take_array(TYPE_I8, p, n, false); }
bool variant_t::attach_i16s(short* p, unsigned int n) { return take_array(TYPE_I16, p, n, false); }
bool variant_t::attach_i32s(int* p, unsigned int n) { return take_array(TYPE_I32, p, n, false); }
bool variant_t::attach_i64s(long long* p, unsigned int n) { return take_array(TYPE_I64, p, n, false); }

const void* variant_t::get_array(unsigned char type, unsigned int* count, int* err) const {
    const bool ok = m_type == type && m_count > 0;
    if (count)
        *count = ok ? m_count : 0;
    if (err)
        *err = ok ? 0 : -1;
    return ok ? m_value.i8s : nullptr;
}

const signed char* variant_t::get_i8s(unsigned int* count, int* err) const {
    return static_cast<const signed char*>(get_array(TYPE_I8, count, err));
}
const short* variant_t::get_i16s(unsigned int* count, int* err) const {
    return static_cast<const short*>(get_array(TYPE_I16, count, err));
}
const int* variant_t::get_i32s(unsigned int* count, int* err) const {
    return static_cast<const int*>(get_array(TYPE_I32, count, err));
}
const long long* variant_t::get_i64s(unsigned int* count, int* err) const {
    return static_cast<const long long*>(get_array(TYPE_I64, count, err));
}

bool variant_t::set_str(const char* s) {
    if (!s) {
        reset();
        return false;
    }
    return copy_array(TYPE_I8, s, static_cast<unsigned int>(strlen(s) + 1));
}

bool variant_t::attach_str(char* s) {
    if (!s) {
        reset();
        return false;
    }
    return take_array(TYPE_I8, s, static_cast<unsigned int>(strlen(s) + 1), true);
}

const char* variant_t::get_str(int* err) const { return static_cast<const char*>(get_array(TYPE_I8, nullptr, err)); }

unsigned int variant_t::get_persist_size() const {
    const unsigned int elements = m_count ? m_count : (m_type == TYPE_NULL ? 0 : 1);
    return PERSIST_HEADER_SIZE + elements * ELEMENT_SIZE[m_type < 5 ? m_type : 0];
}

}  // namespace ssb
