#include "unit/postfix/FreshStart.h"

#include "support/Child.h"
#include "support/FixedPaths.h"
#include "support/RealPostfix.h"
#include "support/ScratchDir.h"

#include <filesystem>
#include <map>
#include <string>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace support {

namespace {

namespace fs = std::filesystem;

enum BodyEnd : int { passed = 0, failed = 1, skipped = 2, leaked = 3 };

/// A child leaves through _exit(2), where the sanitizer would not look for leaks.
bool leaksMemory()
{
#ifdef __SANITIZE_ADDRESS__
    return __lsan_do_recoverable_leak_check() != 0;
#else
    return false;
#endif
}

/// These tests change the system's own paths: outside of scripts/sandbox none of them runs.
class SandboxGuard : public testing::Environment {
public:
    void SetUp() override
    {
        if (!fs::exists(sandboxDirectory))
            FAIL() << "run this through scripts/sandbox";
    }
};
const testing::Environment* const sandboxGuard = testing::AddGlobalTestEnvironment(new SandboxGuard);

class FreshFiles : public testing::EmptyTestEventListener {
    void OnTestProgramStart(const testing::UnitTest& /*program*/) override
    {
        for (const char* const path : {mainCfPath, masterCfPath})
            if (fs::exists(path))
                originals_[path] = readFile(path);
    }

    // Not reached outside of the sandbox.
    void OnTestStart(const testing::TestInfo& /*test*/) override
    {
        for (const auto& [path, content] : originals_) {
            fs::remove_all(path);
            writeFile(path, content);
        }
        ageMainCf();
        emptyDirectory(lockDirectory);
        emptyDirectory(spoolDirectory);
        fs::remove_all(pidFilePath);
    }

    std::map<std::string, std::string> originals_;
};

const bool filesAreFresh = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new FreshFiles);
    return true;
}();

} // namespace

void FreshProcessTest::TestBody()
{
    const pid_t child = forkChild([this] {
        body();
        if (HasFailure())
            return failed;
        if (IsSkipped())
            return skipped;
        return leaksMemory() ? leaked : passed;
    });
    const int status = waitFor(child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == skipped)
        GTEST_SKIP() << "in its own process";
    EXPECT_EQ(0, status) << "wait status of the test's own process";
}

} // namespace support
