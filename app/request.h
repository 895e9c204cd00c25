// request: the domains that a caller asks for on standard input, read and checked as a whole.
//
//     for (const Binding& binding : readRequest())
//         ...
//
// The document is described in app/transport_info.h. Only its form is checked: the strings are returned
// as given, whatever they contain.
#pragma once

#include <string>
#include <vector>

/// One sending domain of a request, with its source addresses, either of which may be empty.
struct Binding {
    std::string domain;
    std::string ip4;
    std::string ip6;
};

/// Reads standard input to its end and returns its bindings in the order of the document. The text ends at
/// its first NUL. Blocks until the writer closes its end.
///
/// Throws SystemError where reading fails, and std::runtime_error with the place of the flaw where the text
/// is not a request.
std::vector<Binding> readRequest();
