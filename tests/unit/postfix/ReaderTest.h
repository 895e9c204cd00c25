// ReaderTest: the fixture of tests of what reads through one of Postfix's tools.
#pragma once

#include "postfix/PostfixError.h"
#include "unit/postfix/ToolStandIns.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace support {

/// With that tool replaced.
class ReaderTest : public ::testing::Test {
protected:
    explicit ReaderTest(const std::string& tool) { tools.replace(tool); }

    ToolStandIns tools;
};

} // namespace support
