// The logger registry, the rotating log file and the log statement.
//
// A module is a numbered client of the log (the library's own is module 1,
// "UTIL"); each of its 32 levels routes lines to a handle logger supplied by
// the host and to the rotating file. Any thread may log: the level filter
// reads without a lock, and lines are written under the registry's recursive
// lock, so they never interleave and a logger may itself log.
#ifndef SSB_LOG_H
#define SSB_LOG_H

#include <stdio.h>

#include <atomic>
#include <string>
#include <vector>

#include "date.h"
#include "lock.h"
#include "singleton.h"
#include "stream.h"

namespace ssb {

const unsigned int LOG_MAX_MODULES = 256;
const unsigned int LOG_MAX_LEVELS = 32;
// Level-entry flags: bit 0 sends to the file logger, bit 1 to the handle logger.
const unsigned char LOG_TO_FILE = 1;
const unsigned char LOG_TO_HANDLE = 2;
// A log line is built in a stack buffer of this size (2048 characters).
const unsigned int LOG_LINE_BUFFER = 2049;

// Receives finished lines. cout runs under the registry's lock.
class UTIL_API log_it {
public:
    virtual int cout(unsigned int module_id, unsigned int level, signed char* text, unsigned int length) = 0;
    virtual ~log_it() {}
};

// The process-wide registry of modules, levels and loggers.
class UTIL_API log_control_t : public safe_class<log_control_t, thread_mutex_recursive>,
                               public safe_obj<log_control_t, thread_mutex_recursive> {
public:
    // Created on first use; null only if that fails.
    static log_control_t* instance() {
        log_control_t* p = m_s_instance.get();
        return p ? p : create_instance();
    }
    // Empties the registry rather than freeing it: any thread may be inside
    // a log statement with a pointer to it while the library tears down.
    static void destroy();

    int register_module(unsigned int module_id, const char* name, unsigned int max_level, log_it* logger,
                        unsigned char flags);
    int unregister_module(unsigned int module_id);
    int register_logger(unsigned int module_id, unsigned int level, log_it* logger);
    // Applies `logger` to every level of every module record.
    void reset_logger(log_it* logger, unsigned char flags);
    int change_mask(unsigned int module_id, unsigned char flags);
    static log_it* get_default_logger();
    static void set_default_logger(log_it* logger);
    static unsigned char get_default_mask();
    static void set_default_mask(unsigned char flags);
    bool is_disabled() const { return m_disabled.load(std::memory_order_relaxed); }
    int register_level(unsigned int level, const char* name);
    const signed char* level_info(unsigned int level) const;
    // 255 switches logging off; any other value is the global level limit.
    void enable(unsigned char value);
    // Attaches the default loggers to every level; 10 when already done.
    int open();

    // The cheap filter every statement asks first; yields the names. Inline,
    // so a line filtered out costs a few loads and no call.
    bool trace_enable(unsigned int module_id, signed char*& module_name, unsigned int level, signed char*& level_name) {
        if (m_disabled.load(std::memory_order_relaxed) || level > m_max_level.load(std::memory_order_relaxed) ||
            level >= LOG_MAX_LEVELS || module_id >= LOG_MAX_MODULES || module_id >= m_modules.size())
            return false;
        const module_record_t& r = m_modules[module_id];
        if (r.m_id.load(std::memory_order_acquire) != module_id ||
            level > r.m_max_level.load(std::memory_order_relaxed))
            return false;
        return names_for(r, level, module_name, level_name);
    }
    int trace_out(unsigned int module_id, unsigned int level, signed char* text, unsigned int length, log_it* logger);

private:
    struct level_entry_t {
        unsigned char m_flags;
        log_it* m_handle_logger;
        log_it* m_file_logger;
    };
    struct module_record_t {
        std::atomic<unsigned int> m_id;
        std::atomic<const char*> m_name;
        std::atomic<unsigned int> m_max_level;
        std::vector<level_entry_t> m_levels;
    };
    struct level_slot_t {
        unsigned int m_level;
        std::atomic<const char*> m_name;
    };

    log_control_t();
    ~log_control_t();
    // The part of trace_enable after the filter: opens once, yields names.
    bool names_for(const module_record_t& record, unsigned int level, signed char*& module_name,
                   signed char*& level_name);
    static log_control_t* create_instance();
    // Back to the state of a new registry; names stay allocated.
    void clear();
    // Names are kept for the registry's life so lock-free readers never see
    // one freed under them.
    const char* keep_name(const char* name);
    void apply_logger(module_record_t& record, unsigned int max_level, log_it* logger, unsigned char flags);

    level_slot_t m_levels[LOG_MAX_LEVELS];
    std::vector<module_record_t> m_modules;
    std::atomic<bool> m_disabled;
    std::atomic<unsigned char> m_max_level;
    std::atomic<bool> m_opened;
    std::vector<std::string*> m_names;

    static lazy_singleton_t<log_control_t> m_s_instance;
    static std::atomic<log_it*> m_s_default_logger;
    static std::atomic<unsigned char> m_s_mask;
};

const unsigned int MIN_LOG_SIZE = 0x100000;
const unsigned int MAX_LOG_SIZE = 0x40000000;
const unsigned int MIN_LOG_IDX = 9;
const unsigned int MAX_LOG_IDX = 99;
const unsigned int DEFAULT_LOG_SIZE = 0x2800000;
// The extension the library passes for its files.
extern UTIL_API const signed char DEFAULT_EXTENSION[];

// Writes lines to stem_YYYYMMDD_NN.ext and moves to the next file when one
// grows past max_size or the day of the month changes. cout is serialised
// by the registry's lock.
//
// Without a directory the files go to OrcaDecks/logs in the per-user
// application-data folder, or in the temporary folder when there is none
// (no HOME nor XDG_DATA_HOME). A file removed while open, or its folder, is
// made again at the next line. A line cut short by a full disk stays cut,
// and the next line starts on a line of its own.
class UTIL_API logger_file_base_t : public log_it, public no_copy {
public:
    logger_file_base_t(const signed char* directory, const signed char* name, const signed char* extension,
                       unsigned int max_size, unsigned int max_index);
    ~logger_file_base_t() override;

    // 999 when no file can be opened (retried on the next line), else 0.
    int cout(unsigned int module_id, unsigned int level, signed char* text, unsigned int length) override;
    // 8 with an assertion line when a limit is out of range; 0 otherwise.
    int configure(unsigned int max_size, unsigned int max_index);

    const std::string& directory() const { return m_directory; }
    // The full path of the file being written.
    std::string current_path() const;
    unsigned int max_size() const { return m_max_size; }
    unsigned int max_index() const { return m_max_index; }
    unsigned int index() const { return m_index; }

protected:
    // For a derived class that decides the date itself: `start` names the
    // first file.
    logger_file_base_t(const signed char* directory, const signed char* name, const signed char* extension,
                       unsigned int max_size, unsigned int max_index, const local_date_t& start);
    // The date that decides the file name and the day rotation. Tests
    // override it to cross midnight.
    virtual local_date_t today() const;

private:
    void open();
    void close();
    std::string combine_name() const;
    static std::string make_name(const signed char* directory, const signed char* name, std::string& default_directory);

    std::string m_name;
    std::string m_extension;
    std::string m_directory;
    unsigned int m_max_size;
    unsigned int m_size;
    unsigned int m_index;
    unsigned int m_max_index;
    FILE* m_file;
    local_date_t m_date;
    // The last line was cut short (disk full): the next starts on a new line.
    bool m_torn;
};

// The shared rotating file that the registry attaches to file-flagged levels.
class UTIL_API logger_file : public logger_file_base_t, public safe_class<logger_file, thread_mutex_recursive> {
public:
    // The first call creates it with these arguments; later ones are ignored.
    // However many threads race to be first, the file is opened once.
    static logger_file* instance(const signed char* directory, const signed char* name, const signed char* extension,
                                 unsigned int max_size, unsigned int max_index);
    static logger_file* peek();
    static void release();

    // The end-of-log marker, kept for the tools that read these files.
    static const char* const m_tail;

private:
    logger_file(const signed char* directory, const signed char* name, const signed char* extension,
                unsigned int max_size, unsigned int max_index);
    static lazy_singleton_t<logger_file> s_instance;
};

// Scope object for FUNC-level entry and exit lines; deliberately silent.
class UTIL_API log_func_helper {
public:
    log_func_helper(unsigned int module_id, const signed char* function) {
        (void)module_id;
        (void)function;
    }
    ~log_func_helper() {}
};

namespace detail {

// Ends a log line with "\n" even when the text filled the buffer or the
// statement left the stream in another radix.
inline void finish_line(log_stream_t& s) {
    s << ORDIX_DEC << "\n";
    unsigned int n = s.length();
    signed char* text = s;
    if (n > 0 && text[n - 1] != '\n')
        text[n - 1] = '\n';
}

}  // namespace detail
}  // namespace ssb

// Registers a log module; the logger is the given one, else the default
// handle logger, else the shared rotating file. Arguments are cut to 8 bits.
SSB_C_API int register_logger(unsigned int module_id, const char* name, unsigned int max_level, ssb::log_it* logger,
                              unsigned int flags);
// Sets the default handle logger and flags and applies them to every level.
SSB_C_API int register_logger_handle(ssb::log_it* handle, unsigned int flags);
// 255 switches logging off; other values set the global level limit.
SSB_C_API int enable_logger(unsigned int value);
// Limits of the shared rotating file: 0, or 8 when out of range.
SSB_C_API int configure_logger(unsigned int max_size, unsigned int max_index);
// One line in the monitor log (module 19, "MON"): the local time, then each
// text argument separated by a TAB, up to a terminating NULL argument.
SSB_C_API int write_monitor(const char* text, ...);

// One log line in `module` at `level`; the line is built only when the
// level passes: SSB_LOG(100, ssb::LOG_INFO, "connected, peer = " << peer).
#define SSB_LOG(module, level, expr)                                                                  \
  do {                                                                                                \
    ssb::log_control_t* ssb_lc_ = ssb::log_control_t::instance();                                     \
    signed char* ssb_module_name_ = nullptr;                                                          \
    signed char* ssb_level_name_ = nullptr;                                                           \
    if (ssb_lc_ && ssb_lc_->trace_enable((module), ssb_module_name_, (level), ssb_level_name_)) {     \
      signed char ssb_buf_[ssb::LOG_LINE_BUFFER];                                                     \
      ssb::log_stream_t ssb_line_(ssb_buf_, ssb::LOG_LINE_BUFFER, ssb_level_name_, ssb_module_name_); \
      ssb_line_ << expr;                                                                              \
      ssb::detail::finish_line(ssb_line_);                                                            \
      ssb_lc_->trace_out((module), (level), ssb_buf_, ssb_line_.length(), nullptr);                   \
    }                                                                                                 \
  } while (0)

// "assert: file[path], line = [n]" + tail, at FATAL in `module`. `tail` is
// empty or starts with a string literal: SSB_ASSERT_LINE(1, "util", 179, "").
#define SSB_ASSERT_LINE(module, path, line, tail)                     \
  SSB_LOG((module), ssb::LOG_FATAL,                                   \
          "assert: file[" << (path) << "], line = [" << (line) << "]" \
                          << "" tail)

// "assert: msg[text] file[path], line = [n]" + tail, at FATAL. `msg` may
// carry its own ", name = value" pairs.
#define SSB_ASSERT_MSG(module, msg, path, line, tail)                                    \
  SSB_LOG((module), ssb::LOG_FATAL,                                                      \
          "assert: msg[" << msg << "] file[" << (path) << "], line = [" << (line) << "]" \
                         << "" tail)

#endif
