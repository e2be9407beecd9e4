#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <iterator>
#include <string>

#include "ini.h"
#include "toolkit.h"

namespace fs = std::filesystem;

namespace {

// Sections, comments and pairs in one line each, for whole-file comparisons.
std::string dump(const ssb::ini_t& ini) {
    std::string out;
    for (unsigned i = 0; i < ini.num_header_comments(); ++i)
        out += "H:" + ini.header_comment(i) + "|";
    for (unsigned k = 0; k < ini.num_keys(); ++k) {
        out += "[" + ini.key_name(k) + "]";
        for (unsigned c = 0; c < ini.num_key_comments(k); ++c)
            out += "C:" + ini.key_comment(k, c) + "|";
        for (unsigned v = 0; v < ini.name_values(k); ++v)
            out += ini.value_name(k, v) + "=" + ini.get_value(k, v) + "|";
    }
    return out;
}

void set_env(const char* name, const char* value) {
#ifdef _WIN32
    _putenv_s(name, value ? value : "");
#else
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
#endif
}

std::string slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void spit(const fs::path& p, const std::string& text) {
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << text;
}

// The parse rules themselves are checked against a model by the INI fuzz
// target; these rows keep the boundaries a plain unit run must still catch.
TEST(IniRead, LinesFollowTheFirstOfTheFourMarks) {
    const std::pair<std::string, std::string> cases[] = {
        {"[s]\r\nk=v\r\n", "[s]k=v|"},
        {"  name  =  value  ; note  \n", "[]name=value|"},
        {";top\n[s]\n;inner\n#hash\n", "H:top|[s]C:inner|C:hash|"},
        {"[section\nk=v\n", "[]k=v|"},
        {"name;x=1\n", "H:x=1|"},
        {"[a]b]\n", "[a]b]"},
        {"a]b[c\njust text\n", ""},
        {"[s]\n[t]\n[s]\nk=1\nk=2\n", "[s]k=2|[t]"},
        {"k = a = b\n", "[]k=a = b|"},
        {"a=1\rb=2\n", "[]a=1\rb=2|"},
        {"k=v\n;after a pair\n", "[]C:after a pair|k=v|"},
        {"[s]\n;c\r\r\n", "[s]C:c\r|"},
        {std::string("[s\0t]\nk\0=v\0w\n", 13), std::string("[s\0t]k\0=v\0w|", 12)},
    };
    for (const auto& c : cases) {
        ssb::ini_t ini;
        EXPECT_TRUE(ini.read_text(c.first.data(), c.first.size())) << c.first;
        EXPECT_EQ(c.second, dump(ini)) << c.first;
    }
}

TEST(IniRead, FailingLinesPrintTheSignedByteAndKeepWhatCameBefore) {
    const std::string cases[][3] = {
        {"[s]\nk=v\n\tx=1\ny=2\n", "Failing on int8_t 9\n", "[s]k=v|"},
        {"\xEF\xBB\xBF[s]\nk=v\n", "Failing on int8_t -17\n", ""},
        {std::string("[s]\n\0k=v\n", 9), "Failing on int8_t 0\n", "[s]"},
        {"\x7f=1\n", "Failing on int8_t 127\n", ""},
        {"\x01\n", "Failing on int8_t 1\n", ""},
    };
    for (const auto& c : cases) {
        ssb::ini_t ini;
        testing::internal::CaptureStdout();
        EXPECT_FALSE(ini.read_text(c[0].data(), c[0].size()));
        EXPECT_EQ(c[1], testing::internal::GetCapturedStdout());
        EXPECT_EQ(c[2], dump(ini));
    }
}

TEST(IniRead, ManyPairsInOneSection) {
    std::string text = "[s]\n";
    for (int i = 0; i < 100000; ++i)
        text += "k" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    ssb::ini_t ini;
    ASSERT_TRUE(ini.read_text(text.data(), text.size()));
    EXPECT_EQ(100000u, ini.name_values("s"));
    EXPECT_EQ(99999, ini.read_int32("s", "k99999", -1));
    EXPECT_EQ(99999, ini.find_value(0, "k99999"));
    EXPECT_EQ(-1, ini.find_value(0, "k100000"));
}

TEST(IniWrite, FixedLayoutCommentsAlwaysSemicolon) {
    ssb::ini_t ini;
    const std::string text = "#top\n[a]\n#c1\nk = v ; inline\n[b]\n[a]\nj=2\n";
    ASSERT_TRUE(ini.read_text(text.data(), text.size()));
    EXPECT_EQ(";top\n\n[a]\n;c1\nk=v\nj=2\n\n[b]\n\n", ini.to_text());
    EXPECT_EQ("", ssb::ini_t().to_text());
}

class IniFile : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = fs::current_path() / ("ini_" + std::to_string(get_cur_pid()));
        fs::remove_all(m_dir);
        fs::create_directories(m_dir);
    }
    void TearDown() override {
        std::error_code ec;
        fs::permissions(m_dir / "ro.ini", fs::perms::owner_write, fs::perm_options::add, ec);
        fs::remove_all(m_dir, ec);
    }
    fs::path m_dir;
};

TEST_F(IniFile, FlushThenReadGivesTheSameFileAndReadingAgainMerges) {
    const fs::path path = m_dir / "a.ini";
    spit(path, ";h\r\n[s]\r\n;c\r\nk = v ; x\r\nn=1\r\n\r\n[t]\r\nz=\r\n");
    ssb::ini_t first(path.string());
    ASSERT_TRUE(first.read_file());
    ASSERT_TRUE(first.flush_file());
    EXPECT_EQ(";h\n\n[s]\n;c\nk=v\nn=1\n\n[t]\nz=\n\n", slurp(path));
    ssb::ini_t second(path.string());
    ASSERT_TRUE(second.read_file());
    EXPECT_EQ(dump(first), dump(second));
    ASSERT_TRUE(second.read_file());
    EXPECT_EQ(2u, second.num_header_comments());
    EXPECT_EQ(2u, second.name_values("s"));
}

// read_file parses in 64 KiB pieces: lines cut by a piece's end, a CRLF
// split between two pieces and a 1 MiB line must read as read_text reads
// the same bytes.
TEST_F(IniFile, FileReadsAsTheSameTextInMemory) {
    std::string text = ";" + std::string(65534, 'x') + "\r\n[s]\nbig=" + std::string(1 << 20, 'y') + "\n";
    std::mt19937 rng(11);
    const char* pieces[] = {"[", "]", "=", ";", "#", "\n", "\r\n", "k", " ", "v", "\n[a]\n"};
    while (text.size() < 600000)
        text += pieces[rng() % (sizeof(pieces) / sizeof(pieces[0]))];
    text += "last=no newline";
    const fs::path path = m_dir / "big.ini";
    for (const std::string& t : {text, text.substr(0, 65536), text.substr(0, 65537),
                                 text + "\n\x05"
                                        "bad\nz=1\n"}) {
        spit(path, t);
        ssb::ini_t from_file(path.string());
        ssb::ini_t from_memory;
        testing::internal::CaptureStdout();
        const bool file_ok = from_file.read_file();
        const bool memory_ok = from_memory.read_text(t.data(), t.size());
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(memory_ok, file_ok) << t.size();
        EXPECT_EQ(dump(from_memory), dump(from_file)) << t.size();
        EXPECT_EQ(file_ok ? 0u : 2u, printed.empty() ? 0u : std::count(printed.begin(), printed.end(), '\n'));
    }
}

TEST_F(IniFile, UnusablePathsFailAndAReadOnlyFileIsKept) {
    ssb::ini_t missing((m_dir / "nope.ini").string());
    EXPECT_FALSE(missing.read_file());
    ssb::ini_t folder(m_dir.string());
    EXPECT_FALSE(folder.read_file());
    EXPECT_FALSE(folder.flush_file());
    EXPECT_TRUE(fs::is_directory(m_dir));
    ssb::ini_t unnamed;
    EXPECT_FALSE(unnamed.read_file());
    EXPECT_FALSE(unnamed.flush_file());
    ssb::ini_t no_dir((m_dir / "no" / "such.ini").string());
    no_dir.set_value("s", "k", "v");
    EXPECT_FALSE(no_dir.flush_file());

    const fs::path path = m_dir / "ro.ini";
    spit(path, "[old]\nk=v\n");
    fs::permissions(path, fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
    ssb::ini_t ini(path.string());
    ASSERT_TRUE(ini.read_file());
    ini.set_value("new", "x", "1");
    EXPECT_FALSE(ini.flush_file());
    EXPECT_EQ("[old]\nk=v\n", slurp(path));
    const auto files = std::distance(fs::directory_iterator(m_dir), fs::directory_iterator());
    EXPECT_EQ(1, files) << "no temporary file is left behind";
}

TEST_F(IniFile, ConfigurationFoundThroughSsbHome) {
    set_env("SSB_HOME", m_dir.string().c_str());
    fs::create_directories(m_dir / "conf");
    const std::string conf = ssb::get_conf_path("C:\\bin\\worker-2.exe");
    ssb::ini_t out(conf);
    out.write_int32("net", "port", 8801);
    ASSERT_TRUE(out.flush_file());
    // The "\" separators name the same file on every system.
    EXPECT_TRUE(fs::exists(m_dir / "conf" / "ssb-2.exe.cfg"));
    ssb::ini_t in(conf);
    ASSERT_TRUE(in.read_file());
    EXPECT_EQ(8801, in.read_int32("net", "port", 0));
    set_env("SSB_HOME", nullptr);
}

TEST(IniValues, SetValueCreatesOnlyWhenAskedAndPositionsShiftOnDelete) {
    ssb::ini_t ini;
    EXPECT_FALSE(ini.set_value("s", "k", "v", false));
    EXPECT_EQ(0u, ini.num_keys());
    EXPECT_TRUE(ini.set_value("s", "k", "v"));
    EXPECT_FALSE(ini.set_value("s", "other", "v", false));
    EXPECT_TRUE(ini.set_value("s", "k", "w", false));
    EXPECT_EQ("w", ini.read_string("s", "k", ""));
    EXPECT_TRUE(ini.set_value(0u, "j", "1"));
    EXPECT_FALSE(ini.set_value(1u, "j", "1"));
    EXPECT_FALSE(ini.set_value(0u, "absent", "1", false));
    EXPECT_EQ(-1, ini.find_value(5, "j"));
    EXPECT_EQ(0u, ini.add_key("s"));
    EXPECT_EQ(1u, ini.add_key("t"));
    EXPECT_EQ("", ini.key_name(2));
    EXPECT_EQ("j", ini.value_name("s", 1));
    EXPECT_EQ("", ini.value_name(0, 2));
    EXPECT_EQ(0u, ini.name_values("missing"));
    EXPECT_TRUE(ini.delete_value("s", "k"));
    EXPECT_FALSE(ini.delete_value("s", "k"));
    EXPECT_FALSE(ini.delete_value("missing", "j"));
    EXPECT_EQ(0, ini.find_value(0, "j"));
    EXPECT_TRUE(ini.delete_key("s"));
    EXPECT_FALSE(ini.delete_key("s"));
    EXPECT_EQ(0, ini.find_key("t"));
}

TEST(IniValues, TypedReadsAndWrites) {
    ssb::ini_t ini;
    const std::string text = "[n]\na=12abc\nb= -7\nc=x\nd=99999999999\ne=-99999999999\nf=2.5e1\ng=true\nh=2\n";
    ASSERT_TRUE(ini.read_text(text.data(), text.size()));
    const std::pair<const char*, int> ints[] = {{"a", 12},      {"b", -7},      {"c", 0},
                                                {"d", INT_MAX}, {"e", INT_MIN}, {"missing", -1}};
    for (const auto& c : ints)
        EXPECT_EQ(c.second, ini.read_int32("n", c.first, -1)) << c.first;
    EXPECT_DOUBLE_EQ(25.0, ini.read_float("n", "f", 0));
    EXPECT_DOUBLE_EQ(1.5, ini.read_float("n", "missing", 1.5));
    EXPECT_FALSE(ini.read_bool("n", "g", true));  // words read as 0
    EXPECT_TRUE(ini.read_bool("n", "h", false));
    EXPECT_TRUE(ini.read_bool("n", "missing", true));
    EXPECT_EQ("dflt", ini.read_string("n", "missing", "dflt"));
    EXPECT_EQ(-1, ini.read_int32("missing", "a", -1));

    EXPECT_TRUE(ini.write_int32("w", "i", INT_MIN));
    EXPECT_TRUE(ini.write_float("w", "f", -1.125));
    EXPECT_FALSE(ini.write_float("w", "nan", std::nan("")));
    EXPECT_TRUE(ini.write_bool("w", "t", true));
    EXPECT_TRUE(ini.write_bool("w", "u", false));
    EXPECT_FALSE(ini.write_int32("absent", "i", 1, false));
    EXPECT_EQ(-1, ini.find_key("absent"));
    EXPECT_TRUE(ini.write_value_vargs("w", "pair", true, "%d,%s", 42, "x"));
    EXPECT_TRUE(ini.write_value_vargs("w", "long", true, "%s", std::string(1000, 'z').c_str()));
    EXPECT_FALSE(ini.write_value_vargs("w", "null", true, nullptr));
    EXPECT_EQ("i=-2147483648|f=-1.13|t=1|u=0|pair=42,x|long=" + std::string(1000, 'z') + "|",
              dump(ini).substr(dump(ini).find("[w]") + 3));
    int n = 0;
    char word[8] = {0};
    EXPECT_EQ(2, ini.read_value_vargs("w", "pair", "%d,%7s", &n, word));
    EXPECT_EQ(42, n);
    EXPECT_STREQ("x", word);
    EXPECT_EQ(0, ini.read_value_vargs("w", "missing", "%d", &n));
    EXPECT_EQ(0, ini.read_value_vargs("w", "pair", "word%d", &n));
}

TEST(IniComments, ByIndexAndByName) {
    ssb::ini_t ini;
    for (const char* c : {"one", "two", "three"})
        ini.header_comment(c);
    EXPECT_TRUE(ini.delete_header_comment(1));
    EXPECT_FALSE(ini.delete_header_comment(2));
    EXPECT_EQ("one", ini.header_comment(0u));
    EXPECT_EQ("three", ini.header_comment(1u));
    EXPECT_EQ("", ini.header_comment(2u));
    ini.delete_header_comments();

    EXPECT_FALSE(ini.key_comment("s", "lost")) << "no section to hold it";
    EXPECT_FALSE(ini.key_comment(0u, "lost"));
    ini.add_key("s");
    EXPECT_TRUE(ini.key_comment("s", "a"));
    EXPECT_TRUE(ini.key_comment(0u, "b"));
    EXPECT_EQ(0u, ini.num_key_comments("missing"));
    EXPECT_TRUE(ini.delete_key_comment("s", 0));
    EXPECT_FALSE(ini.delete_key_comment(0u, 1));
    EXPECT_EQ("b", ini.key_comment("s", 0u));
    EXPECT_EQ("", ini.key_comment(0u, 1u));
    EXPECT_EQ("[s]\n;b\n\n", ini.to_text());
    EXPECT_TRUE(ini.delete_key_comments("s"));
    EXPECT_FALSE(ini.delete_key_comments(3u));
    EXPECT_EQ("[s]\n\n", ini.to_text());
}

TEST(IniValues, CaseRuleFoldsNamesNotValues) {
    const std::string text = "[Net]\nPort=Eighty\n[NET]\nport=Ninety\n";
    ssb::ini_t ini;
    ini.case_insensitive();
    ASSERT_TRUE(ini.read_text(text.data(), text.size()));
    EXPECT_EQ("[net]port=Ninety|", dump(ini));
    EXPECT_EQ("Ninety", ini.read_string("nEt", "PORT", ""));
    EXPECT_EQ("mixed_case", ini.convert_case("MiXed_Case"));
    ssb::ini_t exact;
    ASSERT_TRUE(exact.read_text(text.data(), text.size()));
    EXPECT_EQ(-1, exact.find_key("net"));
}

TEST(IniValues, CopiesAreIndependent) {
    ssb::ini_t a("a.ini");
    for (int i = 0; i < 20; ++i)
        a.set_value("s", "k" + std::to_string(i), "a");
    ssb::ini_t b(a);
    ssb::ini_t c;
    c = a;
    b.set_value("s", "k3", "b");
    b.delete_value("s", "k0");
    c.delete_key("s");
    EXPECT_EQ("a", a.read_string("s", "k3", ""));
    EXPECT_EQ("b", b.read_string("s", "k3", ""));
    EXPECT_EQ(2, b.find_value(0, "k3"));
    EXPECT_EQ(3, a.find_value(0, "k3")) << "b's delete left a's index alone";
    EXPECT_EQ(0u, c.num_keys());
    EXPECT_EQ("a.ini", c.get_path());
    ssb::ini_t& same = a;
    a = same;
    EXPECT_EQ(20u, a.name_values(0u));
}

// The name indexes must answer exactly as a scan of the vectors would,
// through adds, overwrites and deletes that shift positions.
TEST(IniValues, IndexAgreesWithAScan) {
    std::mt19937 rng(7);
    ssb::ini_t ini;
    for (int step = 0; step < 20000; ++step) {
        const std::string key = "k" + std::to_string(rng() % 6);
        const std::string name = "v" + std::to_string(rng() % 30);
        const unsigned op = rng() % 10;
        if (op == 0)
            ini.delete_key(key);
        else if (op < 3)
            ini.delete_value(key, name);
        else
            ini.set_value(key, name, std::to_string(step), rng() % 4 != 0);
        int scanned_key = -1;
        for (unsigned k = 0; k < ini.num_keys() && scanned_key < 0; ++k) {
            if (ini.key_name(k) == key)
                scanned_key = static_cast<int>(k);
        }
        ASSERT_EQ(scanned_key, ini.find_key(key)) << step;
        if (scanned_key < 0)
            continue;
        const unsigned k = static_cast<unsigned>(scanned_key);
        int scanned_value = -1;
        for (unsigned v = 0; v < ini.name_values(k) && scanned_value < 0; ++v) {
            if (ini.value_name(k, v) == name)
                scanned_value = static_cast<int>(v);
        }
        ASSERT_EQ(scanned_value, ini.find_value(k, name)) << step;
    }
}

TEST(ConfPath, TextRules) {
    EXPECT_EQ("", ssb::get_home_path(nullptr));
    struct name_case_t {
        const char* path;
        const char* name;
        const char* surfix;
        int number;
    };
    const name_case_t names[] = {
        {"C:\\bin\\worker-2.exe", "worker-2.exe", "2.exe", 2},
        {"/usr/bin/worker-12", "worker-12", "12", 12},
        {"C:\\my-dir\\app.exe", "app.exe", "", 0},
        {"a-b-c", "a-b-c", "c", 0},
        {"w-", "w-", "", 0},
        {"w-x7", "w-x7", "x7", 0},
        {"dir\\", "", "", 0},
        {nullptr, "", "", 0},
    };
    for (const name_case_t& c : names) {
        const std::string name = ssb::get_exe_name(c.path);
        EXPECT_EQ(c.name, name) << (c.path ? c.path : "null");
        EXPECT_EQ(c.surfix, ssb::get_exe_surfix(name.c_str())) << name;
        EXPECT_EQ(c.number, ssb::get_exe_number(name.c_str())) << name;
    }
    EXPECT_EQ("", ssb::get_exe_surfix(nullptr));
    EXPECT_EQ(0, ssb::get_exe_number(nullptr));
    EXPECT_EQ("c", ssb::get_surfix_string("a::b::c", "::"));
    EXPECT_EQ("", ssb::get_surfix_string("abc", ""));
    EXPECT_EQ("", ssb::get_surfix_string(nullptr, "-"));

    set_env("SSB_HOME", nullptr);
    EXPECT_EQ("", ssb::get_ssb_home_path());
    EXPECT_EQ("", ssb::get_conf_path("C:\\bin\\app.exe"));
    set_env("SSB_HOME", "C:\\h\\");
    EXPECT_EQ("C:\\h\\", ssb::get_ssb_home_path());
    set_env("SSB_HOME", "C:\\h");
    const char* confs[][2] = {{"C:\\bin\\app.exe", "C:\\h\\conf\\ssb.cfg"},
                              {"worker-2.exe", "C:\\h\\conf\\ssb-2.exe.cfg"},
                              {nullptr, "C:\\h\\conf\\ssb.cfg"}};
    for (const auto& c : confs)
        EXPECT_EQ(c[1], ssb::get_conf_path(c[0])) << (c[0] ? c[0] : "null");
    set_env("SSB_HOME", nullptr);
}

}  // namespace
