// _uuid_t::from_string on random text against a model written with the C
// library's strtoull, and the to_string round trip of random values.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "uuid.h"

namespace {

void check(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "fuzz_uuid: %s\n", what);
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The text ends at the first NUL, as a C string would.
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string c_text(text.c_str());

    uint64_t first = 0, second = 0;
    int want = -1;
    if (c_text.size() >= 36) {
        std::string packed;
        for (size_t i = 0; i < 36; ++i)
            if (i != 8 && i != 13 && i != 23)
                packed += c_text[i];
        first = strtoull(packed.c_str(), nullptr, 16);
        second = strtoull(packed.c_str() + 17, nullptr, 16);
        want = 0;
    }
    ssb::_uuid_t id(~0ULL, ~0ULL);
    check(id.from_string(c_text.c_str()) == want, "result differs from the model");
    check(id.first() == first && id.second() == second, "value differs from the model");

    if (size >= 16) {
        uint64_t halves[2];
        memcpy(halves, data, 16);
        const ssb::_uuid_t value(halves[0], halves[1]);
        const std::string s = value.to_string();
        check(s.size() == 36 && s[8] == '-' && s[13] == '-' && s[18] == '-' && s[23] == '-', "text form");
        ssb::_uuid_t back;
        check(back.from_string(s.c_str()) == 0 && back == value, "round trip");
    }
    return 0;
}
