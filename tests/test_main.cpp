#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <string>

int main(int argc, char** argv) {
    // Logs written by the tests stay in the build tree, never in the user's
    // home, even when a test binary is run by hand. (CTest sets this too; on
    // Windows the folder comes from the shell, and Wine keeps it inside its
    // prefix.)
    if (!getenv("XDG_DATA_HOME")) {
        static std::string setting = "XDG_DATA_HOME=" + (std::filesystem::current_path() / "test-home").string();
        putenv(&setting[0]);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
