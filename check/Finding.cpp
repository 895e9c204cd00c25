#include "check/Finding.h"

namespace zorvo::check {

const char* gravityName(Gravity gravity) noexcept
{
    switch (gravity) {
    case Gravity::Severe:
        return "severe";
    case Gravity::Problem:
        return "problem";
    case Gravity::Warning:
        return "warning";
    }
    return "";
}

namespace {

const std::vector<KindInfo> requestKinds = {
    {Kind::DomainEmpty, "domain-empty", Gravity::Severe,
     "The run stops at this element: only the domains before it are bound, and Postfix is not restarted.",
     "Name the domain, or take the element out of the request."},
    {Kind::DomainWithoutAddress, "domain-without-address", Gravity::Severe,
     "The run stops at this element: only the domains before it are bound, and Postfix is not restarted.",
     "Give the domain an IPv4 address, an IPv6 address or both, or take it out of the request."},
    {Kind::DomainWithLineFeed, "domain-with-line-feed", Gravity::Severe,
     "The rest of the name becomes a line of its own in the table and, with domain-name, in master.cf, where "
     "Postfix takes it for a record or a service that nobody asked for.",
     "Remove the line feed, and find out who wrote this request."},
    {Kind::ServiceNameTooLong, "service-name-too-long", Gravity::Severe,
     "Postfix does not start, because master(8) cannot make a socket of a name that long.",
     "Use domain-ip for this request: its names hold the addresses only."},
    {Kind::ServiceNotReadable, "service-not-readable", Gravity::Severe,
     "Every later run stops at this service in master.cf, so no binding can be changed or removed; "
     "Postfix itself may refuse the file as well.",
     "Write the domain in letters, digits, hyphens and dots, and each address as inet_ntop(3) does."},
    {Kind::AddressWithLineFeed, "address-with-line-feed", Gravity::Severe,
     "The rest of the address becomes a line of its own in master.cf and in the table: postfix(1) cannot "
     "start, stop or reload Postfix, or Postfix takes the line for a service that nobody asked for.",
     "Remove the line feed, and find out who wrote this request."},
    {Kind::AddressWithBlank, "address-with-blank", Gravity::Severe,
     "The service's line in master.cf is split at the blank: postfix(1) cannot start, stop or reload "
     "Postfix, and every later run stops.",
     "Remove the blank."},
    {Kind::AddressInBrackets, "address-in-brackets", Gravity::Severe,
     "Mail leaves from the address, but every later run stops at the brackets in the service's name, so no "
     "binding can be changed or removed.",
     "Leave out the brackets."},
    {Kind::AddressWithZone, "address-with-zone", Gravity::Severe,
     "Every later run stops at the zone in the service's name, so no binding can be changed or removed.",
     "Give an address without a zone, one that is not link-local."},
    {Kind::AddressInCapitals, "address-in-capitals", Gravity::Severe,
     "Mail leaves from the address, but every later run stops at the capitals in the service's name, so no "
     "binding can be changed or removed.",
     "Write the address in lower case."},
    {Kind::ParameterWithLineFeed, "parameter-with-line-feed", Gravity::Severe,
     "The run stops at this address, after removing what was bound before, and Postfix is not "
     "restarted.",
     "Remove the line feed."},
    {Kind::DomainNotAscii, "domain-not-ascii", Gravity::Problem,
     "zorvo-smtp-bind refuses the request as a whole and changes nothing.",
     "Write the name in its ASCII form, whose labels begin with \"xn--\"."},
    {Kind::DomainWithBlank, "domain-with-blank", Gravity::Problem,
     "The name in the table ends at the blank, so mail of this domain leaves as if it were not bound.",
     "Remove the blank."},
    {Kind::DomainNotHostName, "domain-not-host-name", Gravity::Problem,
     "A receiver that checks the domain of the sender or the HELO name refuses its mail.",
     "Correct the name: labels of 1 to 63 letters, digits and inner hyphens, joined by dots, at most 253 "
     "characters in all."},
    {Kind::DomainGivenTwice, "domain-given-twice", Gravity::Problem,
     "Mail of the domain leaves from the addresses that are given last.", "Keep one of the elements."},
    {Kind::AddressNotAnAddress, "address-not-an-address", Gravity::Problem,
     "smtp(8) ends with a fatal error when it connects in this family, and the mail stays in the queue.",
     "Correct the address."},
    {Kind::AddressOfOtherFamily, "address-of-other-family", Gravity::Problem,
     "Postfix cannot bind to it: mail leaves from the host's default address, or waits in the queue where "
     "smtp_bind_address_enforce is set.",
     "Give IPv4 addresses as IPv4 and IPv6 addresses as IPv6."},
    {Kind::AddressWithLeadingZeroes, "address-with-leading-zeroes", Gravity::Problem,
     "Postfix reads a number with a leading zero as octal, so mail leaves from a different address.",
     "Write the address without leading zeroes."},
    {Kind::AddressAbbreviated, "address-abbreviated", Gravity::Problem,
     "Postfix expands it as inet_aton(3) does, and mail leaves from the address that this gives.",
     "Write all four numbers in decimal."},
    {Kind::AddressUnspecified, "address-unspecified", Gravity::Problem,
     "It stands for no address in particular: mail leaves from the host's default one.",
     "Name one of the host's addresses."},
    {Kind::AddressMulticast, "address-multicast", Gravity::Problem,
     "Mail cannot leave from a multicast address: it leaves from the host's default one, or waits in the "
     "queue if smtp_bind_address_enforce is set and binding fails.",
     "Name one of the host's addresses."},
    {Kind::AddressBroadcast, "address-broadcast", Gravity::Problem,
     "Mail cannot leave from a broadcast address: Postfix binds to it, but the kernel sends from the host's "
     "default one.",
     "Name one of the host's addresses."},
    {Kind::AddressIp4Mapped, "address-ip4-mapped", Gravity::Problem,
     "No IPv6 connection can be made from it, and mail to receivers with IPv6 addresses only waits in the "
     "queue.",
     "Give the address as IPv4."},
    {Kind::AddressNotCanonical, "address-not-canonical", Gravity::Warning,
     "Mail leaves from it all the same, but programs that compare addresses as text take it for another one.",
     "Write the address as inet_ntop(3) does."},
};

const std::vector<KindInfo> hostKinds = {
    {Kind::AddressNotOnHost, "address-not-on-host", Gravity::Problem,
     "Postfix cannot bind to the address, logs a warning and sends from the host's default one.",
     "Add the address to an interface, or bind to one that the host has."},
    {Kind::AddressNotOnHostEnforced, "address-not-on-host-enforced", Gravity::Problem,
     "Postfix cannot bind to the address, and with smtp_bind_address_enforce the mail waits in the queue.",
     "Add the address to an interface, or bind to one that the host has."},
    {Kind::FamilyDisabled, "family-disabled", Gravity::Problem,
     "inet_protocols in main.cf leaves this family out, so no mail leaves from the address.",
     "Add the family to inet_protocols, then stop and start Postfix."},
    {Kind::InetInterfacesStopService, "inet-interfaces-stop-service", Gravity::Problem,
     "smtp(8) with one family cannot use the address of the other family in inet_interfaces: it ends with "
     "\"host not found\", and the mail waits in the queue.",
     "Set inet_interfaces to \"all\", or give the domain an address of each family."},
    {Kind::InetInterfacesChooseAddress, "inet-interfaces-choose-address", Gravity::Warning,
     "Mail in the family without an address of its own leaves from the single one that inet_interfaces "
     "names.",
     "If that is not wanted, set the address of this family as well."},
    {Kind::AddressNotOnInterface, "address-not-on-interface", Gravity::Warning,
     "The kernel lets Postfix bind to the address all the same, and mail leaves from it.",
     "Make sure that answers to the address are routed to this host."},
};

const std::vector<KindInfo> postfixKinds = {
    {Kind::PostfixNotRunning, "postfix-not-running", Gravity::Severe, "No mail leaves.",
     "Start Postfix; if it does not come up, its log tells why."},
    {Kind::TableNotInMainCf, "table-not-in-main-cf", Gravity::Severe,
     "Postfix does not look into the table, and mail leaves as if no domain were bound.",
     "Add the table to sender_dependent_default_transport_maps in main.cf, then reload Postfix."},
    {Kind::TableUnavailable, "table-unavailable", Gravity::Severe,
     "Postfix defers all mail, of other domains as well, because a lookup in the table fails.",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::PostfixOlderThanFile, "postfix-older-than-file", Gravity::Severe,
     "Postfix was started before the file was last changed, and may still send as it did before.",
     "Restart Postfix."},
    {Kind::EarlierTableCatchesDomain, "earlier-table-catches-domain", Gravity::Problem,
     "Postfix finds the domain in an earlier table, and mail leaves as that table says.",
     "Take the domain out of that table, or put the generated table before it in "
     "sender_dependent_default_transport_maps."},
    {Kind::BindAddressMissing, "bind-address-missing", Gravity::Problem,
     "main.cf does not set the address, so mail in this family leaves from the host's default one.",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::BindAddressDiffers, "bind-address-differs", Gravity::Problem,
     "main.cf names another address than the one asked for, and mail in this family leaves from it.",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::BindAddressBesideDomains, "bind-address-beside-domains", Gravity::Problem,
     "Mail of all domains that are not bound leaves from this address instead of the host's default one.",
     "Run zorvo-smtp-bind, which takes the parameter out of main.cf."},
    {Kind::RecordMissing, "record-missing", Gravity::Problem,
     "The table does not name the domain, so its mail leaves as if it were not bound.",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::RecordDiffers, "record-differs", Gravity::Problem,
     "The table gives the domain's mail to another service than the one asked for.",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::RecordLeftOver, "record-left-over", Gravity::Problem,
     "The table binds a domain that the request does not name, and its mail leaves as this record says.",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::ServiceMissing, "service-missing", Gravity::Problem,
     "The service is not in master.cf, and mail that the table gives to it waits in the queue (\"mail "
     "transport unavailable\").",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::ServiceDisabled, "service-disabled", Gravity::Problem,
     "The service is among the disabled ones, which Postfix does not read, and mail that the table gives to "
     "it waits in the queue (\"mail transport unavailable\").",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::ServiceDiffers, "service-differs", Gravity::Problem,
     "The service in master.cf is not as zorvo-smtp-bind sets it up, and mail leaves as master.cf says.",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::ServiceSeenDifferently, "service-seen-differently", Gravity::Problem,
     "Postfix reads the service in master.cf differently from zorvo-smtp-bind, and mail leaves as Postfix "
     "reads it.",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::ServiceLeftOver, "service-left-over", Gravity::Warning,
     "No record names the service, and no mail uses it.",
     "Run zorvo-smtp-bind with the whole request, which removes it."},
    {Kind::ServiceInBothFiles, "service-in-both-files", Gravity::Warning,
     "The service is among the disabled ones as well; Postfix uses the one in master.cf.",
     "Run zorvo-smtp-bind with the whole request."},
    {Kind::EarlierTableNotKnown, "earlier-table-not-known", Gravity::Warning,
     "The table comes before the generated one and cannot be read, so whether it catches a domain is not "
     "known.",
     "Put the generated table first in sender_dependent_default_transport_maps."},
    {Kind::EnforceOff, "enforce-off", Gravity::Warning,
     "If an address is taken off the host, Postfix logs a warning and sends from the default one.",
     "Set \"smtp_bind_address_enforce = yes\" in main.cf if such mail should wait in the queue instead."},
};

const std::vector<KindInfo> dnsKinds = {
    {Kind::PtrMissing, "ptr-missing", Gravity::Problem,
     "Many receivers refuse mail from an address that has no name in the DNS.",
     "Ask the operator of the address's network for a PTR record with the name of this host."},
    {Kind::PtrNotLeadingBack, "ptr-not-leading-back", Gravity::Problem,
     "Many receivers refuse mail from an address whose name in the DNS does not lead back to it.",
     "Give a name of the PTR record an A or AAAA record with the address, or have the PTR record name one "
     "that has it."},
    {Kind::HeloWithoutAddress, "helo-without-address", Gravity::Problem,
     "Many receivers refuse mail with a HELO name that has no address in the DNS.",
     "Give the HELO name an A or AAAA record with the address."},
    {Kind::HeloLeadsElsewhere, "helo-leads-elsewhere", Gravity::Problem,
     "Receivers see mail from another address than the HELO name leads to, and some refuse it or take it for "
     "spam.",
     "Give the HELO name an A or AAAA record with the address as well."},
    {Kind::SpfFail, "spf-fail", Gravity::Problem,
     "The domain's SPF record forbids mail from the address, and receivers refuse it.",
     "Add the address to the domain's SPF record."},
    {Kind::SpfSoftfail, "spf-softfail", Gravity::Problem,
     "The domain's SPF record says that mail from the address is likely forged, and many receivers take it "
     "for spam.",
     "Add the address to the domain's SPF record."},
    {Kind::SpfUnusable, "spf-unusable", Gravity::Problem,
     "The domain's SPF record has an error, and some receivers refuse mail because of it.",
     "Correct the domain's SPF record."},
    {Kind::SpfNeutral, "spf-neutral", Gravity::Warning,
     "The domain's SPF record does not say whether mail may come from the address, and so protects nothing.",
     "Add the address to the domain's SPF record."},
    {Kind::SpfMissing, "spf-missing", Gravity::Warning,
     "The domain has no SPF record, and some receivers take its mail for spam.",
     "Give the domain a TXT record that begins with \"v=spf1\" and names its addresses."},
    {Kind::PtrNotKnown, "ptr-not-known", Gravity::Warning,
     "The DNS did not answer, so whether the address has a name that leads back to it is not known.",
     "Try again, and look at the servers in /etc/resolv.conf and at those of the zone."},
    {Kind::HeloNotKnown, "helo-not-known", Gravity::Warning,
     "The DNS did not answer, so whether the HELO name leads to the address is not known.",
     "Try again, and look at the servers in /etc/resolv.conf and at those of the zone."},
    {Kind::SpfNotKnown, "spf-not-known", Gravity::Warning,
     "The DNS did not answer, so whether the domain's SPF record allows the address is not known.",
     "Try again, and look at the servers in /etc/resolv.conf and at those of the zones that the record "
     "names."},
};

} // namespace

const std::vector<KindInfo>& findingKinds()
{
    static const std::vector<KindInfo> all = [] {
        std::vector<KindInfo> kinds = requestKinds;
        kinds.insert(kinds.end(), hostKinds.begin(), hostKinds.end());
        kinds.insert(kinds.end(), postfixKinds.begin(), postfixKinds.end());
        kinds.insert(kinds.end(), dnsKinds.begin(), dnsKinds.end());
        return kinds;
    }();
    return all;
}

const KindInfo& infoOf(Kind kind)
{
    return findingKinds()[static_cast<size_t>(kind)];
}

} // namespace zorvo::check
