// The request document: what is accepted, what is rejected with which code, and who owns the memory.
#include "app/transport_info.h"

#include "common/sj.h"
#include "support/Child.h"
#include "support/CountingHooks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

using support::CountingHooks;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

using Entry = std::tuple<std::string, std::string, std::string>;

/// One document with its parser and the object it is read into, all through counting hooks.
class Document {
public:
    explicit Document(const std::string& text)
        : text_(std::make_unique<char[]>(text.size() + 1)),
          parser_(makeParser(text)),
          info_(create_transport_info_object(parser_))
    {
    }
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;
    ~Document()
    {
        free_transport_info_object(parser_, info_);
        sj_free_parser(parser_);
    }

    int parse() { return parse_transport_info_object(parser_, info_); }
    CountingHooks& hooks() { return hooks_; }
    sj_parser* parser() { return parser_; }
    const transport_info& info() const { return *info_; }
    int error() const { return parser_->error; }
    long offset() const { return parser_->cursor - parser_->start; }
    bool inText(const char* pointer) const { return pointer >= parser_->start && pointer <= parser_->cursor; }

    std::vector<Entry> entries() const
    {
        std::vector<Entry> result;
        for (size_t i = 0; i < info_->count; ++i) {
            const transport_info_entry& entry = info_->entries[i];
            result.emplace_back(shown(entry.domain), shown(entry.ip4_addr), shown(entry.ip6_addr));
        }
        return result;
    }

private:
    static std::string shown(const char* text) { return text == nullptr ? "(null)" : text; }

    sj_parser* makeParser(const std::string& text)
    {
        std::memcpy(text_.get(), text.c_str(), text.size() + 1);
        const sj_util_funcs funcs = hooks_.funcs();
        return sj_create_parser(text_.get(), &funcs);
    }

    CountingHooks hooks_;
    std::unique_ptr<char[]> text_;
    sj_parser* parser_;
    transport_info* info_;
};

/// Error and cursor after a whole parse.
struct Rejection {
    int error;
    long offset;

    bool operator==(const Rejection& o) const { return error == o.error && offset == o.offset; }
    friend std::ostream& operator<<(std::ostream& out, const Rejection& o)
    {
        return out << "{error " << o.error << ", offset " << o.offset << "}";
    }
};

Rejection rejectionOf(const std::string& text)
{
    Document document(text);
    const int result = document.parse();
    return {result == document.error() ? result : -1, document.offset()};
}

/// The entries of a document that has to be valid.
std::vector<Entry> entriesOf(const std::string& text)
{
    Document document(text);
    const int result = document.parse();
    EXPECT_EQ(0, result) << "at offset " << document.offset();
    return result == 0 ? document.entries() : std::vector<Entry>();
}

std::string element(const std::string& domain, const std::string& ip4, const std::string& ip6)
{
    return "{\"domain\":\"" + domain + "\",\"ip4_addr\":\"" + ip4 + "\",\"ip6_addr\":\"" + ip6 + "\"}";
}

/// A document with these elements.
std::string domains(const std::vector<std::string>& elements)
{
    std::string text = "{\"domains\":[";
    for (const std::string& one : elements)
        text += (&one == &elements.front() ? "" : ",") + one;
    return text + "]}";
}

std::vector<std::string> numbered(size_t count)
{
    std::vector<std::string> elements;
    for (size_t i = 0; i < count; ++i)
        elements.push_back(element("d" + std::to_string(i), "4", "6"));
    return elements;
}

const std::string a = element("a.example", "192.0.2.1", "2001:db8::1");
const std::string b = element("b.example", "192.0.2.2", "");
const Entry entryA{"a.example", "192.0.2.1", "2001:db8::1"};
const Entry entryB{"b.example", "192.0.2.2", ""};

} // namespace

// ---- the object ------------------------------------------------------------------------------------------

TEST(CreateTransportInfoTest, ObjectIsEmpty)
{
    Document document("");
    EXPECT_EQ(0U, document.info().count);
    EXPECT_EQ(0U, document.info().capacity);
    EXPECT_EQ(nullptr, document.info().entries);
}

TEST(CreateTransportInfoTest, ObjectIsAllocatedThroughTheMallocHook)
{
    Document document("");
    EXPECT_THAT(document.hooks().mallocSizes, ElementsAre(sizeof(sj_parser), sizeof(transport_info)));
}

TEST(CreateTransportInfoTest, RefusedMemoryGivesNull)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    char text[] = "";
    sj_parser* const parser = sj_create_parser(text, &funcs);
    hooks.grantOnly(0);
    EXPECT_EQ(nullptr, create_transport_info_object(parser));
    sj_free_parser(parser);
}

TEST(FreeTransportInfoTest, FieldsAreEmptied)
{
    Document document(domains({a, b}));
    ASSERT_EQ(0, document.parse());
    free_transport_info_object_fields(document.parser(), const_cast<transport_info*>(&document.info()));
    EXPECT_EQ(0U, document.info().count);
    EXPECT_EQ(0U, document.info().capacity);
    EXPECT_EQ(nullptr, document.info().entries);
}

TEST(FreeTransportInfoTest, FieldsAreReleasedThroughTheFreeHook)
{
    Document document(domains({a, b}));
    ASSERT_EQ(0, document.parse());
    const size_t before = document.hooks().liveBlocks();
    free_transport_info_object_fields(document.parser(), const_cast<transport_info*>(&document.info()));
    EXPECT_EQ(before - 1, document.hooks().liveBlocks());
    EXPECT_EQ(0U, document.hooks().strangers);
}

TEST(FreeTransportInfoTest, ObjectIsReleasedThroughTheFreeHookWithItsFields)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    std::string text = domains({a, b});
    sj_parser* const parser = sj_create_parser(text.data(), &funcs);
    transport_info* const info = create_transport_info_object(parser);
    ASSERT_EQ(0, parse_transport_info_object(parser, info));
    free_transport_info_object(parser, info);
    EXPECT_EQ(1U, hooks.liveBlocks()); // the parser
    EXPECT_EQ(0U, hooks.strangers);
    sj_free_parser(parser);
}

TEST(FreeTransportInfoTest, ObjectOfARejectedDocumentIsReleasedWhole)
{
    CountingHooks hooks;
    const sj_util_funcs funcs = hooks.funcs();
    std::string text = "{\"domains\":[" + a + ",{}]}";
    sj_parser* const parser = sj_create_parser(text.data(), &funcs);
    transport_info* const info = create_transport_info_object(parser);
    ASSERT_EQ(14, parse_transport_info_object(parser, info));
    free_transport_info_object(parser, info);
    EXPECT_EQ(1U, hooks.liveBlocks());
    sj_free_parser(parser);
}

TEST(FreeTransportInfoTest, EmptiedObjectCanBeFilledAgain)
{
    Document document(domains({a, b}) + domains({b}));
    ASSERT_EQ(0, document.parse());
    free_transport_info_object_fields(document.parser(), const_cast<transport_info*>(&document.info()));
    ASSERT_EQ(0, document.parse());
    EXPECT_THAT(document.entries(), ElementsAre(entryB));
}

// ---- valid documents -------------------------------------------------------------------------------------

TEST(ParseTransportInfoTest, OneElementIsRead)
{
    EXPECT_THAT(entriesOf(domains({a})), ElementsAre(entryA));
}

TEST(ParseTransportInfoTest, ElementsAreReadInOrder)
{
    EXPECT_THAT(entriesOf(domains({b, a, b})), ElementsAre(entryB, entryA, entryB));
}

TEST(ParseTransportInfoTest, EmptyArrayGivesNoEntries)
{
    EXPECT_THAT(entriesOf("{\"domains\":[]}"), IsEmpty());
}

TEST(ParseTransportInfoTest, EmptyArrayAsksForNoMemory)
{
    Document document("{\"domains\":[]}");
    ASSERT_EQ(0, document.parse());
    EXPECT_THAT(document.hooks().reallocSizes, IsEmpty());
}

TEST(ParseTransportInfoTest, BothAddressesMayBeEmptyStrings)
{
    EXPECT_THAT(entriesOf(domains({element("d", "", "")})), ElementsAre(Entry("d", "", "")));
}

TEST(ParseTransportInfoTest, MembersMayStandInAnyOrder)
{
    EXPECT_THAT(entriesOf("{\"domains\":[{\"ip6_addr\":\"6\",\"domain\":\"d\",\"ip4_addr\":\"4\"}]}"),
                ElementsAre(Entry("d", "4", "6")));
}

TEST(ParseTransportInfoTest, BlanksMayStandBetweenAllTokens)
{
    EXPECT_THAT(
        entriesOf(
            " \n{ \"domains\" :\t[ { \"domain\" : \"d\" , \"ip4_addr\" : \"4\" ,\r\n \"ip6_addr\" : \"6\" } "
            ", " +
            a + " ] } "),
        ElementsAre(Entry("d", "4", "6"), entryA));
}

TEST(ParseTransportInfoTest, BlanksMayStandInsideAnEmptyArray)
{
    EXPECT_THAT(entriesOf("{\"domains\":[ \n ]}"), IsEmpty());
}

TEST(ParseTransportInfoTest, StringsAreUnescaped)
{
    EXPECT_THAT(entriesOf(domains({element("\\\"\\\\\\/\\b\\f\\n\\r\\t", "4", "6")})),
                ElementsAre(Entry("\"\\/\b\f\n\r\t", "4", "6")));
}

TEST(ParseTransportInfoTest, StringWithAnEscapedNulEndsThere)
{
    EXPECT_THAT(entriesOf(domains({element("a\\u0000b", "4", "6")})), ElementsAre(Entry("a", "4", "6")));
}

TEST(ParseTransportInfoTest, StringsPointIntoTheText)
{
    Document document(domains({a}));
    ASSERT_EQ(0, document.parse());
    EXPECT_TRUE(document.inText(document.info().entries[0].domain));
    EXPECT_TRUE(document.inText(document.info().entries[0].ip4_addr));
    EXPECT_TRUE(document.inText(document.info().entries[0].ip6_addr));
}

TEST(ParseTransportInfoTest, AnyStringIsTakenAsAValue)
{
    EXPECT_THAT(entriesOf(domains({element("Example.COM ", "not an address", "::::")})),
                ElementsAre(Entry("Example.COM ", "not an address", "::::")));
}

TEST(ParseTransportInfoTest, SameDomainTwiceIsTwoEntries)
{
    EXPECT_THAT(entriesOf(domains({a, a})), ElementsAre(entryA, entryA));
}

TEST(ParseTransportInfoTest, TextAfterTheDocumentIsIgnored)
{
    EXPECT_THAT(entriesOf(domains({a}) + " trailing {\xc3\xa9"), ElementsAre(entryA));
}

TEST(ParseTransportInfoTest, CursorStandsAfterTheClosingBrace)
{
    const std::string text = domains({a});
    Document document(text + "x");
    ASSERT_EQ(0, document.parse());
    EXPECT_EQ(static_cast<long>(text.size()), document.offset());
}

TEST(ParseTransportInfoTest, FieldGivenTwiceKeepsItsLastValue)
{
    EXPECT_THAT(entriesOf("{\"domains\":[{\"domain\":\"first\",\"ip4_addr\":\"4\",\"domain\":\"second\","
                          "\"ip4_addr\":\"44\","
                          "\"ip6_addr\":\"6\",\"ip6_addr\":\"66\"}]}"),
                ElementsAre(Entry("second", "44", "66")));
}

// ---- unknown members -------------------------------------------------------------------------------------

namespace {

const char* const anyValues[] = {
    "0",     "-7",       "1.5",         "-1.5e-10",
    "1E3",   "\"text\"", "\"\\u0000\"", "true",
    "false", "null",     "[]",          "[ ]",
    "{}",    "{ }",      "[1,[2,[]]]",  "{\"a\":{\"domains\":[{\"domain\":1}]}}"};

} // namespace

TEST(ParseTransportInfoUnknownTest, MemberOfTheDocumentIsSkippedWhateverItsValue)
{
    for (const char* const value : anyValues) {
        SCOPED_TRACE(value);
        EXPECT_THAT(
            entriesOf(std::string("{\"x\":") + value + ",\"domains\":[" + a + "],\"y\": " + value + " }"),
            ElementsAre(entryA));
    }
}

TEST(ParseTransportInfoUnknownTest, MemberOfAnElementIsSkippedWhateverItsValue)
{
    for (const char* const value : anyValues) {
        SCOPED_TRACE(value);
        EXPECT_THAT(entriesOf(std::string("{\"domains\":[{\"x\":") + value +
                              ",\"domain\":\"d\",\"ip4_addr\":\"4\",\"y\":" + value +
                              ",\"ip6_addr\":\"6\",\"z\": " + value + " }]}"),
                    ElementsAre(Entry("d", "4", "6")));
    }
}

TEST(ParseTransportInfoUnknownTest, NamesOfElementsAreUnknownInTheDocument)
{
    EXPECT_THAT(entriesOf("{\"domain\":1,\"ip4_addr\":2,\"ip6_addr\":3,\"domains\":[" + a + "]}"),
                ElementsAre(entryA));
}

TEST(ParseTransportInfoUnknownTest, NameOfTheArrayIsUnknownInAnElement)
{
    EXPECT_THAT(
        entriesOf("{\"domains\":[{\"domains\":5,\"domain\":\"d\",\"ip4_addr\":\"4\",\"ip6_addr\":\"6\"}]}"),
        ElementsAre(Entry("d", "4", "6")));
}

TEST(ParseTransportInfoUnknownTest, NamesThatDifferInCaseAreUnknown)
{
    EXPECT_EQ((Rejection{14, 14}), rejectionOf("{\"Domains\":[]}"));
}

TEST(ParseTransportInfoUnknownTest, NamesOfElementsThatDifferInCaseAreUnknown)
{
    for (const char* const members : {"\"Domain\":\"d\",\"ip4_addr\":\"4\",\"ip6_addr\":\"6\"",
                                      "\"domain\":\"d\",\"IP4_addr\":\"4\",\"ip6_addr\":\"6\"",
                                      "\"domain\":\"d\",\"ip4_addr\":\"4\",\"ip6_Addr\":\"6\""}) {
        SCOPED_TRACE(members);
        EXPECT_EQ(14, rejectionOf(std::string("{\"domains\":[{") + members + "}]}").error);
    }
}

TEST(ParseTransportInfoUnknownTest, LongerAndShorterNamesAreUnknown)
{
    EXPECT_THAT(entriesOf("{\"domains2\":1,\"domain\":2,\"\":3,\"domains\":[" + a + "]}"),
                ElementsAre(entryA));
}

TEST(ParseTransportInfoUnknownTest, NameWithAnEscapedNulIsComparedUpToIt)
{
    EXPECT_THAT(entriesOf("{\"domains\\u0000x\":[" + a + "]}"), ElementsAre(entryA));
}

TEST(ParseTransportInfoUnknownTest, NameIsUnescapedBeforeItIsCompared)
{
    EXPECT_EQ((Rejection{14, 16}), rejectionOf("{\"domains\\b\":[]} "));
}

TEST(ParseTransportInfoUnknownTest, BrokenEscapeInANameIsError8)
{
    EXPECT_EQ((Rejection{8, 2}), rejectionOf("{\"\\domains\":[]}"));
}

TEST(ParseTransportInfoUnknownTest, NonAsciiByteInASkippedStringIsError9)
{
    EXPECT_EQ((Rejection{9, 6}), rejectionOf("{\"x\":\"\xc3\xa9\",\"domains\":[]}"));
}

TEST(ParseTransportInfoUnknownTest, NonAsciiByteInASkippedStringOfAnElementIsError9)
{
    EXPECT_EQ((Rejection{9, 18}), rejectionOf("{\"domains\":[{\"x\":\"\xc3\xa9\"}]}"));
}

TEST(ParseTransportInfoUnknownTest, NonAsciiByteInANameIsError9)
{
    EXPECT_EQ((Rejection{9, 2}), rejectionOf("{\"\xc3\xa9\":1}"));
}

TEST(ParseTransportInfoUnknownTest, BrokenValueIsTheErrorOfItsKind)
{
    EXPECT_EQ((Rejection{3, 5}), rejectionOf("{\"x\":,\"domains\":[]}"));
    EXPECT_EQ((Rejection{6, 5}), rejectionOf("{\"x\":1.,\"domains\":[]}"));
    EXPECT_EQ((Rejection{17, 5}), rejectionOf("{\"x\":tru,\"domains\":[]}"));
    EXPECT_EQ((Rejection{18, 5}), rejectionOf("{\"x\":nul,\"domains\":[]}"));
    EXPECT_EQ((Rejection{16, 8}), rejectionOf("{\"x\":[1 2],\"domains\":[]}"));
    EXPECT_EQ((Rejection{12, 10}), rejectionOf("{\"x\":{\"y\" 1},\"domains\":[]}"));
}

TEST(ParseTransportInfoUnknownTest, BrokenValueInAnElementIsTheErrorOfItsKind)
{
    EXPECT_EQ((Rejection{6, 17}), rejectionOf("{\"domains\":[{\"x\":1e}]}"));
}

// Ten million levels, on a stack of at most 512 KiB: a stack overflow would kill the child.
TEST(ParseTransportInfoUnknownTest, TenMillionNestedArraysInAMemberNeedNoStack)
{
    const std::string nested = std::string(10000000, '[') + std::string(10000000, ']');
    const std::string text = "{\"x\":" + nested + ",\"domains\":[{\"y\":" + nested +
                             ",\"domain\":\"d\",\"ip4_addr\":\"4\",\"ip6_addr\":\"6\"}]}";
    const support::ChildResult result = support::runInChild([&] {
        const rlimit stack{512 * 1024, 512 * 1024};
        if (::setrlimit(RLIMIT_STACK, &stack) != 0)
            return 10;
        Document document(text);
        return document.parse() == 0 && document.info().count == 1 ? 0 : 1;
    });
    EXPECT_EQ(0, result.status);
}

// ---- rejected documents ----------------------------------------------------------------------------------

TEST(ParseTransportInfoErrorTest, EmptyTextIsError11)
{
    EXPECT_EQ((Rejection{11, 0}), rejectionOf(""));
}

TEST(ParseTransportInfoErrorTest, BlankTextIsError11AtItsEnd)
{
    EXPECT_EQ((Rejection{11, 3}), rejectionOf(" \n\t"));
}

TEST(ParseTransportInfoErrorTest, DocumentThatIsNotAnObjectIsError11)
{
    EXPECT_EQ((Rejection{11, 0}), rejectionOf("[" + a + "]"));
    EXPECT_EQ((Rejection{11, 0}), rejectionOf("null"));
}

TEST(ParseTransportInfoErrorTest, EmptyObjectIsError14)
{
    EXPECT_EQ(14, rejectionOf("{}").error);
}

TEST(ParseTransportInfoErrorTest, EmptyObjectWithBlanksInsideIsError14)
{
    EXPECT_EQ(14, rejectionOf("{ \n }").error);
}

TEST(ParseTransportInfoErrorTest, OnlyUnknownMembersAreError14AtTheEnd)
{
    EXPECT_EQ((Rejection{14, 19}), rejectionOf("{\"x\":1,\"y\":{\"z\":2}}"));
}

TEST(ParseTransportInfoErrorTest, DomainsThatAreNotAnArrayAreError15)
{
    for (const char* const value : {"{}", "null", "\"[]\"", "5", "", "}"}) {
        SCOPED_TRACE(value);
        EXPECT_EQ((Rejection{15, 11}), rejectionOf(std::string("{\"domains\":") + value));
    }
}

TEST(ParseTransportInfoErrorTest, ElementThatIsNotAnObjectIsError11)
{
    for (const char* const value : {"[]", "null", "\"{}\"", "5", "]", ""}) {
        SCOPED_TRACE(value);
        EXPECT_EQ((Rejection{11, static_cast<long>(12 + a.size() + 1)}),
                  rejectionOf("{\"domains\":[" + a + "," + value));
    }
}

TEST(ParseTransportInfoErrorTest, EmptyElementIsError14)
{
    EXPECT_EQ(14, rejectionOf("{\"domains\":[{}]}").error);
}

TEST(ParseTransportInfoErrorTest, EmptyElementWithBlanksInsideIsError14)
{
    EXPECT_EQ(14, rejectionOf("{\"domains\":[{ }]}").error);
}

TEST(ParseTransportInfoErrorTest, ElementWithoutDomainIsError14)
{
    EXPECT_EQ(14, rejectionOf("{\"domains\":[{\"ip4_addr\":\"4\",\"ip6_addr\":\"6\"}]}").error);
}

TEST(ParseTransportInfoErrorTest, ElementWithoutIp4AddrIsError14)
{
    EXPECT_EQ(14, rejectionOf("{\"domains\":[{\"domain\":\"d\",\"ip6_addr\":\"6\"}]}").error);
}

TEST(ParseTransportInfoErrorTest, ElementWithoutIp6AddrIsError14)
{
    EXPECT_EQ(14, rejectionOf("{\"domains\":[{\"domain\":\"d\",\"ip4_addr\":\"4\"}]}").error);
}

TEST(ParseTransportInfoErrorTest, LaterElementWithoutAFieldIsError14)
{
    EXPECT_EQ(14, rejectionOf("{\"domains\":[" + a + ",{\"domain\":\"d\",\"ip4_addr\":\"4\"}]}").error);
}

TEST(ParseTransportInfoErrorTest, MissingFieldIsFoundAfterTheBraceOfItsElement)
{
    const std::string upToTheBrace = "{\"domains\":[{\"domain\":\"d\",\"ip4_addr\":\"4\"}";
    EXPECT_EQ((Rejection{14, static_cast<long>(upToTheBrace.size())}), rejectionOf(upToTheBrace + " x"));
}

TEST(ParseTransportInfoErrorTest, NullIsNotAString)
{
    EXPECT_EQ((Rejection{7, 22}),
              rejectionOf("{\"domains\":[{\"domain\":null,\"ip4_addr\":\"4\",\"ip6_addr\":\"6\"}]}"));
    EXPECT_EQ((Rejection{7, 36}),
              rejectionOf("{\"domains\":[{\"domain\":\"\",\"ip4_addr\":null,\"ip6_addr\":\"6\"}]}"));
    EXPECT_EQ((Rejection{7, 51}),
              rejectionOf("{\"domains\":[{\"domain\":\"\",\"ip4_addr\":\"\",\"ip6_addr\": null}]}"));
}

TEST(ParseTransportInfoErrorTest, ValueThatIsNotAStringIsError7)
{
    for (const char* const value : {"5", "true", "[]", "{}"}) {
        SCOPED_TRACE(value);
        EXPECT_EQ((Rejection{7, 22}), rejectionOf(std::string("{\"domains\":[{\"domain\":") + value + "}]}"));
    }
}

TEST(ParseTransportInfoErrorTest, NonAsciiByteInAStringIsError9)
{
    EXPECT_EQ((Rejection{9, 23}), rejectionOf("{\"domains\":[{\"domain\":\"\xc3\xa9.example\"}]}"));
}

TEST(ParseTransportInfoErrorTest, ControlCharacterInAStringIsError9)
{
    EXPECT_EQ((Rejection{9, 24}), rejectionOf("{\"domains\":[{\"domain\":\"a\nb\"}]}"));
}

TEST(ParseTransportInfoErrorTest, UnicodeEscapeInAStringIsError10)
{
    EXPECT_EQ((Rejection{10, 23}), rejectionOf("{\"domains\":[{\"domain\":\"\\u00e9\"}]}"));
}

TEST(ParseTransportInfoErrorTest, UnknownEscapeInAStringIsError8)
{
    EXPECT_EQ((Rejection{8, 23}), rejectionOf("{\"domains\":[{\"domain\":\"\\x\"}]}"));
}

TEST(ParseTransportInfoErrorTest, UnterminatedStringIsError2)
{
    EXPECT_EQ((Rejection{2, 24}), rejectionOf("{\"domains\":[{\"domain\":\"d"));
}

TEST(ParseTransportInfoErrorTest, NameThatIsNotAStringIsError7)
{
    EXPECT_EQ((Rejection{7, 1}), rejectionOf("{domains:[]}"));
    EXPECT_EQ((Rejection{7, 13}), rejectionOf("{\"domains\":[{domain:\"d\"}]}"));
}

TEST(ParseTransportInfoErrorTest, EndOfTextInPlaceOfANameIsError2)
{
    EXPECT_EQ((Rejection{2, 1}), rejectionOf("{"));
    EXPECT_EQ((Rejection{2, 13}), rejectionOf("{\"domains\":[{"));
}

TEST(ParseTransportInfoErrorTest, MissingColonIsError12)
{
    EXPECT_EQ((Rejection{12, 10}), rejectionOf("{\"domains\"[]}"));
    EXPECT_EQ((Rejection{12, 4}), rejectionOf("{\"x\"1}"));
    EXPECT_EQ((Rejection{12, 21}), rejectionOf("{\"domains\":[{\"domain\"\"d\"}]}"));
    EXPECT_EQ((Rejection{12, 16}), rejectionOf("{\"domains\":[{\"x\"1}]}"));
}

TEST(ParseTransportInfoErrorTest, MissingCommaBetweenMembersOfTheDocumentIsError13)
{
    EXPECT_EQ((Rejection{13, 14}), rejectionOf("{\"domains\":[] \"x\":1}"));
}

TEST(ParseTransportInfoErrorTest, MissingCommaBetweenMembersOfAnElementIsError13)
{
    EXPECT_EQ((Rejection{13, 26}), rejectionOf("{\"domains\":[{\"domain\":\"d\" \"ip4_addr\":\"4\"}]}"));
}

TEST(ParseTransportInfoErrorTest, MissingClosingBraceIsError13)
{
    EXPECT_EQ((Rejection{13, 13}), rejectionOf("{\"domains\":[]"));
    EXPECT_EQ((Rejection{13, 25}), rejectionOf("{\"domains\":[{\"domain\":\"d\"]}"));
}

TEST(ParseTransportInfoErrorTest, CommaBeforeTheClosingBraceIsError7)
{
    EXPECT_EQ((Rejection{7, 14}), rejectionOf("{\"domains\":[],}"));
    EXPECT_EQ((Rejection{7, 26}), rejectionOf("{\"domains\":[{\"domain\":\"d\",}]}"));
}

TEST(ParseTransportInfoErrorTest, MissingCommaBetweenElementsIsError16)
{
    EXPECT_EQ((Rejection{16, static_cast<long>(12 + a.size() + 1)}),
              rejectionOf("{\"domains\":[" + a + " " + b + "]}"));
}

TEST(ParseTransportInfoErrorTest, MissingClosingBracketIsError16)
{
    EXPECT_EQ((Rejection{16, static_cast<long>(12 + a.size())}), rejectionOf("{\"domains\":[" + a + "}"));
    EXPECT_EQ((Rejection{16, static_cast<long>(12 + a.size())}), rejectionOf("{\"domains\":[" + a));
}

TEST(ParseTransportInfoErrorTest, TextOfAMissingFieldNamesThePlace)
{
    Document document("{\"domains\":[{}]}");
    document.parse();
    const std::string offset = std::to_string(document.offset());
    errno = 0;
    EXPECT_EQ(
        "Some required fields are missing from the JSON object. Check that input JSON document conforms to "
        "schema. Error occured at offset " +
            offset + ", character '" + std::string(1, "{\"domains\":[{}]}"[document.offset()]) + "'. ",
        sj_parser_strerror(document.parser()));
}

TEST(ParseTransportInfoErrorTest, TextOfEmptyInputNamesOffsetZero)
{
    Document document("");
    document.parse();
    errno = 0;
    EXPECT_STREQ("JSON object is expected. Error occured at offset 0, character '\\x00'. ",
                 sj_parser_strerror(document.parser()));
}

// ---- growth and count ------------------------------------------------------------------------------------

TEST(ParseTransportInfoGrowthTest, EveryElementGrowsTheArrayByExactlyOneSlot)
{
    constexpr size_t slot = sizeof(transport_info_entry);
    Document document(domains(numbered(5)));
    ASSERT_EQ(0, document.parse());
    EXPECT_THAT(document.hooks().reallocSizes, ElementsAre(slot, 2 * slot, 3 * slot, 4 * slot, 5 * slot));
}

TEST(ParseTransportInfoGrowthTest, CapacityIsTheNumberOfSlots)
{
    Document document(domains(numbered(5)));
    ASSERT_EQ(0, document.parse());
    EXPECT_EQ(5U, document.info().capacity);
    EXPECT_EQ(5U, document.info().count);
}

TEST(ParseTransportInfoGrowthTest, EarlierEntriesSurviveTheGrowth)
{
    std::vector<Entry> expected;
    for (size_t i = 0; i < 2000; ++i)
        expected.emplace_back("d" + std::to_string(i), "4", "6");
    EXPECT_THAT(entriesOf(domains(numbered(2000))), ElementsAreArray(expected));
}

TEST(ParseTransportInfoGrowthTest, NewSlotIsFilledWithZeros)
{
    Document document("{\"domains\":[{\"x\":1}]}");
    ASSERT_EQ(14, document.parse());
    ASSERT_EQ(1U, document.info().count);
    EXPECT_EQ(nullptr, document.info().entries[0].domain);
    EXPECT_EQ(nullptr, document.info().entries[0].ip4_addr);
    EXPECT_EQ(nullptr, document.info().entries[0].ip6_addr);
}

TEST(ParseTransportInfoGrowthTest, RefusedFirstSlotIsError20)
{
    Document document(domains({a}));
    document.hooks().grantOnly(0);
    EXPECT_EQ(20, document.parse());
    EXPECT_EQ(20, document.error());
}

TEST(ParseTransportInfoGrowthTest, RefusedSlotIsError20OnTheElement)
{
    Document document(domains({a, b}));
    document.hooks().grantOnly(1);
    EXPECT_EQ(20, document.parse());
    EXPECT_EQ(static_cast<long>(12 + a.size() + 1), document.offset());
}

TEST(ParseTransportInfoGrowthTest, RefusedSlotKeepsTheEntriesBefore)
{
    Document document(domains({a, b, a}));
    document.hooks().grantOnly(2);
    ASSERT_EQ(20, document.parse());
    EXPECT_THAT(document.entries(), ElementsAre(entryA, entryB));
    EXPECT_EQ(2U, document.info().capacity);
}

TEST(ParseTransportInfoGrowthTest, RefusedSlotLosesNoMemory)
{
    Document document(domains({a, b, a}));
    document.hooks().grantOnly(2);
    ASSERT_EQ(20, document.parse());
    free_transport_info_object_fields(document.parser(), const_cast<transport_info*>(&document.info()));
    EXPECT_EQ(2U, document.hooks().liveBlocks()); // parser and object
    EXPECT_EQ(0U, document.hooks().strangers);
}

TEST(ParseTransportInfoGrowthTest, ElementIsCountedBeforeItIsRead)
{
    for (const char* const broken :
         {"5", "{}", "{\"domain\":5}", "{\"domain\":\"d\"}", "{\"domain\":\"d\" 5}"}) {
        SCOPED_TRACE(broken);
        Document document(domains({a, b, broken}));
        ASSERT_NE(0, document.parse());
        EXPECT_EQ(3U, document.info().count);
    }
}

TEST(ParseTransportInfoGrowthTest, BrokenElementHoldsWhatWasReadOfIt)
{
    Document document(domains({a, "{\"ip4_addr\":\"4\"}"}));
    ASSERT_EQ(14, document.parse());
    EXPECT_THAT(document.entries(), ElementsAre(entryA, Entry("(null)", "4", "(null)")));
}

TEST(ParseTransportInfoGrowthTest, MissingCommaKeepsTheCountOfElementsBefore)
{
    Document document("{\"domains\":[" + a + "," + b + " " + a + "]}");
    ASSERT_EQ(16, document.parse());
    EXPECT_EQ(2U, document.info().count);
}

TEST(ParseTransportInfoGrowthTest, ErrorAfterTheArrayKeepsItsCount)
{
    Document document("{\"domains\":[" + a + "," + b + "] x");
    ASSERT_EQ(13, document.parse());
    EXPECT_THAT(document.entries(), ElementsAre(entryA, entryB));
}

// ---- "domains" given twice -------------------------------------------------------------------------------

TEST(ParseTransportInfoTwiceTest, ShorterSecondArrayReplacesTheFirst)
{
    EXPECT_THAT(entriesOf("{\"domains\":[" + a + "," + a + "],\"domains\":[" + b + "]}"),
                ElementsAre(entryB));
}

TEST(ParseTransportInfoTwiceTest, EmptySecondArrayLeavesNoEntries)
{
    EXPECT_THAT(entriesOf("{\"domains\":[" + a + "," + a + "],\"domains\":[]}"), IsEmpty());
}

TEST(ParseTransportInfoTwiceTest, LongerSecondArrayReplacesTheFirst)
{
    EXPECT_THAT(entriesOf("{\"domains\":[" + a + "],\"domains\":[" + b + "," + b + "," + a + "]}"),
                ElementsAre(entryB, entryB, entryA));
}

TEST(ParseTransportInfoTwiceTest, SlotsOfTheFirstArrayAreUsedAgain)
{
    Document document("{\"domains\":[" + a + "," + a + "],\"domains\":[" + b + "," + b + "," + b + "]}");
    ASSERT_EQ(0, document.parse());
    constexpr size_t slot = sizeof(transport_info_entry);
    EXPECT_THAT(document.hooks().reallocSizes, ElementsAre(slot, 2 * slot, 3 * slot));
}

TEST(ParseTransportInfoTwiceTest, ShorterSecondArrayKeepsTheCapacity)
{
    Document document("{\"domains\":[" + a + "," + a + "],\"domains\":[" + b + "]}");
    ASSERT_EQ(0, document.parse());
    EXPECT_EQ(2U, document.info().capacity);
}

TEST(ParseTransportInfoTwiceTest, SlotsLeftUnusedByAShorterArrayAreUsedByALongerOne)
{
    Document document("{\"domains\":[" + a + "," + a + "],\"domains\":[" + b + "],\"domains\":[" + b + "," +
                      b + "]}");
    ASSERT_EQ(0, document.parse());
    constexpr size_t slot = sizeof(transport_info_entry);
    EXPECT_THAT(document.hooks().reallocSizes, ElementsAre(slot, 2 * slot));
}

TEST(ParseTransportInfoTwiceTest, FieldMissingInTheSecondArrayIsError14)
{
    EXPECT_EQ(
        14,
        rejectionOf("{\"domains\":[" + a + "],\"domains\":[{\"domain\":\"d\",\"ip4_addr\":\"4\"}]}").error);
}

TEST(ParseTransportInfoTwiceTest, ErrorInTheSecondArrayStoresItsOwnCount)
{
    Document document("{\"domains\":[" + a + "," + a + "," + a + "],\"domains\":[" + b + ",5]}");
    ASSERT_EQ(11, document.parse());
    EXPECT_EQ(2U, document.info().count);
}
