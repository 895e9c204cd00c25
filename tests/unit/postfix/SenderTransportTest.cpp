// IpSenderTransport and DomainSenderTransport: names, entries, and which services count as the same
// transport.
#include "postfix/SenderTransport.h"

#include "common/SystemError.h"
#include "unit/postfix/PostfixTestTools.h"

#include "support/ToolRuns.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <iterator>
#include <list>
#include <string>
#include <vector>

namespace {

using support::exactMessageOf;
using namespace zorvo::mail::postfix;

using Words = std::list<std::string>;

TEST(RecordTest, BindsTheSendersOfADomainToAServiceWithoutANextHop)
{
    EXPECT_EQ(recordKey("one.example"), "@one.example");
    EXPECT_EQ(recordValue("zorvo-192.0.2.1-"), "zorvo-192.0.2.1-:");
}

TEST(SenderTransportTest, PrefixAndTableAreFixed)
{
    EXPECT_STREQ("zorvo-", generatedPrefix);
    EXPECT_EQ(support::tableName, senderTransportTable);
}

TEST(SenderTransportTest, RemovedParametersAreFixed)
{
    EXPECT_EQ(support::removedParameters,
              std::vector<std::string>(std::begin(removedParameters), std::end(removedParameters)));
}

// --- by address

TEST(IpSenderTransportTest, BothAddressesNameAndFillTheEntry)
{
    const IpSenderTransport transport("example.org", "10.0.0.1", "fe80::1");
    EXPECT_EQ("zorvo-10.0.0.1-fe80--1", transport.name);
    EXPECT_EQ((Words{"smtp", "-o", "smtp_bind_address=10.0.0.1", "-o", "smtp_bind_address6=fe80::1", "-o",
                     "smtp_address_preference=ipv4"}),
              transport.command);
    EXPECT_EQ("zorvo-10.0.0.1-fe80--1 unix - - n - - smtp -o smtp_bind_address=10.0.0.1 "
              "-o smtp_bind_address6=fe80::1 -o smtp_address_preference=ipv4",
              formatServiceLine(transport));
}

TEST(IpSenderTransportTest, IPv4AloneLeavesTheOtherPlaceEmpty)
{
    EXPECT_EQ("zorvo-192.0.2.1- unix - - n - - smtp -o smtp_bind_address=192.0.2.1 -o smtp_bind_address6= "
              "-o smtp_address_preference=ipv4 -o inet_protocols=ipv4",
              formatServiceLine(IpSenderTransport("example.org", "192.0.2.1", "")));
}

TEST(IpSenderTransportTest, IPv6AloneLeavesTheOtherPlaceEmpty)
{
    EXPECT_EQ(
        "zorvo--2001-db8--1 unix - - n - - smtp -o smtp_bind_address= -o smtp_bind_address6=2001:db8::1 "
        "-o smtp_address_preference=ipv6 -o inet_protocols=ipv6",
        formatServiceLine(IpSenderTransport("example.org", "", "2001:db8::1")));
}

TEST(IpSenderTransportTest, NoAddressPrefersAny)
{
    EXPECT_EQ("zorvo-- unix - - n - - smtp -o smtp_bind_address= -o smtp_bind_address6= "
              "-o smtp_address_preference=any",
              formatServiceLine(IpSenderTransport("example.org", "", "")));
}

TEST(IpSenderTransportTest, DomainDoesNotMatter)
{
    EXPECT_EQ(formatServiceLine(IpSenderTransport("example.org", "192.0.2.1", "2001:db8::1")),
              formatServiceLine(IpSenderTransport("", "192.0.2.1", "2001:db8::1")));
}

TEST(IpSenderTransportTest, AddressesAreKept)
{
    const IpSenderTransport transport("example.org", "192.0.2.1", "2001:DB8::1");
    EXPECT_EQ("192.0.2.1", transport.ip4);
    EXPECT_EQ("2001:DB8::1", transport.ip6);
    EXPECT_EQ(ModuleType::Unix, transport.type);
    EXPECT_EQ(-1, transport.wakeup);
    EXPECT_EQ(-1, transport.maxProc);
}

// Nothing is checked; every colon of the name becomes a dash, and no other character changes.
TEST(IpSenderTransportTest, AnythingPassesAsAnAddress)
{
    const IpSenderTransport transport("", "a:b C", "[x%y]::");
    EXPECT_EQ("zorvo-a-b C-[x%y]--", transport.name);
    EXPECT_EQ((Words{"smtp", "-o", "smtp_bind_address=a:b C", "-o", "smtp_bind_address6=[x%y]::", "-o",
                     "smtp_address_preference=ipv4"}),
              transport.command);
}

// --- by domain

TEST(DomainSenderTransportTest, BothAddressesAndTheHeloName)
{
    EXPECT_EQ("zorvo-example.org-10.0.0.1-fe80--1 unix - - n - - smtp -o smtp_bind_address=10.0.0.1 "
              "-o smtp_bind_address6=fe80::1 -o smtp_address_preference=ipv4 -o smtp_helo_name=example.org",
              formatServiceLine(DomainSenderTransport("example.org", "10.0.0.1", "fe80::1")));
}

TEST(DomainSenderTransportTest, IPv4AloneEndsWithProtocolAndHeloName)
{
    const DomainSenderTransport transport("example.org", "10.0.0.1", "");
    EXPECT_EQ("zorvo-example.org-10.0.0.1-", transport.name);
    EXPECT_EQ((Words{"smtp", "-o", "smtp_bind_address=10.0.0.1", "-o", "smtp_bind_address6=", "-o",
                     "smtp_address_preference=ipv4", "-o", "inet_protocols=ipv4", "-o",
                     "smtp_helo_name=example.org"}),
              transport.command);
}

TEST(DomainSenderTransportTest, IPv6AloneEndsWithProtocolAndHeloName)
{
    EXPECT_EQ("zorvo-example.org--2001-db8--1 unix - - n - - smtp -o smtp_bind_address= "
              "-o smtp_bind_address6=2001:db8::1 -o smtp_address_preference=ipv6 -o inet_protocols=ipv6 "
              "-o smtp_helo_name=example.org",
              formatServiceLine(DomainSenderTransport("example.org", "", "2001:db8::1")));
}

TEST(DomainSenderTransportTest, NoAddressPrefersAny)
{
    EXPECT_EQ("zorvo-example.org-- unix - - n - - smtp -o smtp_bind_address= -o smtp_bind_address6= "
              "-o smtp_address_preference=any -o smtp_helo_name=example.org",
              formatServiceLine(DomainSenderTransport("example.org", "", "")));
}

// The domain is kept and announced in lower case; the name is made from it as it was passed.
TEST(DomainSenderTransportTest, DomainIsLowerCasedExceptInTheName)
{
    const DomainSenderTransport transport("Example.ORG", "10.0.0.1", "FE80::1");
    EXPECT_EQ("zorvo-Example.ORG-10.0.0.1-FE80--1", transport.name);
    EXPECT_EQ("example.org", transport.domain);
    EXPECT_EQ("smtp_helo_name=example.org", transport.command.back());
    EXPECT_EQ("FE80::1", transport.ip6);
}

// Only the name has its colons replaced, wherever they come from.
TEST(DomainSenderTransportTest, ColonsOfTheDomainAreReplacedInTheNameOnly)
{
    const DomainSenderTransport transport("a:b", "1:2", "3:4");
    EXPECT_EQ("zorvo-a-b-1-2-3-4", transport.name);
    EXPECT_EQ("a:b", transport.domain);
    EXPECT_EQ("smtp_helo_name=a:b", transport.command.back());
}

// Bytes outside ASCII are not letters in the default locale.
TEST(DomainSenderTransportTest, OtherBytesAreNotLowerCased)
{
    const DomainSenderTransport transport("\xc3\x84X.de", "10.0.0.1", "");
    EXPECT_EQ("\xc3\x84x.de", transport.domain);
}

// --- names

TEST(ServiceNamePartTest, EveryColonBecomesADash)
{
    EXPECT_EQ("", serviceNamePart(""));
    EXPECT_EQ("---", serviceNamePart(":::"));
    EXPECT_EQ("2001-db8--1", serviceNamePart("2001:db8::1"));
    EXPECT_EQ("a.b-c_D", serviceNamePart("a.b-c_D"));
}

// --- the same transport

TEST(SameTransportTest, IPv4DecidesWhateverTheIPv6Part)
{
    const IpSenderTransport transport("", "10.0.0.1", "fe80::1");
    EXPECT_TRUE(transport.sameTransport("zorvo-10.0.0.1-fe80--1"));
    EXPECT_TRUE(transport.sameTransport("zorvo-10.0.0.1-fe80--2"));
    EXPECT_TRUE(transport.sameTransport("zorvo-10.0.0.1-"));
    EXPECT_FALSE(transport.sameTransport("zorvo--fe80--1"));
    EXPECT_FALSE(transport.sameTransport("zorvo-10.0.0.2-fe80--1"));
}

TEST(SameTransportTest, IPv4IsComparedWithItsDash)
{
    const IpSenderTransport transport("", "10.0.0.1", "");
    EXPECT_FALSE(transport.sameTransport("zorvo-10.0.0.12-"));
    EXPECT_FALSE(transport.sameTransport("zorvo-10.0.0.1"));
    EXPECT_FALSE(transport.sameTransport(""));
    EXPECT_FALSE(transport.sameTransport("xzorvo-10.0.0.1-"));
    EXPECT_FALSE(transport.sameTransport("Zorvo-10.0.0.1-"));
}

TEST(SameTransportTest, DomainTransportMatchesOnlyIfItStartsAlike)
{
    const IpSenderTransport transport("", "10.0.0.1", "");
    EXPECT_FALSE(transport.sameTransport("zorvo-example.org-10.0.0.1-"));
    EXPECT_TRUE(transport.sameTransport("zorvo-10.0.0.1-example.org-192.0.2.1-"));
}

TEST(SameTransportTest, WithoutIPv4TheEndDecides)
{
    const IpSenderTransport transport("", "", "2001:db8::1");
    EXPECT_TRUE(transport.sameTransport("zorvo--2001-db8--1"));
    EXPECT_TRUE(transport.sameTransport("zorvo-10.0.0.1-2001-db8--1"));
    EXPECT_TRUE(transport.sameTransport("zorvo-example.org--2001-db8--1"));
    EXPECT_TRUE(transport.sameTransport("-2001-db8--1"));
    EXPECT_FALSE(transport.sameTransport("zorvo--2001-db8--12"));
    EXPECT_FALSE(transport.sameTransport("zorvo-2001-db8--1-"));
    EXPECT_FALSE(transport.sameTransport("2001-db8--1"));
    EXPECT_FALSE(transport.sameTransport(""));
}

// The address is compared in the form that it has in names.
TEST(SameTransportTest, ColonsAreComparedAsDashes)
{
    EXPECT_TRUE(IpSenderTransport("", "a:b", "").sameTransport("zorvo-a-b-"));
    EXPECT_FALSE(IpSenderTransport("", "a:b", "").sameTransport("zorvo-a:b-"));
    EXPECT_FALSE(IpSenderTransport("", "", "2001:db8::1").sameTransport("zorvo--2001:db8::1"));
}

TEST(SameTransportTest, EveryTransportIsTheSameAsItself)
{
    for (const IpSenderTransport& transport :
         {IpSenderTransport("", "10.0.0.1", ""), IpSenderTransport("", "", "2001:db8::1"),
          IpSenderTransport("", "10.0.0.1", "2001:db8::1")})
        EXPECT_TRUE(transport.sameTransport(transport.name));
}

// The message is fixed; the reason is errno at that moment.
TEST(SameTransportTest, WithoutAnyAddressTheCurrentErrorIsReported)
{
    const IpSenderTransport transport("example.org", "", "");
    EXPECT_EQ("failed to check transport match if domain name not specified: Permission denied",
              exactMessageOf<zorvo::SystemError>([&] {
                  errno = EACCES;
                  transport.sameTransport("zorvo--");
              }));
    EXPECT_EQ("failed to check transport match if domain name not specified: Success",
              exactMessageOf<zorvo::SystemError>([&] {
                  errno = 0;
                  transport.sameTransport("zorvo--");
              }));
}

// --- which services are a transport's own

TEST(OwnsServiceTest, ServicesOfTheAddressesAreTheIpTransportsOwn)
{
    const IpSenderTransport transport("", "10.0.0.1", "fe80::1");
    EXPECT_TRUE(transport.ownsService("zorvo-10.0.0.1-fe80--2"));
    EXPECT_FALSE(transport.ownsService("zorvo-10.0.0.12-"));
    EXPECT_FALSE(transport.ownsService("zorvo-example.org-10.0.0.1-"));
}

TEST(OwnsServiceTest, ServicesOfTheDomainAreTheDomainTransportsOwnWhateverTheirAddresses)
{
    const DomainSenderTransport transport("example.org", "10.0.0.1", "");
    EXPECT_TRUE(transport.ownsService("zorvo-example.org-10.0.0.1-"));
    EXPECT_TRUE(transport.ownsService("zorvo-example.org--2001-db8--1"));
    EXPECT_TRUE(transport.ownsService("zorvo-example.org.uk-10.0.0.1-"));
    EXPECT_FALSE(transport.ownsService("zorvo-Example.org-10.0.0.1-"));
    EXPECT_FALSE(transport.ownsService("xzorvo-example.org-10.0.0.1-"));
    EXPECT_FALSE(transport.ownsService("zorvo-10.0.0.1-"));
}

// Like the name, the beginning that is looked for is made of the domain as it was passed.
TEST(OwnsServiceTest, DomainIsComparedAsItStandsInNames)
{
    EXPECT_TRUE(DomainSenderTransport("a:b", "", "").ownsService("zorvo-a-b-1-"));
    EXPECT_FALSE(DomainSenderTransport("a:b", "", "").ownsService("zorvo-a:b-1-"));
    EXPECT_TRUE(DomainSenderTransport("A.org", "", "").ownsService("zorvo-A.org-1-"));
    EXPECT_FALSE(DomainSenderTransport("A.org", "", "").ownsService("zorvo-a.org-1-"));
}

TEST(OwnsServiceTest, WithoutADomainTheCurrentErrorIsReported)
{
    const DomainSenderTransport transport("", "10.0.0.1", "");
    EXPECT_EQ("Failed to check transport match if domain name not specified: Permission denied",
              exactMessageOf<zorvo::SystemError>([&] {
                  errno = EACCES;
                  (void)transport.ownsService("zorvo--10.0.0.1-");
              }));
}

} // namespace
