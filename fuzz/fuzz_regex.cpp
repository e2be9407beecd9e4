// regex_match against a matcher written straight from the rules (std::string
// search, the retry loop on the last piece), and against fnmatch where the
// pattern has only stars. regex_match_pattern_list against split_string and
// a loop. Input: pattern, a NUL byte, text.
#include <fnmatch.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "log.h"
#include "regex_model.h"
#include "strutil.h"

namespace {

using regex_model::reference_match;

bool star_only(const std::string& pattern) {
    size_t stars = 0;
    for (char c : pattern) {
        if (c == '?' || c == '[' || c == '\\')
            return false;
        stars += c == '*';
    }
    // fnmatch backtracks: keep it to patterns it answers quickly.
    return stars <= 4;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ssb::log_control_t::instance()->enable(255);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* bytes = reinterpret_cast<const char*>(data);
    const void* nul = memchr(bytes, 0, size);
    const size_t split = nul ? static_cast<size_t>(static_cast<const char*>(nul) - bytes) : size;
    const std::string pattern(bytes, split);
    const std::string text = split < size ? std::string(bytes + split + 1, size - split - 1) : std::string();

    const bool got = ssb::regex_match(text, pattern);
    if (got != reference_match(text, pattern))
        abort();
    if (star_only(pattern) && text.find('\0') == std::string::npos &&
        got != (fnmatch(pattern.c_str(), text.c_str(), 0) == 0))
        abort();

    std::vector<std::string> list;
    ssb::split_string(pattern, list, ',', true);
    bool any = false;
    for (const std::string& p : list)
        any = any || ssb::regex_match(text, p);
    if (any != ssb::regex_match_pattern_list(text, pattern, ','))
        abort();
    return 0;
}
