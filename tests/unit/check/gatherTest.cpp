// What is gathered from a real host.
#include "check/gather.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace zorvo::check {

namespace {

using ::testing::Contains;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

} // namespace

TEST(GatherHostTest, LoopbackAddressIsOnItsInterface)
{
    const HostFacts facts = gatherHost({});
    EXPECT_THAT(facts.interfaceAddresses,
                Contains(::testing::AllOf(Field(&InterfaceAddress::interface, "lo"),
                                          Field(&InterfaceAddress::address, "127.0.0.1"))));
    EXPECT_THAT(facts.bindErrors, IsEmpty());
}

TEST(GatherHostTest, EachAddressIsBoundOnceAndTheOutcomeKept)
{
    const std::vector<Route> routes = {{"one.example", "", "127.0.0.1", "", ""},
                                       {"two.example", "", "127.0.0.1", "", ""},
                                       {"three.example", "", "203.0.113.5", "", ""},
                                       {"four.example", "", "[127.0.0.1]", "", ""}};
    EXPECT_THAT(gatherHost(routes).bindErrors,
                UnorderedElementsAre(Pair("127.0.0.1", 0), Pair("203.0.113.5", EADDRNOTAVAIL),
                                     Pair("[127.0.0.1]", 0)));
}

TEST(GatherHostTest, ZoneThatTheHostDoesNotHaveCannotBeBound)
{
    EXPECT_THAT(gatherHost({{"", "", "", "fe80::1%nosuch", ""}}).bindErrors,
                UnorderedElementsAre(Pair("fe80::1%nosuch", EADDRNOTAVAIL)));
}

TEST(GatherHostTest, AddressThatNoHostCanHaveIsNotTried)
{
    EXPECT_THAT(gatherHost({{"one.example", "", "0.0.0.0", "ff02::1", ""},
                            {"two.example", "", "nonsense", "192.0.2.1", ""}})
                    .bindErrors,
                IsEmpty());
}

} // namespace zorvo::check
