// Traceback: how many frames are captured, which are printed, and in which form. printDemangled: readable
// names, and names that stay as they are.
#include "common/Traceback.h"

#include "support/LibcFaults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

using testing::Contains;
using testing::MatchesRegex;
using zorvo::Traceback;

namespace {

std::string printed(const Traceback& trace)
{
    std::ostringstream out;
    out << trace;
    return out.str();
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

/// A Traceback made `depth` calls deeper than the caller, so that more frames exist than are captured.
__attribute__((noinline)) std::optional<Traceback> capturedDeep(int depth, unsigned long skip)
{
    if (depth == 0)
        return Traceback(skip);
    std::optional<Traceback> result = capturedDeep(depth - 1, skip);
    asm volatile("" ::: "memory"); // keeps the call from becoming a jump
    return result;
}

Traceback deepTrace(unsigned long skip)
{
    return *capturedDeep(30, skip);
}

/// Captures a Traceback below functions of the C++ library, whose symbols are known.
class TracingBuffer : public std::streambuf {
public:
    std::optional<Traceback> trace;

protected:
    int_type overflow(int_type c) override
    {
        if (!trace)
            trace.emplace(0UL);
        return c;
    }
};

/// Captured below `std::ostream << double`.
Traceback libraryTrace()
{
    TracingBuffer buffer;
    std::ostream stream(&buffer);
    stream << 1.5;
    return *buffer.trace;
}

std::string demangle(std::string_view symbol)
{
    std::ostringstream out;
    zorvo::printDemangled(out, symbol);
    return out.str();
}

} // namespace

TEST(TracebackTest, PrintsItsTitleFirst)
{
    EXPECT_EQ("Traceback:", linesOf(printed(Traceback(0))).at(0));
}

TEST(TracebackTest, DeepStackIsCutAtElevenFrames)
{
    EXPECT_EQ(1U + 11U, linesOf(printed(deepTrace(0))).size());
}

// Captured at one place of a loop, so that the frames are the same ones.
TEST(TracebackTest, SkippedFramesAreTheInnermostOnes)
{
    std::vector<std::vector<std::string>> lines;
    for (const unsigned long skip : {0UL, 4UL})
        lines.push_back(linesOf(printed(deepTrace(skip))));
    std::vector<std::string> expected = lines.at(0);
    expected.erase(expected.begin() + 1, expected.begin() + 1 + 4);
    EXPECT_EQ(expected, lines.at(1));
}

TEST(TracebackTest, LastFrameAloneIsPrintedWhenAllOthersAreSkipped)
{
    EXPECT_EQ(2U, linesOf(printed(deepTrace(10))).size());
}

TEST(TracebackTest, SkippingAllFramesPrintsTheOtherTitleAndNothingElse)
{
    EXPECT_EQ("Traceback addresses:\n", printed(deepTrace(11)));
}

TEST(TracebackTest, SkippingMoreThanAllFramesPrintsTheOtherTitleAndNothingElse)
{
    EXPECT_EQ("Traceback addresses:\n", printed(deepTrace(12)));
    EXPECT_EQ("Traceback addresses:\n", printed(deepTrace(ULONG_MAX)));
}

TEST(TracebackTest, EveryFrameIsATabAndASymbolLine)
{
    std::vector<std::string> lines = linesOf(printed(deepTrace(0)));
    lines.erase(lines.begin());
    for (const std::string& line : lines)
        EXPECT_THAT(line, MatchesRegex("\t[^(]+\\(.*\\) \\[0x[0-9a-f]+\\]"));
}

TEST(TracebackTest, TextEndsWithANewline)
{
    EXPECT_EQ('\n', printed(deepTrace(0)).back());
}

TEST(TracebackTest, SymbolOfALibraryFunctionIsShownReadable)
{
    const std::string text = printed(libraryTrace());
    EXPECT_THAT(linesOf(text),
                Contains(MatchesRegex("\t/[^(]*/libstdc\\+\\+\\.so\\.6\\(std::ostream& "
                                      "std::ostream::_M_insert<double>\\(double\\)\\+0x[0-9a-f]+\\) "
                                      "\\[0x[0-9a-f]+\\]")))
        << text;
}

TEST(TracebackTest, SymbolThatIsNotACxxNameStaysAsItIs)
{
    static std::string text;
    int numbers[] = {2, 1};
    std::qsort(numbers, 2, sizeof numbers[0], [](const void*, const void*) {
        text = printed(Traceback(0));
        return 0;
    });
    EXPECT_THAT(linesOf(text), Contains(MatchesRegex("\t/[^(]*/libc\\.so\\.6\\(qsort_r\\+0x[0-9a-f]+\\) "
                                                     "\\[0x[0-9a-f]+\\]")))
        << text;
}

TEST(TracebackTest, SecondPrintSaysTheSame)
{
    const Traceback trace = deepTrace(0);
    const std::string first = printed(trace);
    EXPECT_EQ(first, printed(trace));
}

TEST(TracebackTest, CopySaysTheSame)
{
    auto original = std::make_unique<Traceback>(deepTrace(2));
    const std::string expected = printed(*original);
    const Traceback copy = *original;
    original.reset();
    EXPECT_EQ(expected, printed(copy));
}

TEST(TracebackTest, CopyMadeBeforeTheFirstPrintSaysTheSame)
{
    const Traceback original = deepTrace(2);
    const Traceback copy = original;
    EXPECT_EQ(printed(original), printed(copy));
}

TEST(TracebackTest, AssignmentAfterAPrintReplacesTheFrames)
{
    const Traceback other = deepTrace(3);
    Traceback trace = libraryTrace();
    ASSERT_NE(printed(other), printed(trace));
    trace = other;
    EXPECT_EQ(printed(other), printed(trace));
}

TEST(TracebackTest, AssignmentToItselfChangesNothing)
{
    Traceback trace = deepTrace(0);
    const std::string expected = printed(trace);
    const Traceback& same = trace;
    trace = same;
    EXPECT_EQ(expected, printed(trace));
}

TEST(TracebackTest, WithoutMemoryForSymbolsBareAddressesArePrinted)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const Traceback trace = deepTrace(2);
    std::ostringstream out;
    {
        const support::MemoryFault fault(0);
        out << trace;
        ASSERT_EQ(0, fault.left());
    }
    EXPECT_THAT(out.str(), MatchesRegex("Traceback addresses:\n(\t0x[0-9a-f]+\n){9}"));
}

TEST(TracebackTest, HasAVirtualDestructor)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<Traceback>);
}

TEST(TracebackTest, IsNotAnException)
{
    EXPECT_FALSE((std::is_base_of_v<std::exception, Traceback>));
}

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

TEST(DemangleTest, TextAfterTheSymbolIsIgnored)
{
    EXPECT_EQ("std::ostream::operator<<(int)", demangle(std::string_view("_ZNSolsEi+0x1a", 9)));
}
