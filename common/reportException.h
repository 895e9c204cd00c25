// reportException: the one format in which a failure is shown to the user.
#pragma once

#include <exception>

namespace zorvo {

template <class E>
void reportException(const E& e);

/// Prints on uerr: "Fatal error: ", the readable name of the dynamic type of `e` (the raw name where it
/// cannot be demangled), "(", e.what(), ")", a newline and a flush; then the call stack, where `e` also is a
/// Traceback. Throws no exception of its own; a null what() sets the stream's badbit.
template <>
void reportException<std::exception>(const std::exception& e);

} // namespace zorvo
