// printDemangled: the readable form of a symbol of the C++ runtime.
#pragma once

#include <iosfwd>
#include <string_view>

namespace zorvo {

/// Writes the readable name that `symbol` stands for to `out`; `symbol` itself where it cannot be demangled
/// or memory is short, so that a lack of memory can be reported, too. Throws only what `out` throws.
void printDemangled(std::ostream& out, std::string_view symbol);

} // namespace zorvo
