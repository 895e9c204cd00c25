// The request document on standard input: what is accepted, and the exact message for everything else.
#include "Fixture.h"

#include <unistd.h>

namespace contract {

namespace {

using std::string_literals::operator""s;

const char* const missingFields =
    "Some required fields are missing from the JSON object. Check that input JSON document "
    "conforms to schema. ";
const char* const badCharacter =
    "Invalid character found in string. Check that strings do not contain control characters. ";
const char* const badUnicode =
    "Invalid or unsupported Unicode character or escape sequence found in string. UTF8 "
    "encoded characters and '\\u' escape sequences are not supported. ";

// An element that is complete except for what comes before its closing brace.
std::string elementWith(const std::string& members)
{
    return "{\"domains\": [{\"domain\": \"one.example\", \"ip4_addr\": \"192.0.2.1\", \"ip6_addr\": \"\"" +
           members + "}]}";
}

const std::vector<std::string> oneRecord = {"@one.example zorvo-192.0.2.1-:\n"};

class RequestTest : public ContractTest {
protected:
    static void expectRefused(const std::string& document, const std::string& reason)
    {
        expectRefused(Program({"-t", "domain-ip"}).pipe(document), reason);
    }

    static void expectRefused(Program& program, const std::string& reason)
    {
        const World before = world();
        const Outcome outcome = program.run();
        EXPECT_EQ(outcome.end, badRequest(reason));
        EXPECT_EQ(outcome.commands(), std::vector<Command>());
        EXPECT_EQ(world(), before);
    }

    static void expectRecords(const std::string& document, const std::vector<std::string>& records)
    {
        const Outcome outcome = Program({"-t", "domain-ip"}).pipe(document).run();
        EXPECT_EQ(outcome.end, success());
        EXPECT_EQ(outcome.records(), records);
    }
};

// No message contains the system error of an unrelated call.
class RequestErrnoTest : public RequestTest {};

const char noObject[] = "JSON object is expected. Error occured at offset 0, character '['. ";
const char noText[] = "JSON object is expected. Error occured at offset 0, character '\\x00'. ";

} // namespace

// Where the input comes from.

TEST_F(RequestErrnoTest, PipeAddsNoSystemError)
{
    expectRefused(Program({"-t", "domain-ip"}).pipe("[]"), noObject);
}

TEST_F(RequestErrnoTest, RegularFileAddsNoSystemError)
{
    expectRefused(Program({"-t", "domain-ip"}).file("[]"), noObject);
}

TEST_F(RequestErrnoTest, SocketAddsNoSystemError)
{
    expectRefused(Program({"-t", "domain-ip"}).socket("[]"), noObject);
}

TEST_F(RequestErrnoTest, TerminalAddsNoSystemError)
{
    expectRefused(Program({"-t", "domain-ip"}).terminal("[]"), noObject);
}

TEST_F(RequestErrnoTest, DevNullAddsNoSystemError)
{
    expectRefused(Program({"-t", "domain-ip"}).device("/dev/null"), noText);
}

TEST_F(RequestErrnoTest, EmptyFileAddsNoSystemError)
{
    expectRefused(Program({"-t", "domain-ip"}).file(""), noText);
}

TEST_F(RequestErrnoTest, EmptyPipeAddsNoSystemError)
{
    expectRefused(Program({"-t", "domain-ip"}).pipe(""), noText);
}

TEST_F(RequestErrnoTest, ClosedInputCountsAsEmptyAndAddsNoSystemError)
{
    expectRefused(Program({"-t", "domain-ip"}).before([] { close(STDIN_FILENO); }), noText);
}

TEST_F(RequestErrnoTest, AllStandardDescriptorsClosedAddNoSystemError)
{
    const World before = world();
    const Outcome outcome = Program({"-t", "domain-ip"})
                                .before([] {
                                    close(STDIN_FILENO);
                                    close(STDOUT_FILENO);
                                    close(STDERR_FILENO);
                                })
                                .run();
    EXPECT_EQ(outcome.end, (End{badRequest("").waitStatus, "", ""}));
    EXPECT_EQ(outcome.commands(), std::vector<Command>());
    EXPECT_EQ(world(), before);
}

TEST_F(RequestErrnoTest, LongInputAddsNoSystemError)
{
    expectRefused(std::string(1 << 20, ' '),
                  "JSON object is expected. Error occured at offset 1048576, character '\\x00'. ");
}

TEST_F(RequestErrnoTest, LongFileAddsNoSystemError)
{
    expectRefused(Program({"-t", "domain-ip"}).file(std::string(1 << 20, '\n') + "]"),
                  "JSON object is expected. Error occured at offset 1048576, character ']'. ");
}

TEST_F(RequestErrnoTest, InputThatCannotBeReadIsAFatalErrorOfItsOwn)
{
    const World before = world();
    const Outcome outcome = Program({"-t", "domain-ip"}).device("/run").run();
    EXPECT_EQ(outcome.end, failure("zorvo::SystemError(stdin read: Is a directory)"));
    EXPECT_EQ(outcome.commands(), std::vector<Command>());
    EXPECT_EQ(world(), before);
}

// The frame of the document.

TEST_F(RequestTest, TopLevelArrayIsNotAnObject)
{
    expectRefused("[]", noObject);
}

TEST_F(RequestTest, ByteOrderMarkIsNotAnObject)
{
    expectRefused("\xef\xbb\xbf{\"domains\": []}",
                  "JSON object is expected. Error occured at offset 0, character '\\xef'. ");
}

TEST_F(RequestTest, LastPrintableCharacterIsShownAsItIs)
{
    expectRefused("~", "JSON object is expected. Error occured at offset 0, character '~'. ");
}

TEST_F(RequestTest, DeleteCharacterIsShownInHex)
{
    expectRefused("\x7f", "JSON object is expected. Error occured at offset 0, character '\\x7f'. ");
}

TEST_F(RequestTest, ControlCharacterIsShownInHex)
{
    expectRefused("\x1f", "JSON object is expected. Error occured at offset 0, character '\\x1f'. ");
}

TEST_F(RequestTest, EmptyObjectLacksDomains)
{
    expectRefused("{}", missingFields + "Error occured at offset 2, character '\\x00'. "s);
}

TEST_F(RequestTest, ObjectOfBlanksLacksDomains)
{
    expectRefused("{ \n }\n", missingFields + "Error occured at offset 5, character '\\x0a'. "s);
}

TEST_F(RequestTest, OnlyUnknownMembersLackDomains)
{
    expectRefused("{\"a\": 1, \"b\": [2]}",
                  missingFields + "Error occured at offset 18, character '\\x00'. "s);
}

TEST_F(RequestTest, MemberNamesAreCaseSensitive)
{
    expectRefused("{\"Domains\": []}", missingFields + "Error occured at offset 15, character '\\x00'. "s);
}

TEST_F(RequestTest, DomainsHasToBeAnArray)
{
    expectRefused("{\"domains\": {}}", "JSON array is expected. Error occured at offset 12, character '{'. ");
}

TEST_F(RequestTest, NullIsNotAnArray)
{
    expectRefused("{\"domains\": null}",
                  "JSON array is expected. Error occured at offset 12, character 'n'. ");
}

TEST_F(RequestTest, ElementHasToBeAnObject)
{
    expectRefused("{\"domains\": [1]}",
                  "JSON object is expected. Error occured at offset 13, character '1'. ");
}

TEST_F(RequestTest, EmptyElementLacksFields)
{
    expectRefused("{\"domains\": [{}]}", missingFields + "Error occured at offset 15, character ']'. "s);
}

TEST_F(RequestTest, ElementWithoutIp6AddrLacksAField)
{
    expectRefused("{\"domains\": [{\"domain\": \"a\", \"ip4_addr\": \"192.0.2.1\"}]}",
                  missingFields + "Error occured at offset 53, character ']'. "s);
}

TEST_F(RequestTest, ElementWithoutIp4AddrLacksAField)
{
    expectRefused("{\"domains\": [{\"domain\": \"a\", \"ip6_addr\": \"::1\"}]}",
                  missingFields + "Error occured at offset 47, character ']'. "s);
}

TEST_F(RequestTest, ElementWithoutDomainLacksAField)
{
    expectRefused("{\"domains\": [{\"ip4_addr\": \"192.0.2.1\", \"ip6_addr\": \"::1\"}]}",
                  missingFields + "Error occured at offset 57, character ']'. "s);
}

TEST_F(RequestTest, LaterElementThatLacksAFieldStopsTheWholeRequest)
{
    expectRefused("{\"domains\": [{\"domain\": \"a\", \"ip4_addr\": \"192.0.2.1\", \"ip6_addr\": \"\"}, {}]}",
                  missingFields + "Error occured at offset 73, character ']'. "s);
}

TEST_F(RequestTest, NullIsNotADomain)
{
    expectRefused("{\"domains\": [{\"domain\": null}]}",
                  "String is expected. Error occured at offset 24, character 'n'. ");
}

TEST_F(RequestTest, NullIsNotAnAddress)
{
    expectRefused("{\"domains\": [{\"ip4_addr\": null}]}",
                  "String is expected. Error occured at offset 26, character 'n'. ");
}

TEST_F(RequestTest, NumberIsNotAnIpv6Address)
{
    expectRefused("{\"domains\": [{\"ip6_addr\": 1}]}",
                  "String is expected. Error occured at offset 26, character '1'. ");
}

TEST_F(RequestTest, MissingColonIsReported)
{
    expectRefused(
        "{\"a\" 1}",
        "JSON name separator (':') is expected inside an object. Error occured at offset 5, character '1'. ");
}

TEST_F(RequestTest, MemberNameHasToBeAString)
{
    expectRefused("{domains: []}", "String is expected. Error occured at offset 1, character 'd'. ");
}

TEST_F(RequestTest, CommaBeforeTheEndOfTheObjectAsksForAName)
{
    expectRefused("{\"domains\": [],}", "String is expected. Error occured at offset 15, character '}'. ");
}

TEST_F(RequestTest, MissingCommaBetweenMembersIsReported)
{
    expectRefused(
        "{\"domains\": [] \"a\": 1}",
        "JSON value separator (',') or end of object is expected. Error occured at offset 15, character "
        "'\"'. ");
}

TEST_F(RequestTest, MissingCommaBetweenElementsIsReported)
{
    expectRefused(
        elementWith("").substr(0, 79) + " {}]}",
        "JSON value separator (',') or end of array is expected. Error occured at offset 80, character "
        "'{'. ");
}

TEST_F(RequestTest, CommaBeforeTheEndOfTheListAsksForAnElement)
{
    expectRefused(elementWith("").substr(0, 79) + ",]}",
                  "JSON object is expected. Error occured at offset 80, character ']'. ");
}

TEST_F(RequestTest, DocumentCutInsideTheListIsReported)
{
    expectRefused("{\"domains\": [",
                  "JSON object is expected. Error occured at offset 13, character '\\x00'. ");
}

TEST_F(RequestTest, DocumentCutAfterTheListIsReported)
{
    expectRefused(
        "{\"domains\": []",
        "JSON value separator (',') or end of object is expected. Error occured at offset 14, character "
        "'\\x00'. ");
}

TEST_F(RequestTest, NulByteEndsTheText)
{
    expectRefused("{\"domains\": [\0]}"s,
                  "JSON object is expected. Error occured at offset 13, character '\\x00'. ");
}

TEST_F(RequestTest, BytesAfterANulAreIgnored)
{
    expectRecords(elementWith("") + "\0 \xff {"s, oneRecord);
}

TEST_F(RequestTest, TextAfterTheDocumentIsIgnored)
{
    expectRecords(elementWith("") + "]} {\"domains\": [] \xc3\xa9", oneRecord);
}

TEST_F(RequestTest, WhiteSpaceOfAnyKindSeparatesTokens)
{
    expectRecords(
        "\n\t { \"domains\"\r:\v[\f{ \"domain\" : \"one.example\" , \"ip4_addr\" : \"192.0.2.1\" ,\n"
        "\"ip6_addr\" : \"\" } ] } ",
        oneRecord);
}

TEST_F(RequestTest, ListOfBlanksIsEmpty)
{
    expectRecords("{\"domains\": [ \n ]}", {});
}

// Strings.

TEST_F(RequestTest, Utf8LetterIsAnInvalidCharacter)
{
    expectRefused("{\"domains\": [{\"domain\": \"caf\xc3\xa9.example\"",
                  badCharacter + "Error occured at offset 28, character '\\xc3'. "s);
}

TEST_F(RequestTest, Utf8LetterInASkippedStringIsAnInvalidCharacter)
{
    expectRefused("{\"note\": {\"by\": [\"\xc3\xa9\"]}, \"domains\": []}",
                  badCharacter + "Error occured at offset 18, character '\\xc3'. "s);
}

TEST_F(RequestTest, Utf8LetterInAMemberNameIsAnInvalidCharacter)
{
    expectRefused("{\"\xc3\xa9\": 1}", badCharacter + "Error occured at offset 2, character '\\xc3'. "s);
}

TEST_F(RequestTest, LineFeedInAStringIsAnInvalidCharacter)
{
    expectRefused("{\"domains\": [{\"domain\": \"a\n\"",
                  badCharacter + "Error occured at offset 26, character '\\x0a'. "s);
}

TEST_F(RequestTest, EscapedUnicodeIsNotSupported)
{
    expectRefused("{\"domains\": [{\"domain\": \"caf\\u00e9.example\"",
                  badUnicode + "Error occured at offset 28, character '\\'. "s);
}

TEST_F(RequestTest, CutShortUnicodeEscapeIsNotSupported)
{
    expectRefused("{\"a\": \"\\u00", badUnicode + "Error occured at offset 7, character '\\'. "s);
}

TEST_F(RequestTest, UnknownEscapeIsInvalid)
{
    expectRefused("{\"domains\": [{\"domain\": \"a\\q\"",
                  "Invalid escape sequence found in string. Error occured at offset 26, character '\\'. ");
}

TEST_F(RequestTest, BackslashAtTheEndIsAnInvalidEscape)
{
    expectRefused("{\"a\": \"\\",
                  "Invalid escape sequence found in string. Error occured at offset 7, character '\\'. ");
}

TEST_F(RequestTest, UnterminatedStringEndsTheDocumentTooEarly)
{
    expectRefused(
        "{\"domains\": [{\"domain\": \"one.example",
        "JSON document has ended prematurely. Check that all strings are properly ended. Error occured at "
        "offset 36, character '\\x00'. ");
}

TEST_F(RequestTest, MissingValueOfAFieldEndsTheDocumentTooEarly)
{
    expectRefused(
        "{\"domains\": [{\"domain\": ",
        "JSON document has ended prematurely. Check that all strings are properly ended. Error occured at "
        "offset 24, character '\\x00'. ");
}

TEST_F(RequestTest, EscapesStandForTheirCharacters)
{
    expectRecords(
        "{\"domains\": [{\"domain\": \"a\\/\\\"\\\\\\b\\f\\t\\r\\n\x7f\", \"ip4_addr\": \"192.0.2.1\", "
        "\"ip6_addr\": \"\"}]}",
        {"@a/\"\\\b\f\t\r\n\x7f zorvo-192.0.2.1-:\n"});
}

TEST_F(RequestTest, EscapedNulEndsTheDomain)
{
    expectRecords("{\"domains\": [{\"domain\": \"one.example\\u0000more\", \"ip4_addr\": \"192.0.2.1\", "
                  "\"ip6_addr\": \"\\u0000\"}]}",
                  oneRecord);
}

TEST_F(RequestTest, EscapedNulEndsAMemberName)
{
    expectRecords("{\"domains\\u0000x\": [{\"domain\\u0000\": \"one.example\", \"ip4_addr\": \"192.0.2.1\", "
                  "\"ip6_addr\": \"\"}]}",
                  oneRecord);
}

// Members that nobody asked for, and members that are there twice.

TEST_F(RequestTest, UnknownMembersAreSkipped)
{
    expectRecords(
        "{\"version\": -1.5e+3, \"by\": {\"a\": {}, \"b\": [true, false, null, \"x\\\"\"]}, " +
            elementWith(
                ", \"ttl\": 1.5, \"n\": {\"domain\": [0.25, {\"domain\": 7}]}, \"e\": [], \"m\": -12e-3")
                .substr(1),
        oneRecord);
}

TEST_F(RequestTest, LaterUnknownMembersAreSkipped)
{
    expectRecords("{\"domains\": [{\"x\": null, \"domain\": \"one.example\", \"ip4_addr\": \"192.0.2.1\", "
                  "\"ip6_addr\": \"\"}], \"domain\": 1}",
                  oneRecord);
}

TEST_F(RequestTest, SkippedMinusNeedsNoDigits)
{
    expectRecords(elementWith(", \"n\": -"), oneRecord);
}

TEST_F(RequestTest, SkippedFractionNeedsDigits)
{
    expectRefused(
        "{\"a\": -1.}",
        "Invalid or unsupported number format. Check that there are no floating point numbers. Error occured "
        "at offset 6, character '-'. ");
}

TEST_F(RequestTest, SkippedExponentNeedsDigits)
{
    expectRefused(
        "{\"a\": 1e+}",
        "Invalid or unsupported number format. Check that there are no floating point numbers. Error occured "
        "at offset 6, character '1'. ");
}

TEST_F(RequestTest, SkippedWordHasToBeABoolean)
{
    expectRefused("{\"a\": tru}", "Boolean value is expected. Error occured at offset 6, character 't'. ");
}

TEST_F(RequestTest, SkippedWordHasToBeNull)
{
    expectRefused("{\"a\": nul}", "'null' is expected. Error occured at offset 6, character 'n'. ");
}

TEST_F(RequestTest, SkippedValueHasToBeAValue)
{
    expectRefused("{\"a\": +1}",
                  "Any value is expected, but was not found. Error occured at offset 6, character '+'. ");
}

TEST_F(RequestTest, SkippedBooleanNeedsADelimiterAllTheSame)
{
    expectRefused(
        "{\"a\": truex}",
        "JSON value separator (',') or end of object is expected. Error occured at offset 10, character "
        "'x'. ");
}

TEST_F(RequestTest, MissingColonStopsTheSkipping)
{
    expectRefused("{\"a\": {\"b\" 1}}", "JSON name separator (':') is expected inside an object. Error "
                                        "occured at offset 11, character '1'. ");
}

TEST_F(RequestTest, MissingCommaInASkippedArrayIsReported)
{
    expectRefused(
        "{\"a\": [1 2]}",
        "JSON value separator (',') or end of array is expected. Error occured at offset 9, character '2'. ");
}

TEST_F(RequestTest, RepeatedFieldKeepsTheLastValue)
{
    expectRecords(
        "{\"domains\": [{\"domain\": \"first.example\", \"ip4_addr\": \"192.0.2.9\", \"ip6_addr\": \"::9\", "
        "\"ip4_addr\": \"192.0.2.1\", \"ip6_addr\": \"\", \"domain\": \"one.example\"}]}",
        oneRecord);
}

TEST_F(RequestTest, RepeatedDomainsKeepTheLastList)
{
    expectRecords("{\"domains\": [{\"domain\": \"a\", \"ip4_addr\": \"192.0.2.8\", \"ip6_addr\": \"\"}, "
                  "{\"domain\": \"b\", \"ip4_addr\": \"192.0.2.9\", \"ip6_addr\": \"\"}], " +
                      elementWith("").substr(1),
                  oneRecord);
}

TEST_F(RequestTest, RepeatedDomainsMayEndEmpty)
{
    expectRecords(elementWith("").substr(0, 80) + ", \"domains\": []}", {});
}

TEST_F(RequestTest, NestingOfTenMillionArraysIsSkipped)
{
    const size_t depth = 10000000;
    expectRecords("{\"deep\": " + std::string(depth, '[') + std::string(depth, ']') + ", " +
                      elementWith("").substr(1),
                  oneRecord);
}

TEST_F(RequestTest, NestingOfMillionsOfObjectsIsSkipped)
{
    const size_t depth = 2000000;
    std::string deep;
    for (size_t i = 0; i < depth; ++i)
        deep += "{\"\":";
    expectRecords("{\"deep\": " + deep + "0" + std::string(depth, '}') + ", " + elementWith("").substr(1),
                  oneRecord);
}

TEST_F(RequestTest, UnfinishedNestingOfTenMillionArraysIsReported)
{
    expectRefused(
        "{\"deep\": " + std::string(10000000, '['),
        "Any value is expected, but was not found. Error occured at offset 10000009, character '\\x00'. ");
}

TEST_F(RequestTest, ThousandsOfElementsAreRead)
{
    std::vector<Binding> domains(20000, {"one.example", "192.0.2.1", ""});
    const Outcome outcome = Program({"-t", "none"}).pipe(request(domains)).run();
    EXPECT_EQ(outcome.end, success());
    EXPECT_EQ(outcome.commands(), afterWipe({restart}));
}

} // namespace contract
