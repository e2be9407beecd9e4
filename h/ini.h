// INI files in memory, and the configuration file of the running executable
// found through the SSB_HOME environment variable.
#ifndef SSB_INI_H
#define SSB_INI_H

#include <stddef.h>

#include <string>
#include <stdint.h>

#include <utility>
#include <vector>

#include "util_def.h"

namespace ssb {

// Names to positions in a vector held elsewhere, by open addressing: one
// 64-bit slot per entry (32 bits of the name's hash, the position plus 1),
// no strings and no nodes, so loading a large file stays cache-friendly.
struct UTIL_API ini_name_index_t {
    std::vector<uint64_t> slots;  // a power of two, at most half full; 0 is free
    size_t count = 0;
};

// One section ("key") of an INI file: its name, its name/value pairs and its
// comments, each in file order.
struct UTIL_API ini_key_t {
    std::string name;
    std::vector<std::pair<std::string, std::string> > values;
    std::vector<std::string> comments;
    // Position of each value name; kept only for sections with more than a
    // few values, where a scan would make loading quadratic.
    ini_name_index_t value_index;
};

// An INI file loaded into memory: ordered sections of ordered name/value
// pairs, with comments. Keys and values are addressed by name or by index (a
// position, which shifts when an earlier one is deleted); "not found" is -1
// for find_key / find_value, and false, 0, the empty text or the caller's
// default elsewhere. Nothing is logged.
//
// Reading (read_file, read_text), line by line, "\n" ending a line:
//   - one "\r" at the end of a line is dropped; empty lines are skipped;
//   - a line whose first byte is not printable ASCII (0x20..0x7E; so also a
//     UTF-8 byte-order mark or a leading TAB) prints
//     "Failing on int8_t <code>" on standard output and fails the read,
//     keeping what was read before it;
//   - the first of ";#[=" decides the line: ";" or "#" starts a comment (of
//     the current section, or a header comment while there is none); "="
//     a pair, the name and the value trimmed of " \t\r\n" and the value cut
//     at its first ";" or "#"; "[" a section named by the text up to the
//     last "]" (untrimmed; no "]" after the "[" ignores the line). A line
//     with none of them is ignored. So "name;x=1" is a comment and "[a=b]"
//     opens the section "a=b";
//   - pairs before any section go to the section with the empty name;
//   - a section or pair seen again is merged: the later value wins.
// Reading adds to what is loaded; call clear() first for a fresh load.
//
// Writing (flush_file, to_text): header comments as ";text", then an empty
// line if there were any; per section "[name]", its comments as ";text",
// its pairs as "name=value", then an empty line. Lines end in "\n".
// Round trip: a file written by flush_file reads back to the same sections
// and pairs in the same order. Comments come back after ";" whatever
// character they had, inline comments and ignored lines are dropped, and a
// pair whose name begins with a non-printable byte (possible only when the
// line indented it) makes the written file fail to read.
//
// Names: convert_case is applied to section and value names before they are
// stored or compared. Case-sensitive (the default) keeps them as they are;
// case_insensitive() makes it map ASCII A-Z to a-z. Values keep their case.
//
// Not thread-safe: one thread at a time uses an ini_t. Copies are
// independent.
class UTIL_API ini_t {
public:
    ini_t();
    explicit ini_t(const std::string& path);
    ini_t(const ini_t& other);
    ini_t& operator=(const ini_t& other);
    virtual ~ini_t();

    void set_path(const std::string& path) { m_path = path; }
    const std::string& get_path() const { return m_path; }

    void case_sensitive() { m_case_insensitive = false; }
    void case_insensitive() { m_case_insensitive = true; }
    std::string convert_case(const std::string& name) const;

    // False when the path cannot be opened or read (a folder, missing,
    // unreadable) or a line fails as described above.
    bool read_file();
    // Reads text held in memory by the same rules.
    bool read_text(const char* data, size_t size);
    // Replaces the file in one step (a temporary file renamed over it): on
    // failure, e.g. a read-only file or a missing folder, it returns false
    // and the old file is left as it was. The temporary file sits next to
    // the target, so its folder must be writable.
    bool flush_file();
    // The text flush_file writes.
    std::string to_text() const;
    // Forgets sections and comments; keeps the path and the case rule.
    void clear();

    // ---- sections ----
    unsigned num_keys() const { return static_cast<unsigned>(m_keys.size()); }
    int find_key(const std::string& name) const;
    // The index of the section, added at the end when it is new.
    unsigned add_key(const std::string& name);
    std::string key_name(unsigned key) const;
    std::string get_key_name(unsigned key) const { return key_name(key); }
    bool delete_key(const std::string& name);

    // ---- pairs ----
    unsigned name_values(unsigned key) const;
    unsigned name_values(const std::string& key) const;
    unsigned get_value_num(unsigned key) const { return name_values(key); }
    unsigned get_value_num(const std::string& key) const { return name_values(key); }
    std::string value_name(unsigned key, unsigned value) const;
    std::string value_name(const std::string& key, unsigned value) const;
    std::string get_value_name(unsigned key, unsigned value) const { return value_name(key, value); }
    std::string get_value_name(const std::string& key, unsigned value) const { return value_name(key, value); }
    // The value at a position; empty when out of range.
    std::string get_value(unsigned key, unsigned value) const;
    int find_value(unsigned key, const std::string& name) const;
    // Sets a value. With `create` a missing pair (and, by name, a missing
    // section) is added; without it a missing one fails and nothing is added.
    bool set_value(unsigned key, const std::string& name, const std::string& value, bool create = true);
    bool set_value(const std::string& key, const std::string& name, const std::string& value, bool create = true);
    bool delete_value(const std::string& key, const std::string& name);

    // ---- typed access; a missing pair reads as the default ----
    std::string read_string(const std::string& key, const std::string& name, const std::string& def) const;
    // atoi's reading (leading blanks, sign, digits up to the first other
    // character, 0 when there are none); out-of-range numbers clamp.
    int read_int32(const std::string& key, const std::string& name, int def) const;
    // atof's reading.
    double read_float(const std::string& key, const std::string& name, double def) const;
    // read_int32 with the default as 0 or 1, true when non-zero: "true" reads
    // as false.
    bool read_bool(const std::string& key, const std::string& name, bool def) const;
    // sscanf of the value with a scanf format; the number of fields
    // assigned, 0 when the pair is missing or nothing matched.
    int read_value_vargs(const std::string& key, const std::string& name, const char* format, ...) const;

    bool write_int32(const std::string& key, const std::string& name, int value, bool create = true);
    // Fixed point with 2 decimals ("2.50"). Values lftoa refuses (NaN,
    // infinities, magnitudes of 2^63 and up) write nothing and give false.
    bool write_float(const std::string& key, const std::string& name, double value, bool create = true);
    // "1" or "0", which read_bool reads back.
    bool write_bool(const std::string& key, const std::string& name, bool value, bool create = true);
    // A printf format and its arguments; any length.
    bool write_value_vargs(const std::string& key, const std::string& name, bool create, const char* format, ...);

    // ---- comments, without their ";" ----
    void header_comment(const std::string& text);
    std::string header_comment(unsigned index) const;
    // The readers exist in both forms so that a call on a non-const ini_t
    // is not ambiguous with the adders above.
    std::string header_comment(unsigned index) { return static_cast<const ini_t&>(*this).header_comment(index); }
    unsigned num_header_comments() const { return static_cast<unsigned>(m_header_comments.size()); }
    bool delete_header_comment(unsigned index);
    void delete_header_comments() { m_header_comments.clear(); }

    bool key_comment(unsigned key, const std::string& text);
    bool key_comment(const std::string& key, const std::string& text);
    std::string key_comment(unsigned key, unsigned index) const;
    std::string key_comment(const std::string& key, unsigned index) const;
    std::string key_comment(unsigned key, unsigned index) {
        return static_cast<const ini_t&>(*this).key_comment(key, index);
    }
    std::string key_comment(const std::string& key, unsigned index) {
        return static_cast<const ini_t&>(*this).key_comment(key, index);
    }
    unsigned num_key_comments(unsigned key) const;
    unsigned num_key_comments(const std::string& key) const;
    bool delete_key_comment(unsigned key, unsigned index);
    bool delete_key_comment(const std::string& key, unsigned index);
    bool delete_key_comments(unsigned key);
    bool delete_key_comments(const std::string& key);

private:
    // One line without its "\n"; `current` is the section lines go to, -1
    // before the first "[" line or pair. False when the line fails the read.
    bool read_line(const char* line, const char* end, long& current);
    const std::string& folded(const std::string& name, std::string& scratch) const;
    int find_folded_key(const std::string& name) const;
    unsigned add_folded_key(const std::string& name);
    bool set_folded(unsigned key, const std::string& name, const std::string& value, bool create);
    void rebuild_key_index();
    const ini_key_t* key_at(unsigned key) const { return key < m_keys.size() ? &m_keys[key] : nullptr; }
    const ini_key_t* key_named(const std::string& name) const;

    std::string m_path;
    bool m_case_insensitive;
    std::vector<ini_key_t> m_keys;
    std::vector<std::string> m_header_comments;
    ini_name_index_t m_key_index;
};

// ---- the configuration path ----
// Windows separators throughout: on POSIX, ini_t reads a "\" in its path as
// "/", so these paths work there too.

// The variable's value with a "\" appended unless it ends in one; empty for
// a null name or an unset or empty variable.
UTIL_API std::string get_home_path(const char* env_name);
// get_home_path("SSB_HOME").
UTIL_API std::string get_ssb_home_path();
// The text after the last "\" or "/" (the whole path without one; empty for
// null).
UTIL_API std::string get_exe_name(const char* path);
// The text after the last occurrence of `separator`; empty when it does
// not occur or either is null or empty.
UTIL_API std::string get_surfix_string(const char* text, const char* separator);
// get_surfix_string(name, "-"): worker-2.exe gives 2.exe.
UTIL_API std::string get_exe_surfix(const char* name);
// The surfix read by strtol in base 10 (worker-2.exe gives 2); 0 without one.
UTIL_API int get_exe_number(const char* name);
// SSB_HOME\conf\ssb-<surfix>.cfg for an executable named with a "-" surfix
// (the extension is kept: worker-2.exe gives ssb-2.exe.cfg), otherwise
// SSB_HOME\conf\ssb.cfg; empty when SSB_HOME is not set.
UTIL_API std::string get_conf_path(const char* exe_path);

}  // namespace ssb

#endif
