// Finding: one thing that is wrong with a request, a host or its Postfix, as data.
//
// Each kind has an identifier that does not change, and two sentences that hold for all findings of the kind:
// what will happen to mail, and what to do. What differs from one finding to the next is in its values.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace zorvo::check {

/// The most serious first.
enum class Gravity {
    Severe,  ///< All mail, all bindings, or every later run.
    Problem, ///< Mail of some domains leaves from the wrong address or not at all, or is refused.
    Warning  ///< Mail leaves from the right address, or this is not known.
};

/// "severe", "problem" or "warning".
const char* gravityName(Gravity gravity) noexcept;

/// The kinds, in the order of findingKinds().
enum class Kind {
    // the request
    DomainEmpty,
    DomainWithoutAddress,
    DomainWithLineFeed,
    ServiceNameTooLong,
    ServiceNotReadable,
    AddressWithLineFeed,
    AddressWithBlank,
    AddressInBrackets,
    AddressWithZone,
    AddressInCapitals,
    ParameterWithLineFeed,
    DomainNotAscii,
    DomainWithBlank,
    DomainNotHostName,
    DomainGivenTwice,
    AddressNotAnAddress,
    AddressOfOtherFamily,
    AddressWithLeadingZeroes,
    AddressAbbreviated,
    AddressUnspecified,
    AddressMulticast,
    AddressBroadcast,
    AddressIp4Mapped,
    AddressNotCanonical,
    // the host
    AddressNotOnHost,
    AddressNotOnHostEnforced,
    FamilyDisabled,
    InetInterfacesStopService,
    InetInterfacesChooseAddress,
    AddressNotOnInterface,
    // Postfix
    PostfixNotRunning,
    TableNotInMainCf,
    TableUnavailable,
    PostfixOlderThanFile,
    EarlierTableCatchesDomain,
    BindAddressMissing,
    BindAddressDiffers,
    BindAddressBesideDomains,
    RecordMissing,
    RecordDiffers,
    RecordLeftOver,
    ServiceMissing,
    ServiceDisabled,
    ServiceDiffers,
    ServiceSeenDifferently,
    ServiceLeftOver,
    ServiceInBothFiles,
    EarlierTableNotKnown,
    EnforceOff,
    // the DNS
    PtrMissing,
    PtrNotLeadingBack,
    HeloWithoutAddress,
    HeloLeadsElsewhere,
    SpfFail,
    SpfSoftfail,
    SpfUnusable,
    SpfNeutral,
    SpfMissing,
    PtrNotKnown,
    HeloNotKnown,
    SpfNotKnown
};

struct KindInfo {
    Kind kind;
    const char* identifier; ///< "address-not-on-host"
    Gravity gravity;
    const char* consequence; ///< What will happen to mail: one sentence.
    const char* remedy;      ///< What to do: one sentence.
};

/// All kinds, ordered as in Kind.
const std::vector<KindInfo>& findingKinds();

const KindInfo& infoOf(Kind kind);

struct Finding {
    Kind kind;
    std::string domain; ///< Empty where it is not about one domain.
    std::vector<std::pair<std::string, std::string>> values;
};

inline bool operator==(const Finding& a, const Finding& b)
{
    return a.kind == b.kind && a.domain == b.domain && a.values == b.values;
}

using Findings = std::vector<Finding>;

} // namespace zorvo::check
