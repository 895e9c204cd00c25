// What the tests of the checks share: how a finding is shown when it is not the expected one.
#pragma once

#include "check/Finding.h"

#include <ostream>

namespace zorvo::check {

inline std::ostream& operator<<(std::ostream& out, const Finding& finding)
{
    out << infoOf(finding.kind).identifier << " '" << finding.domain << "'";
    for (const auto& [name, value] : finding.values)
        out << " [" << name << ": " << value << "]";
    return out;
}

} // namespace zorvo::check
