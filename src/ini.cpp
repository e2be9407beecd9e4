#include "ini.h"

#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/platform.h"
#include "stream.h"

namespace ssb {

namespace {

// Sections with more values than this get a name index; below it a scan of
// a few names (length first, then bytes) is cheaper than hashing.
const size_t SCAN_LIMIT = 8;

bool is_trimmed(char c) { return c == '\r' || c == '\n' || c == ' ' || c == '\t'; }

void trim_range(const char*& begin, const char*& end) {
    while (begin < end && is_trimmed(*begin))
        ++begin;
    while (end > begin && is_trimmed(end[-1]))
        --end;
}

// Printable in the C locale, whatever locale the host set.
bool is_printable(unsigned char c) { return c >= 0x20 && c < 0x7f; }

void fold_ascii(std::string& s) {
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] >= 'A' && s[i] <= 'Z')
            s[i] = static_cast<char>(s[i] - 'A' + 'a');
    }
}

uint32_t name_hash(const std::string& name) {
    const uint64_t h = std::hash<std::string>()(name);
    return static_cast<uint32_t>(h ^ (h >> 32));
}

void index_clear(ini_name_index_t& index) {
    index.slots.clear();
    index.count = 0;
}

void index_put(ini_name_index_t& index, uint32_t hash, unsigned position);

void index_grow(ini_name_index_t& index) {
    std::vector<uint64_t> old;
    old.swap(index.slots);
    index.slots.assign(old.empty() ? 16 : old.size() * 2, 0);
    index.count = 0;
    for (uint64_t slot : old) {
        if (slot)
            index_put(index, static_cast<uint32_t>(slot >> 32), static_cast<unsigned>(slot & 0xFFFFFFFFu) - 1);
    }
}

void index_put(ini_name_index_t& index, uint32_t hash, unsigned position) {
    if ((index.count + 1) * 2 > index.slots.size())
        index_grow(index);
    const size_t mask = index.slots.size() - 1;
    size_t i = hash & mask;
    while (index.slots[i])
        i = (i + 1) & mask;
    index.slots[i] = (static_cast<uint64_t>(hash) << 32) | (static_cast<uint64_t>(position) + 1);
    ++index.count;
}

// The position of `name`, or -1; name_at(position) gives the stored names.
template <class name_at_t>
int index_find(const ini_name_index_t& index, const std::string& name, name_at_t name_at) {
    if (index.slots.empty())
        return -1;
    const uint32_t hash = name_hash(name);
    const size_t mask = index.slots.size() - 1;
    for (size_t i = hash & mask; index.slots[i]; i = (i + 1) & mask) {
        const uint64_t slot = index.slots[i];
        if (static_cast<uint32_t>(slot >> 32) == hash) {
            const unsigned position = static_cast<unsigned>(slot & 0xFFFFFFFFu) - 1;
            if (name_at(position) == name)
                return static_cast<int>(position);
        }
    }
    return -1;
}

void rebuild_value_index(ini_key_t& key) {
    index_clear(key.value_index);
    if (key.values.size() <= SCAN_LIMIT)
        return;
    for (size_t i = 0; i < key.values.size(); ++i)
        index_put(key.value_index, name_hash(key.values[i].first), static_cast<unsigned>(i));
}

int find_in_key(const ini_key_t& key, const std::string& name) {
    if (key.values.size() > SCAN_LIMIT)
        return index_find(key.value_index, name,
                          [&key](unsigned position) -> const std::string& { return key.values[position].first; });
    for (size_t i = 0; i < key.values.size(); ++i) {
        if (key.values[i].first == name)
            return static_cast<int>(i);
    }
    return -1;
}

void append_to_key(ini_key_t& key, std::string name, std::string value) {
    key.values.emplace_back(std::move(name), std::move(value));
    if (key.values.size() == SCAN_LIMIT + 1)
        rebuild_value_index(key);
    else if (key.values.size() > SCAN_LIMIT + 1)
        index_put(key.value_index, name_hash(key.values.back().first), static_cast<unsigned>(key.values.size() - 1));
}

}  // namespace

ini_t::ini_t() : m_case_insensitive(false) {}

ini_t::ini_t(const std::string& path) : m_path(path), m_case_insensitive(false) {}

ini_t::ini_t(const ini_t& other) = default;

ini_t& ini_t::operator=(const ini_t& other) = default;

ini_t::~ini_t() {}

std::string ini_t::convert_case(const std::string& name) const {
    std::string s(name);
    if (m_case_insensitive)
        fold_ascii(s);
    return s;
}

const std::string& ini_t::folded(const std::string& name, std::string& scratch) const {
    if (!m_case_insensitive)
        return name;
    scratch = name;
    fold_ascii(scratch);
    return scratch;
}

// ---- reading and writing ------------------------------------------------------

bool ini_t::read_line(const char* line, const char* end, long& current) {
    if (end > line && end[-1] == '\r')
        --end;
    if (end == line)
        return true;
    unsigned char first = static_cast<unsigned char>(*line);
    if (!is_printable(first)) {
        printf("Failing on int8_t %d\n", static_cast<int>(static_cast<int8_t>(first)));
        return false;
    }
    const char* mark = line;
    while (mark < end && *mark != ';' && *mark != '#' && *mark != '[' && *mark != '=')
        ++mark;
    if (mark == end)
        return true;
    if (*mark == ';' || *mark == '#') {
        std::string text(mark + 1, end);
        if (current >= 0 && static_cast<size_t>(current) < m_keys.size())
            m_keys[static_cast<size_t>(current)].comments.push_back(std::move(text));
        else
            m_header_comments.push_back(std::move(text));
    } else if (*mark == '=') {
        const char* name_begin = line;
        const char* name_end = mark;
        trim_range(name_begin, name_end);
        const char* value_begin = mark + 1;
        const char* value_end = value_begin;
        while (value_end < end && *value_end != ';' && *value_end != '#')
            ++value_end;
        trim_range(value_begin, value_end);
        if (current < 0)
            current = static_cast<long>(add_folded_key(std::string()));
        std::string name(name_begin, name_end);
        if (m_case_insensitive)
            fold_ascii(name);
        ini_key_t& k = m_keys[static_cast<size_t>(current)];
        int found = find_in_key(k, name);
        if (found >= 0)
            k.values[static_cast<size_t>(found)].second.assign(value_begin, value_end);
        else
            append_to_key(k, std::move(name), std::string(value_begin, value_end));
    } else {
        const char* close = end;
        while (close > mark + 1 && close[-1] != ']')
            --close;
        if (close > mark + 1)
            current = static_cast<long>(add_key(std::string(mark + 1, close - 1)));
    }
    return true;
}

bool ini_t::read_file() {
    FILE* f = plat::open_read_file(m_path.c_str());
    if (!f)
        return false;
    // Parsed chunk by chunk, so a large file never sits in memory twice and
    // the text being parsed stays in cache. `partial` holds a line cut by
    // the chunk's end.
    long current = -1;
    std::string partial;
    char chunk[65536];
    bool ok = true;
    for (;;) {
        const size_t n = fread(chunk, 1, sizeof(chunk), f);
        const char* line = chunk;
        const char* end_of_chunk = chunk + n;
        while (ok && line < end_of_chunk) {
            const char* nl = static_cast<const char*>(memchr(line, '\n', static_cast<size_t>(end_of_chunk - line)));
            if (!nl) {
                partial.append(line, end_of_chunk);
                break;
            }
            if (partial.empty()) {
                ok = read_line(line, nl, current);
            } else {
                partial.append(line, nl);
                ok = read_line(partial.data(), partial.data() + partial.size(), current);
                partial.clear();
            }
            line = nl + 1;
        }
        if (!ok || n < sizeof(chunk)) {
            ok = ok && ferror(f) == 0;
            break;
        }
    }
    fclose(f);
    if (ok && !partial.empty())
        ok = read_line(partial.data(), partial.data() + partial.size(), current);
    return ok;
}

bool ini_t::read_text(const char* data, size_t size) {
    if (!data)
        return size == 0;
    // The section that "[" lines and pairs go to; -1 until the first of
    // them, so a comment before it is a header comment.
    long current = -1;
    const char* end_of_text = data + size;
    const char* line = data;
    while (line < end_of_text) {
        const char* nl = static_cast<const char*>(memchr(line, '\n', static_cast<size_t>(end_of_text - line)));
        const char* end = nl ? nl : end_of_text;
        if (!read_line(line, end, current))
            return false;
        line = nl ? nl + 1 : end_of_text;
    }
    return true;
}

std::string ini_t::to_text() const {
    size_t size = 2;
    for (const std::string& c : m_header_comments)
        size += c.size() + 2;
    for (const ini_key_t& k : m_keys) {
        size += k.name.size() + 4;
        for (const std::string& c : k.comments)
            size += c.size() + 2;
        for (const std::pair<std::string, std::string>& v : k.values)
            size += v.first.size() + v.second.size() + 2;
    }
    std::string out;
    out.reserve(size);
    for (const std::string& c : m_header_comments) {
        out += ';';
        out += c;
        out += '\n';
    }
    if (!m_header_comments.empty())
        out += '\n';
    for (const ini_key_t& k : m_keys) {
        out += '[';
        out += k.name;
        out += "]\n";
        for (const std::string& c : k.comments) {
            out += ';';
            out += c;
            out += '\n';
        }
        for (const std::pair<std::string, std::string>& v : k.values) {
            out += v.first;
            out += '=';
            out += v.second;
            out += '\n';
        }
        out += '\n';
    }
    return out;
}

bool ini_t::flush_file() {
    if (m_path.empty())
        return false;
    std::string text = to_text();
    return plat::replace_file(m_path.c_str(), text.data(), text.size()) == 0;
}

void ini_t::clear() {
    m_keys.clear();
    m_header_comments.clear();
    index_clear(m_key_index);
}

// ---- sections -----------------------------------------------------------------

int ini_t::find_folded_key(const std::string& name) const {
    return index_find(m_key_index, name,
                      [this](unsigned position) -> const std::string& { return m_keys[position].name; });
}

int ini_t::find_key(const std::string& name) const {
    std::string scratch;
    return find_folded_key(folded(name, scratch));
}

unsigned ini_t::add_folded_key(const std::string& name) {
    int found = find_folded_key(name);
    if (found >= 0)
        return static_cast<unsigned>(found);
    unsigned index = static_cast<unsigned>(m_keys.size());
    m_keys.push_back(ini_key_t());
    m_keys.back().name = name;
    index_put(m_key_index, name_hash(name), index);
    return index;
}

unsigned ini_t::add_key(const std::string& name) {
    std::string scratch;
    return add_folded_key(folded(name, scratch));
}

std::string ini_t::key_name(unsigned key) const {
    const ini_key_t* k = key_at(key);
    return k ? k->name : std::string();
}

void ini_t::rebuild_key_index() {
    index_clear(m_key_index);
    for (size_t i = 0; i < m_keys.size(); ++i)
        index_put(m_key_index, name_hash(m_keys[i].name), static_cast<unsigned>(i));
}

bool ini_t::delete_key(const std::string& name) {
    int key = find_key(name);
    if (key < 0)
        return false;
    m_keys.erase(m_keys.begin() + key);
    rebuild_key_index();
    return true;
}

const ini_key_t* ini_t::key_named(const std::string& name) const {
    int key = find_key(name);
    return key < 0 ? nullptr : &m_keys[static_cast<size_t>(key)];
}

// ---- pairs ----------------------------------------------------------------------

unsigned ini_t::name_values(unsigned key) const {
    const ini_key_t* k = key_at(key);
    return k ? static_cast<unsigned>(k->values.size()) : 0;
}

unsigned ini_t::name_values(const std::string& key) const {
    const ini_key_t* k = key_named(key);
    return k ? static_cast<unsigned>(k->values.size()) : 0;
}

std::string ini_t::value_name(unsigned key, unsigned value) const {
    const ini_key_t* k = key_at(key);
    return k && value < k->values.size() ? k->values[value].first : std::string();
}

std::string ini_t::value_name(const std::string& key, unsigned value) const {
    const ini_key_t* k = key_named(key);
    return k && value < k->values.size() ? k->values[value].first : std::string();
}

std::string ini_t::get_value(unsigned key, unsigned value) const {
    const ini_key_t* k = key_at(key);
    return k && value < k->values.size() ? k->values[value].second : std::string();
}

int ini_t::find_value(unsigned key, const std::string& name) const {
    const ini_key_t* k = key_at(key);
    if (!k)
        return -1;
    std::string scratch;
    return find_in_key(*k, folded(name, scratch));
}

bool ini_t::set_folded(unsigned key, const std::string& name, const std::string& value, bool create) {
    ini_key_t& k = m_keys[key];
    int found = find_in_key(k, name);
    if (found >= 0) {
        k.values[static_cast<size_t>(found)].second = value;
        return true;
    }
    if (!create)
        return false;
    append_to_key(k, name, value);
    return true;
}

bool ini_t::set_value(unsigned key, const std::string& name, const std::string& value, bool create) {
    if (key >= m_keys.size())
        return false;
    std::string scratch;
    return set_folded(key, folded(name, scratch), value, create);
}

bool ini_t::set_value(const std::string& key, const std::string& name, const std::string& value, bool create) {
    std::string scratch;
    const std::string& key_folded = folded(key, scratch);
    int index = find_folded_key(key_folded);
    if (index < 0) {
        if (!create)
            return false;
        index = static_cast<int>(add_folded_key(key_folded));
    }
    std::string name_scratch;
    return set_folded(static_cast<unsigned>(index), folded(name, name_scratch), value, create);
}

bool ini_t::delete_value(const std::string& key, const std::string& name) {
    int index = find_key(key);
    if (index < 0)
        return false;
    ini_key_t& k = m_keys[static_cast<size_t>(index)];
    std::string scratch;
    int value = find_in_key(k, folded(name, scratch));
    if (value < 0)
        return false;
    k.values.erase(k.values.begin() + value);
    rebuild_value_index(k);
    return true;
}

// ---- typed access ---------------------------------------------------------------

std::string ini_t::read_string(const std::string& key, const std::string& name, const std::string& def) const {
    const ini_key_t* k = key_named(key);
    if (!k)
        return def;
    std::string scratch;
    int value = find_in_key(*k, folded(name, scratch));
    return value < 0 ? def : k->values[static_cast<size_t>(value)].second;
}

int ini_t::read_int32(const std::string& key, const std::string& name, int def) const {
    const ini_key_t* k = key_named(key);
    if (!k)
        return def;
    std::string scratch;
    int value = find_in_key(*k, folded(name, scratch));
    if (value < 0)
        return def;
    long long n = strtoll(k->values[static_cast<size_t>(value)].second.c_str(), nullptr, 10);
    if (n > INT_MAX)
        return INT_MAX;
    if (n < INT_MIN)
        return INT_MIN;
    return static_cast<int>(n);
}

double ini_t::read_float(const std::string& key, const std::string& name, double def) const {
    const ini_key_t* k = key_named(key);
    if (!k)
        return def;
    std::string scratch;
    int value = find_in_key(*k, folded(name, scratch));
    return value < 0 ? def : strtod(k->values[static_cast<size_t>(value)].second.c_str(), nullptr);
}

bool ini_t::read_bool(const std::string& key, const std::string& name, bool def) const {
    return read_int32(key, name, def ? 1 : 0) != 0;
}

int ini_t::read_value_vargs(const std::string& key, const std::string& name, const char* format, ...) const {
    if (!format)
        return 0;
    const ini_key_t* k = key_named(key);
    if (!k)
        return 0;
    std::string scratch;
    int value = find_in_key(*k, folded(name, scratch));
    if (value < 0)
        return 0;
    va_list args;
    va_start(args, format);
    int n = vsscanf(k->values[static_cast<size_t>(value)].second.c_str(), format, args);
    va_end(args);
    return n < 0 ? 0 : n;
}

bool ini_t::write_int32(const std::string& key, const std::string& name, int value, bool create) {
    signed char text[12];
    i32toa_dec(value, text, nullptr);
    return set_value(key, name, reinterpret_cast<const char*>(text), create);
}

bool ini_t::write_float(const std::string& key, const std::string& name, double value, bool create) {
    signed char text[31];
    unsigned int len = 0;
    lftoa(value, text, 2, &len);
    if (len <= 1)
        return false;
    return set_value(key, name, reinterpret_cast<const char*>(text), create);
}

bool ini_t::write_bool(const std::string& key, const std::string& name, bool value, bool create) {
    return set_value(key, name, value ? "1" : "0", create);
}

bool ini_t::write_value_vargs(const std::string& key, const std::string& name, bool create, const char* format, ...) {
    if (!format)
        return false;
    char small[256];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int n = vsnprintf(small, sizeof(small), format, args);
    va_end(args);
    std::string text;
    if (n >= 0 && static_cast<size_t>(n) < sizeof(small)) {
        text.assign(small, static_cast<size_t>(n));
    } else if (n >= 0) {
        text.resize(static_cast<size_t>(n) + 1);
        vsnprintf(&text[0], text.size(), format, again);
        text.resize(static_cast<size_t>(n));
    }
    va_end(again);
    if (n < 0)
        return false;
    return set_value(key, name, text, create);
}

// ---- comments ---------------------------------------------------------------------

void ini_t::header_comment(const std::string& text) { m_header_comments.push_back(text); }

std::string ini_t::header_comment(unsigned index) const {
    return index < m_header_comments.size() ? m_header_comments[index] : std::string();
}

bool ini_t::delete_header_comment(unsigned index) {
    if (index >= m_header_comments.size())
        return false;
    m_header_comments.erase(m_header_comments.begin() + index);
    return true;
}

bool ini_t::key_comment(unsigned key, const std::string& text) {
    if (key >= m_keys.size())
        return false;
    m_keys[key].comments.push_back(text);
    return true;
}

bool ini_t::key_comment(const std::string& key, const std::string& text) {
    int index = find_key(key);
    return index >= 0 && key_comment(static_cast<unsigned>(index), text);
}

std::string ini_t::key_comment(unsigned key, unsigned index) const {
    const ini_key_t* k = key_at(key);
    return k && index < k->comments.size() ? k->comments[index] : std::string();
}

std::string ini_t::key_comment(const std::string& key, unsigned index) const {
    const ini_key_t* k = key_named(key);
    return k && index < k->comments.size() ? k->comments[index] : std::string();
}

unsigned ini_t::num_key_comments(unsigned key) const {
    const ini_key_t* k = key_at(key);
    return k ? static_cast<unsigned>(k->comments.size()) : 0;
}

unsigned ini_t::num_key_comments(const std::string& key) const {
    const ini_key_t* k = key_named(key);
    return k ? static_cast<unsigned>(k->comments.size()) : 0;
}

bool ini_t::delete_key_comment(unsigned key, unsigned index) {
    if (key >= m_keys.size() || index >= m_keys[key].comments.size())
        return false;
    m_keys[key].comments.erase(m_keys[key].comments.begin() + index);
    return true;
}

bool ini_t::delete_key_comment(const std::string& key, unsigned index) {
    int k = find_key(key);
    return k >= 0 && delete_key_comment(static_cast<unsigned>(k), index);
}

bool ini_t::delete_key_comments(unsigned key) {
    if (key >= m_keys.size())
        return false;
    m_keys[key].comments.clear();
    return true;
}

bool ini_t::delete_key_comments(const std::string& key) {
    int k = find_key(key);
    return k >= 0 && delete_key_comments(static_cast<unsigned>(k));
}

// ---- the configuration path ---------------------------------------------------------

std::string get_home_path(const char* env_name) {
    if (!env_name)
        return std::string();
    const char* value = getenv(env_name);
    if (!value || !*value)
        return std::string();
    std::string home(value);
    if (home[home.size() - 1] != '\\')
        home += '\\';
    return home;
}

std::string get_ssb_home_path() { return get_home_path("SSB_HOME"); }

std::string get_exe_name(const char* path) {
    if (!path)
        return std::string();
    std::string p(path);
    size_t slash = p.find_last_of("\\/");
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string get_surfix_string(const char* text, const char* separator) {
    if (!text || !separator || !*separator)
        return std::string();
    std::string t(text);
    size_t at = t.rfind(separator);
    return at == std::string::npos ? std::string() : t.substr(at + strlen(separator));
}

std::string get_exe_surfix(const char* name) { return get_surfix_string(name, "-"); }

int get_exe_number(const char* name) {
    std::string surfix = get_exe_surfix(name);
    if (surfix.empty())
        return 0;
    long long n = strtoll(surfix.c_str(), nullptr, 10);
    if (n > INT_MAX)
        return INT_MAX;
    if (n < INT_MIN)
        return INT_MIN;
    return static_cast<int>(n);
}

std::string get_conf_path(const char* exe_path) {
    std::string home = get_ssb_home_path();
    if (home.empty())
        return home;
    std::string surfix = get_exe_surfix(get_exe_name(exe_path).c_str());
    return home + "conf\\" + (surfix.empty() ? std::string("ssb.cfg") : "ssb-" + surfix + ".cfg");
}

}  // namespace ssb
