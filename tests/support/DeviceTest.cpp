#include "DeviceTest.h"

#include "DeviceRoot.h"

#include <gtest/gtest-spi.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace rfsitest {

namespace {

// Distinct, increasing modification times, far from "now" so no real write can collide with them.
timespec nextModificationTime()
{
    static time_t seconds = 1'500'000'000;
    return timespec{++seconds, 0};
}

bool reportFailures(const ::testing::TestPartResultArray &results)
{
    bool failed = false;
    for (int i = 0; i < results.size(); ++i) {
        const ::testing::TestPartResult &result = results.GetTestPartResult(i);
        if (result.failed()) {
            std::fprintf(stderr, "%s:%d: %s\n", result.file_name() ? result.file_name() : "?", result.line_number(),
                         result.message());
            failed = true;
        }
    }
    return failed;
}

} // namespace

void writeDeviceFile(const std::string &path, const std::string &content, mode_t mode)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file << content;
        ASSERT_TRUE(file.flush()) << "cannot write " << path;
    }
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
    const timespec times[2] = {nextModificationTime(), nextModificationTime()};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

void installTool(const std::string &path, const std::string &script)
{
    writeDeviceFile(path, "#!/bin/sh\n" + script + "\n", 0755);
}

void inFreshProcess(const std::function<void()> &checks)
{
    // The test binary waits for its fresh process with SIGCHLD at its default, whatever the test set.
    struct sigaction callers = {}, waiting = {};
    waiting.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &waiting, &callers);
    // gtest silences a death test child's own reports, so the child collects its results and writes
    // the failures to standard error, which the parent shows.
    EXPECT_EXIT(
        {
            ::testing::TestPartResultArray results;
            {
                const ::testing::ScopedFakeTestPartResultReporter collector(
                    ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
                checks();
            }
            std::exit(reportFailures(results) ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
    ::sigaction(SIGCHLD, &callers, nullptr);
}

void installSampleDevice()
{
    const fs::path tree = RFSI_TEST_SOURCE_DIR "/examples/device";
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(tree)) {
        if (!entry.is_regular_file() || entry.path().filename() == "README.md")
            continue;
        std::ifstream source(entry.path(), std::ios::binary);
        std::ostringstream content;
        content << source.rdbuf();
        const fs::perms perms = entry.status().permissions();
        writeDeviceFile("/" + fs::relative(entry.path(), tree).string(), content.str(),
                        static_cast<mode_t>(perms & fs::perms::mask));
    }
}

void DeviceTest::SetUp()
{
    deviceroot::reset();
}

} // namespace rfsitest
