// reportException: the whole report on both streams.
#include "common/reportException.h"

#include "common/SystemError.h"
#include "common/Traceback.h"
#include "common/UtilityErrorStream.h"
#include "support/Capture.h"
#include "support/Child.h"
#include "support/LibcFaults.h"

#include <cxxabi.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <typeinfo>

using testing::MatchesRegex;

namespace report_test {

class Plain : public std::exception {
public:
    const char* what() const noexcept override { return "plain text"; }
};

class WithoutText : public std::exception {
public:
    const char* what() const noexcept override { return nullptr; }
};

class Traced : public std::runtime_error, public zorvo::Traceback {
public:
    explicit Traced(unsigned long skip) : std::runtime_error("traced"), Traceback(skip) {}
};

template <class T>
class Template : public Plain {
    T value = T();
};

} // namespace report_test

namespace {

struct Report {
    std::string out;
    std::string err;
};

Report reportOf(const std::exception& e)
{
    support::Capture capture;
    zorvo::reportException<std::exception>(e);
    Report report;
    report.err = capture.err();
    report.out = capture.out();
    return report;
}

/// An exception whose run-time type has a name that no compiler would make. Its table of virtual functions
/// is a copy of a real one with another type in it (the layout is that of the Itanium C++ ABI).
class Nameless {
public:
    Nameless()
    {
        void** table = nullptr;
        std::memcpy(&table, static_cast<const void*>(&exception_), sizeof table);
        std::memcpy(table_, table - 2, sizeof table_);
        table_[1] = const_cast<void*>(static_cast<const void*>(&type_));
        void** const entry = table_ + 2;
        std::memcpy(static_cast<void*>(&exception_), &entry, sizeof entry);
    }

    const std::exception& get() const { return exception_; }

private:
    static const abi::__class_type_info* base()
    {
        return static_cast<const abi::__class_type_info*>(&typeid(report_test::Plain));
    }

    abi::__si_class_type_info type_{"*no mangled name", base()};
    report_test::Plain exception_;
    void* table_[5]; // offset to top, type, two destructors, what
};

} // namespace

TEST(ReportExceptionTest, NamesTypeAndText)
{
    EXPECT_EQ("Fatal error: std::runtime_error(either ipv4 and ip6 empty)\n",
              reportOf(std::runtime_error("either ipv4 and ip6 empty")).err);
}

TEST(ReportExceptionTest, StandardOutputGetsTheSameText)
{
    EXPECT_EQ("Fatal error: std::runtime_error(either ipv4 and ip6 empty)\n",
              reportOf(std::runtime_error("either ipv4 and ip6 empty")).out);
}

TEST(ReportExceptionTest, TypeIsTheDynamicOne)
{
    const std::out_of_range error("far");
    const std::exception& base = error;
    EXPECT_EQ("Fatal error: std::out_of_range(far)\n", reportOf(base).err);
}

TEST(ReportExceptionTest, SystemErrorShowsItsReason)
{
    EXPECT_EQ("Fatal error: zorvo::SystemError(stdin pipe: Permission denied)\n",
              reportOf(zorvo::SystemError("stdin pipe", EACCES)).err);
}

TEST(ReportExceptionTest, TypedSystemErrorShowsItsNumber)
{
    EXPECT_EQ("Fatal error: zorvo::ExSystemError<2>(open: No such file or directory)\n",
              reportOf(zorvo::ExSystemError<ENOENT>("open")).err);
}

TEST(ReportExceptionTest, TemplateNamesAreReadable)
{
    EXPECT_EQ("Fatal error: report_test::Template<int>(plain text)\n",
              reportOf(report_test::Template<int>()).err);
}

TEST(ReportExceptionTest, TextWithNewlinesIsShownAsItIs)
{
    EXPECT_EQ("Fatal error: std::runtime_error(a\n%s\n)\n", reportOf(std::runtime_error("a\n%s\n")).err);
}

TEST(ReportExceptionTest, NameThatCannotBeDemangledIsShownRaw)
{
    const Nameless nameless;
    const Report report = reportOf(nameless.get());
    EXPECT_EQ("Fatal error: no mangled name(plain text)\n", report.err);
}

TEST(ReportExceptionTest, ExceptionThatIsATracebackIsFollowedByItsFrames)
{
    const Report report = reportOf(report_test::Traced(0));
    EXPECT_THAT(report.err,
                MatchesRegex("Fatal error: report_test::Traced\\(traced\\)\nTraceback:\n(\t[^\n]+\n){1,11}"));
}

TEST(ReportExceptionTest, FramesReachStandardOutputToo)
{
    const Report report = reportOf(report_test::Traced(0));
    EXPECT_EQ(report.err, report.out);
}

// In a child: the copy for standard output is cut at the size of the buffer left by earlier reports.
TEST(ReportExceptionTest, WithoutMemoryTheNameIsShownRawAndTheReportIsWhole)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const report_test::Template<int> exception;
    const std::string report = std::string("Fatal error: ") + typeid(exception).name() + "(plain text)\n";
    const support::ChildResult result = support::runInChild([&exception] {
        const support::MemoryFault fault(0, 1000);
        zorvo::reportException<std::exception>(exception);
        return fault.left() < 1000 && zorvo::uerr.good() ? 0 : 1;
    });
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_EQ(report, result.err);
    EXPECT_EQ(report.substr(0, result.out.size()), result.out);
}

TEST(ReportExceptionTest, WithoutMemoryFramesAreShownRaw)
{
    if (!support::MemoryFault::available())
        GTEST_SKIP() << "memory cannot be refused under a sanitizer";
    const report_test::Traced exception(0);
    (void)reportOf(exception); // makes the table of symbols
    const support::ChildResult result = support::runInChild([&exception] {
        const support::MemoryFault fault(0, 1000);
        zorvo::reportException<std::exception>(exception);
        return zorvo::uerr.good() ? 0 : 1;
    });
    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_THAT(result.err, MatchesRegex("Fatal error: N11report_test6TracedE\\(traced\\)\nTraceback:\n"
                                         "(\t[^\n]+\n){1,11}"));
}

// In a child: bare addresses are not flushed, and what is left in the stream would show in other tests.
TEST(ReportExceptionTest, TracebackWithoutFramesShowsItsOtherTitle)
{
    const support::ChildResult result = support::runInChild([] {
        zorvo::reportException<std::exception>(report_test::Traced(11));
        return 0;
    });
    EXPECT_EQ("Fatal error: report_test::Traced(traced)\nTraceback addresses:\n", result.err);
}

// The stream is in a child: its badbit would swallow the reports of other tests.
TEST(ReportExceptionTest, NullTextSetsBadbitInPlaceOfPrinting)
{
    const support::ChildResult result = support::runInChild([] {
        zorvo::reportException<std::exception>(report_test::WithoutText());
        return zorvo::uerr.bad() ? 0 : 1;
    });
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("Fatal error: report_test::WithoutText(", result.err);
}

TEST(ReportExceptionTest, OrdinaryReportLeavesTheStreamGood)
{
    reportOf(std::runtime_error("x"));
    EXPECT_TRUE(zorvo::uerr.good());
}

TEST(ReportExceptionTest, TwoReportsStandOneAfterTheOther)
{
    support::Capture capture;
    zorvo::reportException<std::exception>(std::runtime_error("1"));
    zorvo::reportException<std::exception>(std::logic_error("2"));
    EXPECT_EQ("Fatal error: std::runtime_error(1)\nFatal error: std::logic_error(2)\n", capture.out());
}
