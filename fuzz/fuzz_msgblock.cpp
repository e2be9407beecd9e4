// Random sequences of chain operations (create, write, read, peek, update,
// cursor moves, split, copies, combine, compress, linking, reversal, locks,
// fill_iov, CRCs, stream output) on real chains and on a byte-vector model,
// every result, count, cursor and byte compared after each step.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "log.h"
#include "msgblock_model.h"

namespace {

// Lines are built (so their formatting runs) and dropped.
class drop_log_t : public ssb::log_it {
public:
    int cout(unsigned int, unsigned int, signed char*, unsigned int) override { return 0; }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static drop_log_t drop;
    ssb::log_control_t::set_default_logger(&drop);
    ssb::log_control_t::set_default_mask(ssb::LOG_TO_HANDLE);
    ssb::log_control_t::instance();
    register_logger_handle(&drop, ssb::LOG_TO_HANDLE);
    register_logger(ssb::UTIL_MODULE_ID, "UTIL", 31, nullptr, ssb::LOG_TO_HANDLE);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string error;
    {
        msgblock_model::driver_t driver;
        error = driver.run(data, size);
    }
    if (!error.empty()) {
        fprintf(stderr, "msgblock model mismatch: %s\n", error.c_str());
        abort();
    }
    return 0;
}
