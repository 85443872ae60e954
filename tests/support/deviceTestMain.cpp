// The tests' main: the whole run happens inside a private device root, or not at all.
#include "DeviceRoot.h"

#include <QString>
#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // A fresh process must really be fresh: the death test child re-executes this binary.
    GTEST_FLAG_SET(death_test_style, "threadsafe");

    if (!GTEST_FLAG_GET(list_tests)) {
        deviceroot::Options options;
        // Parents first: the build tree usually lies inside the source tree.
        options.hostFolders = {{RFSI_TEST_SOURCE_DIR, false}, {RFSI_TEST_BINARY_DIR, true}};
        try {
            deviceroot::enter(options);
        } catch (const deviceroot::SetupError &error) {
            std::fprintf(stderr,
                         "%s: cannot set up the private device root: %s\n"
                         "The tests run only there, never against this machine's own paths.\n",
                         argv[0], error.what());
            return 1;
        }
    }
    // The command runner's debug line per run would flood the log; tests that check it collect it.
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &message) {
        if (type != QtDebugMsg)
            std::fprintf(stderr, "%s\n", qPrintable(message));
    });
    return RUN_ALL_TESTS();
}
