// HelpText: what --help prints, as the options library lays it out.
#pragma once

namespace support {

inline constexpr char helpText[] =
    "Options:\n"
    "  -t [ --transport-type ] arg Type of transport. Should be explicit-ip, \n"
    "                              domain-ip, domain-name\n"
    "  -4 [ --ip4-addr ] arg       IP v4 address\n"
    "  -6 [ --ip6-addr ] arg       IP v6 address\n"
    "  -h [ --help ]               Show usage message\n"
    "  -v [ --verbose ]            Verbose output\n"
    "\n";

} // namespace support
