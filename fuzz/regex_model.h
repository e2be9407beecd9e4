// The wildcard rules written out directly (std::string search and the
// retry of the last piece), as the reference the tests and the fuzz target
// hold regex_match against.
#ifndef UTIL_REGEX_MODEL_H
#define UTIL_REGEX_MODEL_H

#include <string>
#include <vector>

namespace regex_model {

inline bool reference_match(const std::string& text, const std::string& pattern) {
    if (pattern.find('*') == std::string::npos) {
        if (text.size() != pattern.size())
            return false;
        for (size_t i = 0; i < pattern.size(); ++i) {
            if (pattern[i] != '?' && pattern[i] != text[i])
                return false;
        }
        return true;
    }
    std::vector<std::string> pieces;
    std::string cur;
    for (char c : pattern + "*") {
        if (c != '*') {
            cur += c;
        } else if (!cur.empty()) {
            pieces.push_back(cur);
            cur.clear();
        }
    }
    size_t pos = 0;
    size_t last = 0;
    for (size_t k = 0; k < pieces.size(); ++k) {
        last = text.find(pieces[k], pos);
        if (last == std::string::npos || (k == 0 && pattern[0] != '*' && last != 0))
            return false;
        pos = last + pieces[k].size();
    }
    if (pattern.back() == '*' || pieces.empty())
        return true;
    while (last + pieces.back().size() != text.size()) {
        last = text.find(pieces.back(), last + 1);
        if (last == std::string::npos)
            return false;
    }
    return true;
}

}  // namespace regex_model

#endif
