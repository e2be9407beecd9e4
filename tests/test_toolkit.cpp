#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "lock.h"
#include "toolkit.h"

namespace fs = std::filesystem;

namespace {

struct split_case_t {
    const char* path;
    const char* dir;
    const char* file;
};

TEST(Toolkit, SplitPathAtTheLastSeparatorOfEitherKind) {
    const split_case_t cases[] = {
        {"C:\\a\\b.log", "C:\\a\\", "b.log"},
        {"/var/log/x.txt", "/var/log/", "x.txt"},
        {"a/b\\c", "a/b\\", "c"},
        {"name", "", "name"},
        {"dir/", "dir/", ""},
        {"", "", ""},
    };
    for (const split_case_t& c : cases) {
        char dir[64] = "junk";
        char file[64] = "junk";
        ASSERT_EQ(0, split_path(c.path, dir, sizeof(dir), file, sizeof(file))) << c.path;
        EXPECT_STREQ(c.dir, dir) << c.path;
        EXPECT_STREQ(c.file, file) << c.path;
    }
    char small[3];
    EXPECT_EQ(2, split_path("abc/def", small, sizeof(small), nullptr, 0));
    EXPECT_EQ(0, split_path("a/cd", small, sizeof(small), nullptr, 0));
    EXPECT_STREQ("a/", small);
    EXPECT_EQ(2, split_path(nullptr, small, sizeof(small), nullptr, 0));
}

TEST(Toolkit, TerminalCharacter) {
    EXPECT_TRUE(is_terminal_with_special("dir\\", '\\'));
    EXPECT_FALSE(is_terminal_with_special("dir\\x", '\\'));
    EXPECT_FALSE(is_terminal_with_special("", '\\'));
    EXPECT_FALSE(is_terminal_with_special(nullptr, '/'));
    EXPECT_TRUE(is_terminal_with_special("/", '/'));
}

TEST(Toolkit, CreateDirMakesEveryMissingLevel) {
    const fs::path base = fs::current_path() / ("toolkit_" + std::to_string(get_cur_pid()));
    fs::remove_all(base);
    const fs::path deep = base / "a" / "b" / "c";
    EXPECT_FALSE(is_dir_exist(deep.string().c_str()));
    EXPECT_EQ(0, create_dir(deep.string().c_str()));
    EXPECT_TRUE(is_dir_exist(deep.string().c_str()));
    EXPECT_EQ(0, create_dir((deep.string() + "/").c_str()));  // exists: fine
    EXPECT_FALSE(is_file_exist(deep.string().c_str()));
    const fs::path file = deep / "f.txt";
    {
        std::FILE* f = std::fopen(file.string().c_str(), "w");
        ASSERT_NE(nullptr, f);
        std::fclose(f);
    }
    EXPECT_TRUE(is_file_exist(file.string().c_str()));
    EXPECT_FALSE(is_dir_exist(file.string().c_str()));
    // A file in the way cannot become a directory.
    EXPECT_NE(0, create_dir((file / "below").string().c_str()));
    EXPECT_EQ(2, create_dir(""));
    EXPECT_EQ(2, create_dir(nullptr));
    EXPECT_FALSE(is_dir_exist(nullptr));
    fs::remove_all(base);
}

TEST(Toolkit, ProcessQueries) {
    char name[256];
    ASSERT_EQ(0, get_self_process_name(name, sizeof(name)));
    EXPECT_STREQ("test_toolkit", name);
    char tiny[4];
    EXPECT_EQ(2, get_self_process_name(tiny, sizeof(tiny)));
    char cwd[4096];
    ASSERT_EQ(0, get_cur_path(cwd, sizeof(cwd)));
    EXPECT_TRUE(fs::equivalent(fs::current_path(), fs::path(cwd)));
    EXPECT_NE(0u, get_cur_pid());
}

TEST(Toolkit, ApplicationDataFolderExistsAfterTheCall) {
    char path[4096];
    ASSERT_EQ(0, get_special_path(SSB_FOLDER_APPDATA, path, sizeof(path), 1));
    EXPECT_TRUE(is_dir_exist(path));
    EXPECT_FALSE(is_terminal_with_special(path, '/'));
    EXPECT_FALSE(is_terminal_with_special(path, '\\'));
    EXPECT_EQ(2, get_special_path(SSB_FOLDER_APPDATA, nullptr, 0, 0));
    char tiny[2];
    EXPECT_EQ(2, get_special_path(SSB_FOLDER_APPDATA, tiny, sizeof(tiny), 0));
}

}  // namespace
