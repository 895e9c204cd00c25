// Parameters and services as postconf shows them: the runs of the tool, and how its output is read.
#include "postfix/PostconfReader.h"

#include "unit/postfix/ReaderTest.h"

namespace zorvo::mail::postfix {

namespace {

using support::postconfPath;
using support::ToolAnswer;
using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::SizeIs;

class PostconfReaderTest : public support::ReaderTest {
protected:
    PostconfReaderTest() : ReaderTest(postconfPath) {}
};

} // namespace

TEST_F(PostconfReaderTest, ReadsAllParametersInOneRun)
{
    tools.answer(postconfPath,
                 ToolAnswer::prints("inet_interfaces = all\nsmtp_bind_address =\nmaps = inline:{ a = b }\n"));
    EXPECT_THAT(PostconfReader::readParameters({"inet_interfaces", "smtp_bind_address", "maps", "unknown"}),
                ElementsAre(Pair("inet_interfaces", "all"), Pair("maps", "inline:{ a = b }"),
                            Pair("smtp_bind_address", "")));
    EXPECT_THAT(tools.commandLines(), ElementsAre(ElementsAre(postconfPath, "-x", "inet_interfaces",
                                                              "smtp_bind_address", "maps", "unknown")));
}

TEST_F(PostconfReaderTest, RefusedMainCfThrowsTheToolsErrorOutput)
{
    tools.answer(postconfPath, ToolAnswer::fails(1, "postconf: fatal: open main.cf: no\n"));
    try {
        (void)PostconfReader::readParameters({"inet_interfaces"});
        FAIL() << "expected PostfixConfigurationError";
    } catch (const PostfixConfigurationError& e) {
        EXPECT_STREQ(e.what(), "postconf: fatal: open main.cf: no\n");
    }
}

TEST_F(PostconfReaderTest, ReadsServicesOfThePrefixWithTheirParameters)
{
    tools.answer(postconfPath, {"-M"},
                 ToolAnswer::prints("smtp       unix  -       -       y       -       -       smtp\n"
                                    "zorvo-a    unix  -       -       n       -       -       smtp -o x=1\n"
                                    "zorvo-a    inet  -       -       n       -       -       smtpd\n"
                                    "zorvo-b unix - - n - -  smtp\n"));
    tools.answer(postconfPath, {"-P"},
                 ToolAnswer::prints("zorvo-a/unix/x = 1 = one\nzorvo-a/unix/y =\nzorvo-a/inet/z = 2\n"
                                    "smtp/unix/x = 3\n"));
    const auto services = PostconfReader::readServices("zorvo-");
    ASSERT_THAT(services, SizeIs(2));
    EXPECT_EQ(services.at("zorvo-a").line, "zorvo-a unix - - n - - smtp -o x=1");
    EXPECT_THAT(services.at("zorvo-a").parameters, ElementsAre(Pair("x", "1 = one"), Pair("y", "")));
    EXPECT_EQ(services.at("zorvo-b").line, "zorvo-b unix - - n - - smtp");
    EXPECT_THAT(services.at("zorvo-b").parameters, SizeIs(0));
    EXPECT_THAT(tools.commandLines(),
                ElementsAre(ElementsAre(postconfPath, "-M"), ElementsAre(postconfPath, "-P")));
}

TEST_F(PostconfReaderTest, RefusedMasterCfThrows)
{
    tools.answer(postconfPath, ToolAnswer::fails(1, ""));
    EXPECT_THROW((void)PostconfReader::readServices("zorvo-"), PostfixConfigurationError);
}

} // namespace zorvo::mail::postfix
