// printDemangled: readable names, and names that stay as they are.
#include "common/Traceback.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string_view>
#include <typeinfo>

namespace {

std::string demangle(std::string_view symbol)
{
    std::ostringstream out;
    zorvo::printDemangled(out, symbol);
    return out.str();
}

} // namespace

TEST(DemangleTest, TypeNameBecomesReadable)
{
    EXPECT_EQ("std::runtime_error", demangle(typeid(std::runtime_error).name()));
}

TEST(DemangleTest, FunctionSymbolBecomesReadable)
{
    EXPECT_EQ("std::ostream::operator<<(int)", demangle("_ZNSolsEi"));
}

TEST(DemangleTest, CFunctionStaysAsItIs)
{
    EXPECT_EQ("__libc_start_main", demangle("__libc_start_main"));
}

TEST(DemangleTest, BrokenSymbolStaysAsItIs)
{
    EXPECT_EQ("_ZN3foo", demangle("_ZN3foo"));
}

TEST(DemangleTest, EmptyTextStaysEmpty)
{
    EXPECT_EQ("", demangle(""));
}

TEST(DemangleTest, TextBehindTheSymbolIsNotLookedAt)
{
    EXPECT_EQ("std::ostream::operator<<(int)", demangle(std::string_view("_ZNSolsEi+0x1a", 9)));
}
