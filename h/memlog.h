// The memory log: recent log text kept in one fixed block, so a host can
// attach it to a report without reading files. Attach it to a module like
// any other log_it; fetch the text with dump and trim it with resize.
//
// Every operation, the static ones included, takes one process-wide lock,
// so any thread may append, trim or dump.
#ifndef SSB_MEMLOG_H
#define SSB_MEMLOG_H

#include "log.h"

namespace ssb {

const unsigned int MIN_MEM_LOG_SIZE = 0x100000;
const unsigned int MAX_MEM_LOG_SIZE = 0x6400000;
const unsigned int DEFAULT_MEM_LOG_SIZE = 0x800000;

typedef int(SSB_STDCALL* mem_log_dump_fn)(void* context, signed char* text, unsigned int length);

class UTIL_API mem_log_file : public log_it {
public:
    // Holds the process-wide memory-log lock for its scope.
    class UTIL_API plugin_lock {
    public:
        plugin_lock();
        ~plugin_lock();

    private:
        plugin_lock(const plugin_lock&);
        plugin_lock& operator=(const plugin_lock&);
    };

    // Creates the log on the first call (later sizes are ignored); null
    // after destroy until reset.
    static mem_log_file* instance(unsigned int size);
    static void destroy();
    static void reset(bool destroy_first);
    // Keeps the newest keep_size bytes: 0, 2 when keep_size is not below the
    // limit, 9 when there is no log.
    static int resize(unsigned int keep_size);

    // 0 when stored; 1 when the line does not fit (the block is not a ring).
    int cout(unsigned int module_id, unsigned int level, signed char* text, unsigned int length) override;
    unsigned int space() const;
    bool is_full() const;
    unsigned int size_limit() const { return m_size_limitation; }
    unsigned int used() const;
    // Calls back once with the whole text under the lock; 2 for a null callback.
    int dump(void* context, mem_log_dump_fn callback);

private:
    explicit mem_log_file(unsigned int size);
    ~mem_log_file() override;
    int replacement(unsigned int keep_size);

    signed char* m_buffer;
    unsigned int m_size_limitation;
    unsigned int m_used;
    bool m_full;

    // Made and closed under the plugin lock; not registered with the
    // singleton registry: the host destroys it.
    static lazy_singleton_t<mem_log_file> s_instance;
};

}  // namespace ssb

#endif
