#include "log.h"

#include <stdarg.h>
#include <string.h>

#include "platform/platform.h"
#include "singleton.h"
#include "timer.h"
#include "toolkit.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = ".\\log";
const unsigned int NOT_REGISTERED = 0xFFFFFFFFu;
const char* const PRESET_LEVELS[] = {"FATAL", "ERROR", "WARNING", "INFO", "DEBUG", "FUNC"};
const char UNNAMED_LEVEL[] = "N/A";

}  // namespace

const signed char DEFAULT_EXTENSION[] = "log";

namespace {

log_it* shared_file_logger() {
    return logger_file::instance(nullptr, nullptr, DEFAULT_EXTENSION, DEFAULT_LOG_SIZE, MIN_LOG_IDX);
}

void destroy_log_control() { log_control_t::destroy(); }
void destroy_logger_file() { logger_file::release(); }

}  // namespace

// ---- log_control_t ----------------------------------------------------------

lazy_singleton_t<log_control_t> log_control_t::m_s_instance(destroy_log_control, true);
std::atomic<log_it*> log_control_t::m_s_default_logger(nullptr);
std::atomic<unsigned char> log_control_t::m_s_mask(LOG_TO_FILE | LOG_TO_HANDLE);

log_control_t* log_control_t::create_instance() {
    return m_s_instance.instance([] { return new log_control_t; });
}

void log_control_t::destroy() {
    m_s_instance.destroy([](log_control_t* p) { p->clear(); });
}

log_control_t::log_control_t() : m_modules(LOG_MAX_MODULES), m_disabled(false), m_max_level(32), m_opened(false) {
    for (unsigned int i = 0; i < LOG_MAX_LEVELS; ++i)
        m_levels[i].m_level = i;
    for (size_t i = 0; i < m_modules.size(); ++i) {
        level_entry_t empty = {0, nullptr, nullptr};
        m_modules[i].m_levels.assign(LOG_MAX_LEVELS, empty);
    }
    clear();
}

void log_control_t::clear() {
    // Under the lock: a line being written finishes first, and no later line
    // reaches a logger (every module is unregistered), so the loggers may go.
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    for (unsigned int i = 0; i < LOG_MAX_LEVELS; ++i)
        m_levels[i].m_name.store(i < 6 ? PRESET_LEVELS[i] : UNNAMED_LEVEL, std::memory_order_release);
    for (size_t i = 0; i < m_modules.size(); ++i) {
        module_record_t& r = m_modules[i];
        r.m_id.store(NOT_REGISTERED, std::memory_order_release);
        r.m_name.store("", std::memory_order_release);
        r.m_max_level.store(0, std::memory_order_relaxed);
        for (level_entry_t& e : r.m_levels)
            e = level_entry_t{0, nullptr, nullptr};
    }
    m_disabled.store(false, std::memory_order_relaxed);
    m_max_level.store(32, std::memory_order_relaxed);
    m_opened.store(false, std::memory_order_release);
}

log_control_t::~log_control_t() {
    for (size_t i = 0; i < m_names.size(); ++i)
        delete m_names[i];
}

const char* log_control_t::keep_name(const char* name) {
    std::string* kept = new std::string(name ? name : "");
    m_names.push_back(kept);
    return kept->c_str();
}

void log_control_t::apply_logger(module_record_t& record, unsigned int max_level, log_it* logger, unsigned char flags) {
    for (unsigned int level = 0; level <= max_level && level < LOG_MAX_LEVELS; ++level) {
        if (flags & LOG_TO_HANDLE)
            record.m_levels[level].m_handle_logger = logger;
        else if (flags & LOG_TO_FILE)
            record.m_levels[level].m_file_logger = logger;
    }
}

int log_control_t::register_module(unsigned int module_id, const char* name, unsigned int max_level, log_it* logger,
                                   unsigned char flags) {
    if (module_id >= LOG_MAX_MODULES || max_level >= LOG_MAX_LEVELS)
        return RESULT_INVALID_ARG;
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    module_record_t& r = m_modules[module_id];
    r.m_name.store(keep_name(name), std::memory_order_release);
    r.m_max_level.store(max_level, std::memory_order_relaxed);
    for (unsigned int level = 0; level < LOG_MAX_LEVELS; ++level)
        r.m_levels[level].m_flags = flags;
    apply_logger(r, max_level, logger, flags);
    // Published last: a reader that sees the id sees the name and limit.
    r.m_id.store(module_id, std::memory_order_release);
    return RESULT_SUCCESS;
}

int log_control_t::unregister_module(unsigned int module_id) {
    if (module_id >= LOG_MAX_MODULES)
        return RESULT_INVALID_ARG;
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    module_record_t& r = m_modules[module_id];
    if (r.m_id.load(std::memory_order_relaxed) != module_id)
        return RESULT_NOT_FOUND;
    r.m_id.store(NOT_REGISTERED, std::memory_order_release);
    r.m_name.store("", std::memory_order_release);
    r.m_max_level.store(0, std::memory_order_relaxed);
    level_entry_t empty = {0, nullptr, nullptr};
    r.m_levels.assign(LOG_MAX_LEVELS, empty);
    return RESULT_SUCCESS;
}

int log_control_t::register_logger(unsigned int module_id, unsigned int level, log_it* logger) {
    if (level >= LOG_MAX_LEVELS || module_id >= LOG_MAX_MODULES)
        return RESULT_INVALID_ARG;
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    module_record_t& r = m_modules[module_id];
    if (r.m_id.load(std::memory_order_relaxed) != module_id)
        return RESULT_NOT_FOUND;
    r.m_levels[level].m_handle_logger = logger;
    return RESULT_SUCCESS;
}

void log_control_t::reset_logger(log_it* logger, unsigned char flags) {
    // Meant for start-up, but lines may already be flowing on other threads,
    // so it takes the lock like every other writer of the tables.
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    for (size_t i = 0; i < m_modules.size(); ++i)
        apply_logger(m_modules[i], LOG_MAX_LEVELS - 1, logger, flags);
}

int log_control_t::change_mask(unsigned int module_id, unsigned char flags) {
    if (module_id >= LOG_MAX_MODULES)
        return RESULT_INVALID_ARG;
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    module_record_t& r = m_modules[module_id];
    if (r.m_id.load(std::memory_order_relaxed) != module_id)
        return RESULT_NOT_FOUND;
    for (unsigned int level = 0; level < LOG_MAX_LEVELS; ++level)
        r.m_levels[level].m_flags = flags;
    return RESULT_SUCCESS;
}

log_it* log_control_t::get_default_logger() { return m_s_default_logger.load(std::memory_order_acquire); }

void log_control_t::set_default_logger(log_it* logger) { m_s_default_logger.store(logger, std::memory_order_release); }

unsigned char log_control_t::get_default_mask() { return m_s_mask.load(std::memory_order_relaxed); }

void log_control_t::set_default_mask(unsigned char flags) { m_s_mask.store(flags, std::memory_order_relaxed); }

int log_control_t::register_level(unsigned int level, const char* name) {
    if (level >= LOG_MAX_LEVELS)
        return RESULT_OUT_OF_LIMIT;
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    m_levels[level].m_name.store(name ? keep_name(name) : UNNAMED_LEVEL, std::memory_order_release);
    return RESULT_SUCCESS;
}

const signed char* log_control_t::level_info(unsigned int level) const {
    if (level >= LOG_MAX_LEVELS || m_levels[level].m_level != level)
        return nullptr;
    return reinterpret_cast<const signed char*>(m_levels[level].m_name.load(std::memory_order_acquire));
}

void log_control_t::enable(unsigned char value) {
    m_disabled.store(value == 255, std::memory_order_relaxed);
    m_max_level.store(value, std::memory_order_relaxed);
}

int log_control_t::open() {
    if (m_opened.load(std::memory_order_acquire))
        return RESULT_ALREADY_EXISTS;
    const unsigned char flags = m_s_mask.load(std::memory_order_relaxed);
    log_it* handle = (flags & LOG_TO_HANDLE) ? get_default_logger() : nullptr;
    // Made before taking the lock: creating the file registers a singleton,
    // and the registry's lock must never be taken under this one.
    log_it* file = (flags & LOG_TO_FILE) ? shared_file_logger() : nullptr;
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    if (m_opened.load(std::memory_order_relaxed))
        return RESULT_ALREADY_EXISTS;
    for (size_t i = 0; i < m_modules.size(); ++i) {
        for (unsigned int level = 0; level < LOG_MAX_LEVELS; ++level) {
            level_entry_t& e = m_modules[i].m_levels[level];
            e.m_flags = flags;
            e.m_handle_logger = handle;
            e.m_file_logger = file;
        }
    }
    m_opened.store(true, std::memory_order_release);
    return RESULT_SUCCESS;
}

bool log_control_t::names_for(const module_record_t& record, unsigned int level, signed char*& module_name,
                              signed char*& level_name) {
    if (!m_opened.load(std::memory_order_acquire))
        open();
    module_name =
        const_cast<signed char*>(reinterpret_cast<const signed char*>(record.m_name.load(std::memory_order_acquire)));
    level_name = const_cast<signed char*>(level_info(level));
    return true;
}

int log_control_t::trace_out(unsigned int module_id, unsigned int level, signed char* text, unsigned int length,
                             log_it* logger) {
    if (module_id >= LOG_MAX_MODULES || level >= LOG_MAX_LEVELS)
        return RESULT_INVALID_ARG;
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    const module_record_t& r = m_modules[module_id];
    if (r.m_id.load(std::memory_order_relaxed) != module_id)
        return RESULT_NOT_FOUND;
    if (level > r.m_max_level.load(std::memory_order_relaxed))
        return RESULT_SUCCESS;
    if (logger)
        return logger->cout(module_id, level, text, length);
    const level_entry_t& e = r.m_levels[level];
    if (e.m_handle_logger && (e.m_flags & LOG_TO_HANDLE))
        e.m_handle_logger->cout(module_id, level, text, length);
    if (e.m_file_logger && e.m_file_logger != e.m_handle_logger && (e.m_flags & LOG_TO_FILE))
        e.m_file_logger->cout(module_id, level, text, length);
    return RESULT_SUCCESS;
}

// ---- logger_file_base_t -------------------------------------------------------

logger_file_base_t::logger_file_base_t(const signed char* directory, const signed char* name,
                                       const signed char* extension, unsigned int max_size, unsigned int max_index)
    : logger_file_base_t(directory, name, extension, max_size, max_index,
                         local_date_t::from_epoch_ms(times_drv_t::now())) {}

logger_file_base_t::logger_file_base_t(const signed char* directory, const signed char* name,
                                       const signed char* extension, unsigned int max_size, unsigned int max_index,
                                       const local_date_t& start)
    : m_extension(extension ? reinterpret_cast<const char*>(extension) : ".log"),
      m_max_size(max_size < MIN_LOG_SIZE ? MIN_LOG_SIZE : max_size),
      m_size(0),
      m_index(0),
      m_max_index(max_index < MIN_LOG_IDX ? MIN_LOG_IDX : (max_index > MAX_LOG_IDX ? MAX_LOG_IDX : max_index)),
      m_file(nullptr),
      m_date(start),
      m_torn(false) {
    std::string default_directory;
    m_name = make_name(directory, name, default_directory);
    m_directory = default_directory;
    if (directory && *directory) {
        m_directory = reinterpret_cast<const char*>(directory);
        if (!is_terminal_with_special(m_directory.c_str(), plat::PATH_SEPARATOR))
            m_directory += plat::PATH_SEPARATOR;
    }
    open();
}

logger_file_base_t::~logger_file_base_t() { close(); }

local_date_t logger_file_base_t::today() const { return local_date_t::from_epoch_ms(times_drv_t::now()); }

std::string logger_file_base_t::make_name(const signed char* directory, const signed char* name,
                                          std::string& default_directory) {
    const char sep[2] = {plat::PATH_SEPARATOR, 0};
    if (directory && *directory) {
        const char* dir = reinterpret_cast<const char*>(directory);
        if (!is_dir_exist(dir))
            create_dir(dir);
    } else {
        char base[4096] = {0};
        // Without a per-user folder (no HOME and no XDG_DATA_HOME) the logs go
        // to the temporary folder, never to the root of the file system.
        if (get_special_path(SSB_FOLDER_APPDATA, base, sizeof(base), 1) != RESULT_SUCCESS || !*base) {
            if (plat::temp_folder(base, sizeof(base)) != 0)
                get_cur_path(base, sizeof(base));
        }
        default_directory = std::string(base) + sep + "OrcaDecks" + sep + "logs" + sep;
        if (!is_dir_exist(default_directory.c_str()))
            create_dir(default_directory.c_str());
    }
    if (name && *name)
        return reinterpret_cast<const char*>(name);
    char process[1024] = {0};
    get_self_process_name(process, sizeof(process));
    return std::string(process) + "_" + std::to_string(get_cur_pid());
}

std::string logger_file_base_t::combine_name() const {
    char date[32];
    snprintf(date, sizeof(date), "%4hu%02hu%02hu", m_date.m_year, m_date.m_month, m_date.m_day);
    char index[16];
    snprintf(index, sizeof(index), "%02u", m_index % 100);
    return m_name + "_" + date + "_" + index + "." + m_extension;
}

std::string logger_file_base_t::current_path() const { return m_directory + combine_name(); }

void logger_file_base_t::open() {
    const std::string path = current_path();
    m_file = plat::open_text_file(path.c_str());
    if (!m_file && !m_directory.empty() && !is_dir_exist(m_directory.c_str())) {
        // The folder was removed while the process ran: make it again.
        create_dir(m_directory.c_str());
        m_file = plat::open_text_file(path.c_str());
    }
    // Unbuffered: each line is one write either way (every line is flushed),
    // and fwrite then reports a write cut short by a full disk.
    if (m_file)
        setvbuf(m_file, nullptr, _IONBF, 0);
    m_size = 0;
    m_torn = false;
}

void logger_file_base_t::close() {
    if (m_file) {
        fclose(m_file);
        m_file = nullptr;
    }
    m_size = 0;
}

int logger_file_base_t::configure(unsigned int max_size, unsigned int max_index) {
    UTIL_LOG(LOG_INFO, "logger_file_base_t::configure, max_size = " << max_size << ", m_max_size = " << m_max_size
                                                                    << ", max_idx = " << max_index << ", m_max_idx = "
                                                                    << m_max_index << ", this = " << this);
    if (max_size < MIN_LOG_SIZE || max_size > MAX_LOG_SIZE) {
        UTIL_ASSERT_MSG("logger_file_base_t::configure size out of limitation, max_size = "
                            << max_size << ", MIN_LOG_SIZE = " << MIN_LOG_SIZE << ", MAX_LOG_SIZE = " << MAX_LOG_SIZE,
                        SOURCE_PATH, __LINE__, ", this = " << this);
        return RESULT_OUT_OF_LIMIT;
    }
    if (max_index < MIN_LOG_IDX || max_index > MAX_LOG_IDX) {
        UTIL_ASSERT_MSG("logger_file_base_t::configure index out of limitation, max_idx = "
                            << max_index << ", MIN_LOG_IDX = " << MIN_LOG_IDX << ", MAX_LOG_IDX = " << MAX_LOG_IDX,
                        SOURCE_PATH, __LINE__, ", this = " << this);
        return RESULT_OUT_OF_LIMIT;
    }
    m_max_size = max_size;
    m_max_index = max_index;
    return RESULT_SUCCESS;
}

int logger_file_base_t::cout(unsigned int, unsigned int, signed char* text, unsigned int length) {
    // A file removed while open (or with its folder) swallows every line
    // written to it: start a new one.
    if (m_file && plat::file_unlinked(m_file))
        close();
    if (!m_file)
        open();
    if (!m_file)
        return RESULT_FAILURE;
    // A short write (disk full) is not an error worth more than the line,
    // but the cut line is ended before the next, so lines never run together.
    if (m_torn) {
        if (fwrite("\n", 1, 1, m_file) != 1)
            return RESULT_SUCCESS;
        m_torn = false;
        ++m_size;
    }
    const size_t done = fwrite(text, 1, length, m_file);
    fflush(m_file);
    m_torn = done > 0 && done < length;
    m_size += length;
    local_date_t now = today();
    // The day of the month alone decides the day rotation; hosts rely on it.
    const bool same_day = now.m_day == m_date.m_day;
    if (m_size <= m_max_size && same_day)
        return RESULT_SUCCESS;
    if (same_day) {
        if (++m_index > m_max_index)
            m_index = 0;
    } else {
        m_index = 0;
        m_date = now;
    }
    close();
    open();
    return RESULT_SUCCESS;
}

// ---- logger_file --------------------------------------------------------------

lazy_singleton_t<logger_file> logger_file::s_instance(destroy_logger_file, false);

const char* const logger_file::m_tail =
    "*****TAIL*****TAIL*****TAIL*****TAIL*****TAIL*****TAIL*****TAIL*****TAIL"
    "*****TAIL*****TAIL*****TAIL*****TAIL*****TAIL*****TAIL*****TAIL*****\n";

logger_file::logger_file(const signed char* directory, const signed char* name, const signed char* extension,
                         unsigned int max_size, unsigned int max_index)
    : logger_file_base_t(directory, name, extension, max_size, max_index) {}

logger_file* logger_file::instance(const signed char* directory, const signed char* name, const signed char* extension,
                                   unsigned int max_size, unsigned int max_index) {
    return s_instance.instance([&] { return new logger_file(directory, name, extension, max_size, max_index); });
}

logger_file* logger_file::peek() { return s_instance.get(); }

void logger_file::release() {
    s_instance.destroy([](logger_file* p) { delete p; });
}

}  // namespace ssb

// ---- C entry points -----------------------------------------------------------

using ssb::log_control_t;
using ssb::log_it;

int register_logger(unsigned int module_id, const char* name, unsigned int max_level, log_it* logger,
                    unsigned int flags) {
    UTIL_LOG(ssb::LOG_INFO,
             "register_logger  module_id = " << module_id << ", name = " << name << ", max_level = " << max_level
                                             << ", logger = " << static_cast<void*>(logger) << ", flags = " << flags);
    log_control_t* control = log_control_t::instance();
    if (!control)
        return ssb::RESULT_NOTHING_TO_DO;
    if (!logger)
        logger = log_control_t::get_default_logger();
    // A switched-off log gets no file either.
    if (!logger && !control->is_disabled())
        logger = ssb::shared_file_logger();
    return control->register_module(static_cast<unsigned char>(module_id), name, static_cast<unsigned char>(max_level),
                                    logger, static_cast<unsigned char>(flags));
}

int register_logger_handle(log_it* handle, unsigned int flags) {
    const unsigned char mask = static_cast<unsigned char>(flags);
    log_control_t::set_default_logger(handle);
    log_control_t::set_default_mask(mask);
    UTIL_LOG(ssb::LOG_INFO, "register_logger_handle  handle = " << static_cast<void*>(handle)
                                                                << ", flags = " << ssb::ORDIX_BIN << mask);
    log_control_t* control = log_control_t::instance();
    if (!control)
        return ssb::RESULT_NOTHING_TO_DO;
    control->reset_logger(handle, mask);
    return ssb::RESULT_SUCCESS;
}

int enable_logger(unsigned int value) {
    if (value != 255)
        UTIL_LOG(ssb::LOG_INFO, "enable_logger  value = " << value);
    log_control_t* control = log_control_t::instance();
    if (!control)
        return ssb::RESULT_NOTHING_TO_DO;
    control->enable(static_cast<unsigned char>(value));
    return ssb::RESULT_SUCCESS;
}

int configure_logger(unsigned int max_size, unsigned int max_index) {
    UTIL_LOG(ssb::LOG_INFO, "configure_logger  max_size = " << max_size << ", max_index = " << max_index);
    return ssb::logger_file::instance(nullptr, nullptr, ssb::DEFAULT_EXTENSION, ssb::DEFAULT_LOG_SIZE, ssb::MIN_LOG_IDX)
        ->configure(max_size, max_index);
}

namespace {

const unsigned int MONITOR_MODULE_ID = 19;
const unsigned int MONITOR_MAX_INDEX = 99;

void destroy_monitor();

// The monitor log's own rotating file, made on first use.
ssb::lazy_singleton_t<ssb::logger_file_base_t> s_monitor(destroy_monitor, false);

void destroy_monitor() { s_monitor.destroy(); }

ssb::logger_file_base_t* monitor_logger() {
    bool created = false;
    ssb::logger_file_base_t* p = s_monitor.instance([&created] {
        created = true;
        char process[1024] = {0};
        get_self_process_name(process, sizeof(process));
        std::string name = std::string("monitor_") + process + "_" + std::to_string(get_cur_pid());
        return new ssb::logger_file_base_t(nullptr, reinterpret_cast<const signed char*>(name.c_str()),
                                           ssb::DEFAULT_EXTENSION, ssb::DEFAULT_LOG_SIZE, MONITOR_MAX_INDEX);
    });
    // The module is registered outside the creation lock, so the log
    // registry's lock is never taken under the global one.
    if (created) {
        if (log_control_t* control = log_control_t::instance())
            control->register_module(MONITOR_MODULE_ID, "MON", ssb::LOG_INFO, p, ssb::LOG_TO_FILE | ssb::LOG_TO_HANDLE);
    }
    return p;
}

}  // namespace

int write_monitor(const char* text, ...) {
    ssb::logger_file_base_t* monitor = monitor_logger();
    if (!monitor) {
        UTIL_ASSERT_MSG("write_monitor, s_monitor NULL", ".\\log", __LINE__, "");
        return ssb::RESULT_NOTHING_TO_DO;
    }
    log_control_t* control = log_control_t::instance();
    if (!control)
        return ssb::RESULT_NOTHING_TO_DO;
    signed char buf[2048];
    ssb::text_stream_t s(buf, sizeof(buf));
    ssb::local_date_t now = ssb::local_date_t::from_epoch_ms(ssb::times_drv_t::now());
    s << &now;
    va_list args;
    va_start(args, text);
    for (const char* t = text; t; t = va_arg(args, const char*))
        s << "\t" << t;
    va_end(args);
    s << "\n";
    unsigned int length = static_cast<unsigned int>(strlen(reinterpret_cast<const char*>(buf)));
    if (length > 0 && buf[length - 1] != '\n')
        buf[length - 1] = '\n';
    return control->trace_out(MONITOR_MODULE_ID, ssb::LOG_INFO, buf, length, monitor);
}
