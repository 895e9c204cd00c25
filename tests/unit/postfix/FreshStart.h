// FreshStart: every test begins as if it were the only one.
//
// Before each test of this program the files that tests change are put back as scripts/sandbox made them:
// main.cf and master.cf of /etc/postfix, and nothing in /run/lock/files, in /var/spool/postfix/zorvo and at
// the place of master's pid file. That needs nothing in the test.
//
// MainCfManager and ModuleManager exist once in a process, from their first use to its end. A test that uses
// them, or code that does, is written with PROCESS_TEST_F over a fixture derived from FreshProcessTest: it
// runs in a forked child of this process, which itself never uses them.
#pragma once

#include <gtest/gtest.h>

namespace support {

/// The fixture is made and destroyed in the test program; only the body runs in the child. What the body
/// expects in vain is printed there and fails the test here; so does an exception.
class FreshProcessTest : public testing::Test {
protected:
    virtual void body() = 0;

private:
    void TestBody() final;
};

} // namespace support

/// As TEST_F, for a fixture derived from FreshProcessTest. `this` is the fixture.
#define PROCESS_TEST_F(fixture, name)                                                                        \
    class fixture##_##name : public fixture {                                                                \
        void body() override;                                                                                \
    };                                                                                                       \
    [[maybe_unused]] const testing::TestInfo* const fixture##_##name##_registered =                          \
        testing::RegisterTest(#fixture, #name, nullptr, nullptr, __FILE__, __LINE__,                         \
                              []() -> fixture* { return new fixture##_##name; });                            \
    void fixture##_##name::body()
