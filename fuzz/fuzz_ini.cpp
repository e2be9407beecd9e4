// ini_t on arbitrary text: the parse must equal a plain model written from
// the reading rules (vectors searched by name, std::string operations), and
// read -> write -> read must give back the same sections and pairs.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <utility>
#include <vector>

#include "ini.h"

namespace {

struct model_key_t {
    std::string name;
    std::vector<std::pair<std::string, std::string> > values;
    std::vector<std::string> comments;
};

struct model_t {
    std::vector<model_key_t> keys;
    std::vector<std::string> header;
};

std::string fold(std::string s, bool insensitive) {
    if (insensitive) {
        for (char& c : s) {
            if (c >= 'A' && c <= 'Z')
                c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return s;
}

std::string trim(const std::string& s) {
    const char* set = "\r\n \t";
    size_t b = s.find_first_not_of(set);
    if (b == std::string::npos)
        return std::string();
    size_t e = s.find_last_not_of(set);
    return s.substr(b, e - b + 1);
}

size_t model_add_key(model_t& m, const std::string& name) {
    for (size_t i = 0; i < m.keys.size(); ++i) {
        if (m.keys[i].name == name)
            return i;
    }
    m.keys.push_back(model_key_t());
    m.keys.back().name = name;
    return m.keys.size() - 1;
}

bool model_read(model_t& m, const std::string& text, bool insensitive) {
    long current = -1;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        std::string line = text.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
        pos = nl == std::string::npos ? text.size() : nl + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty())
            continue;
        unsigned char c = static_cast<unsigned char>(line[0]);
        if (c < 0x20 || c > 0x7e)
            return false;
        size_t mark = line.find_first_of(";#[=");
        if (mark == std::string::npos)
            continue;
        if (line[mark] == ';' || line[mark] == '#') {
            if (current >= 0)
                m.keys[static_cast<size_t>(current)].comments.push_back(line.substr(mark + 1));
            else
                m.header.push_back(line.substr(mark + 1));
        } else if (line[mark] == '=') {
            std::string name = fold(trim(line.substr(0, mark)), insensitive);
            std::string value = line.substr(mark + 1);
            size_t cut = value.find_first_of(";#");
            if (cut != std::string::npos)
                value.erase(cut);
            value = trim(value);
            if (current < 0)
                current = static_cast<long>(model_add_key(m, std::string()));
            model_key_t& k = m.keys[static_cast<size_t>(current)];
            bool found = false;
            for (auto& v : k.values) {
                if (v.first == name) {
                    v.second = value;
                    found = true;
                    break;
                }
            }
            if (!found)
                k.values.push_back(std::make_pair(name, value));
        } else {
            size_t close = line.rfind(']');
            if (close != std::string::npos && close > mark)
                current =
                    static_cast<long>(model_add_key(m, fold(line.substr(mark + 1, close - mark - 1), insensitive)));
        }
    }
    return true;
}

void same_or_die(const ssb::ini_t& ini, const model_t& m) {
    if (ini.num_keys() != m.keys.size() || ini.num_header_comments() != m.header.size())
        abort();
    for (unsigned i = 0; i < m.header.size(); ++i) {
        if (ini.header_comment(i) != m.header[i])
            abort();
    }
    for (unsigned k = 0; k < m.keys.size(); ++k) {
        const model_key_t& mk = m.keys[k];
        if (ini.key_name(k) != mk.name || ini.find_key(mk.name) != static_cast<int>(k) ||
            ini.name_values(k) != mk.values.size() || ini.num_key_comments(k) != mk.comments.size())
            abort();
        for (unsigned c = 0; c < mk.comments.size(); ++c) {
            if (ini.key_comment(k, c) != mk.comments[c])
                abort();
        }
        for (unsigned v = 0; v < mk.values.size(); ++v) {
            if (ini.value_name(k, v) != mk.values[v].first || ini.get_value(k, v) != mk.values[v].second ||
                ini.find_value(k, mk.values[v].first) != static_cast<int>(v))
                abort();
        }
    }
}

// The pairs (and section order) of two loads must match; comments may only
// have lost one trailing "\r", which the next read strips as a line end.
void round_trip_or_die(const ssb::ini_t& a, const ssb::ini_t& b) {
    if (a.num_keys() != b.num_keys() || a.num_header_comments() != b.num_header_comments())
        abort();
    auto comment_ok = [](std::string first, const std::string& second) {
        if (!first.empty() && first.back() == '\r')
            first.pop_back();
        return first == second;
    };
    for (unsigned i = 0; i < a.num_header_comments(); ++i) {
        if (!comment_ok(a.header_comment(i), b.header_comment(i)))
            abort();
    }
    for (unsigned k = 0; k < a.num_keys(); ++k) {
        if (a.key_name(k) != b.key_name(k) || a.name_values(k) != b.name_values(k) ||
            a.num_key_comments(k) != b.num_key_comments(k))
            abort();
        for (unsigned c = 0; c < a.num_key_comments(k); ++c) {
            if (!comment_ok(a.key_comment(k, c), b.key_comment(k, c)))
                abort();
        }
        for (unsigned v = 0; v < a.name_values(k); ++v) {
            if (a.value_name(k, v) != b.value_name(k, v) || a.get_value(k, v) != b.get_value(k, v))
                abort();
        }
    }
}

// The documented exception: a name that begins with a non-printable byte
// (the line had indented it) is written at the start of a line.
bool has_unwritable_name(const ssb::ini_t& ini) {
    for (unsigned k = 0; k < ini.num_keys(); ++k) {
        for (unsigned v = 0; v < ini.name_values(k); ++v) {
            std::string name = ini.value_name(k, v);
            if (!name.empty()) {
                unsigned char c = static_cast<unsigned char>(name[0]);
                if (c < 0x20 || c > 0x7e)
                    return true;
            }
        }
    }
    return false;
}

void check(const std::string& text, bool insensitive) {
    ssb::ini_t first;
    if (insensitive)
        first.case_insensitive();
    model_t m;
    const bool model_ok = model_read(m, text, insensitive);
    if (first.read_text(text.data(), text.size()) != model_ok)
        abort();
    same_or_die(first, m);

    const std::string written = first.to_text();
    ssb::ini_t second;
    if (insensitive)
        second.case_insensitive();
    if (!second.read_text(written.data(), written.size())) {
        if (!has_unwritable_name(first))
            abort();
        return;
    }
    round_trip_or_die(first, second);
    ssb::ini_t copy(second);
    if (copy.to_text() != second.to_text())
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Failing lines print to standard output; keep the run's log small.
    if (!freopen("/dev/null", "w", stdout))
        return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    check(text, false);
    check(text, true);
    return 0;
}
