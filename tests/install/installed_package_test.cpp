// A game team's first use of an installed dm: install this build to a fresh prefix, build the
// example game in examples/quickstart against it with find_package, and let the installed
// dm-pipe-echo talk to it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

using dmtest::ChildProcess;
using std::chrono::seconds;

std::string quoted(const std::string& text) {
    return "'" + text + "'";
}

// Runs `command` through the shell, bounded; its exit code, with everything it printed.
int runCommand(const std::string& command, std::string& output, seconds bound = seconds(240)) {
    ChildProcess process("/bin/sh", {"-c", command + " 2>&1"});
    const int code = process.wait(bound);
    output = process.output();
    return code;
}

TEST(InstalledPackage, ExampleGameBuildsWithFindPackageAndServesTheInstalledTool) {
#ifdef DM_WITHOUT_TOOLS
    GTEST_SKIP() << "configured without the tools (DM_BUILD_TOOLS=OFF)";
#else
    dmtest::TempDir dir;
    const std::string prefix = dir.file("prefix");
    const std::string build = dir.file("build");
    std::string output;

    ASSERT_EQ(0, runCommand(quoted(DM_CMAKE_COMMAND) + " --install " + quoted(DM_BUILD_DIR) +
                                " --prefix " + quoted(prefix),
                            output))
        << output;
    EXPECT_TRUE(std::filesystem::exists(prefix + "/bin/dm-pipe-echo"));
    EXPECT_TRUE(std::filesystem::exists(prefix + "/bin/dm-monitor"));
    EXPECT_TRUE(std::filesystem::exists(prefix + "/include/dm/comm.h"));
    EXPECT_TRUE(std::filesystem::exists(prefix + "/include/dm/zul/zu/string.h"));
    EXPECT_TRUE(std::filesystem::exists(prefix + "/share/doc/dm/pipe-protocol.md"));
    // Nothing generic at the top of the prefix's include folder.
    EXPECT_FALSE(std::filesystem::exists(prefix + "/include/zu"));
    EXPECT_FALSE(std::filesystem::exists(prefix + "/include/net"));

    const std::string configure =
        quoted(DM_CMAKE_COMMAND) + " -S " + quoted(DM_EXAMPLE_SOURCE_DIR) + " -B " + quoted(build) +
        " -G " + quoted(DM_GENERATOR) + " -DCMAKE_MAKE_PROGRAM=" + quoted(DM_MAKE_PROGRAM) +
        " -DCMAKE_CXX_COMPILER=" + quoted(DM_CXX_COMPILER) +
        " -DCMAKE_BUILD_TYPE=Debug -DCMAKE_PREFIX_PATH=" + quoted(prefix) +
        // A library built with sanitizers needs them in the program too.
        " -DCMAKE_CXX_FLAGS=" + quoted(DM_SANITIZE_FLAGS) +
        " -DCMAKE_EXE_LINKER_FLAGS=" + quoted(DM_SANITIZE_FLAGS);
    ASSERT_EQ(0, runCommand(configure, output)) << output;
    ASSERT_EQ(0, runCommand(quoted(DM_CMAKE_COMMAND) + " --build " + quoted(build), output))
        << output;

    // The console keeps its cache in the writable folder, here the temporary one.
    setenv("DM_WRITE_PATH", dir.path().c_str(), 1);
    ChildProcess game(build + "/dm-quickstart", {"60"});
    const std::string port = game.portAfter("pipes on port ");
    ASSERT_FALSE(port.empty()) << game.output();
    ChildProcess client(prefix + "/bin/dm-pipe-echo", {"client", "127.0.0.1", port, "2"});
    EXPECT_EQ(0, client.wait(seconds(30))) << client.output();
    EXPECT_NE(std::string::npos, client.output().find("\"request 2\" answered \"request 2\" "
                                                      "with 2000 bytes, intact"))
        << client.output();
    EXPECT_EQ(0, game.wait(seconds(30))) << game.output();
    EXPECT_NE(std::string::npos, game.output().find("pipe client served, shut down"));
    EXPECT_TRUE(std::filesystem::exists(dir.file("consolecache.bin")));
#endif
}

}  // namespace
