// ZorvoUtilException: a text and nothing else.
#include "common/SystemError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <type_traits>

TEST(ZorvoUtilExceptionTest, WhatIsTheMessage)
{
    errno = ENOENT;
    EXPECT_STREQ("complete as it stands", zorvo::ZorvoUtilException("complete as it stands").what());
}

TEST(ZorvoUtilExceptionTest, IsARuntimeError)
{
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, zorvo::ZorvoUtilException>));
}
