// demangle: the readable form of a symbol of the C++ runtime.
#pragma once

#include <string>

namespace zorvo {

/// The readable name that `symbol` stands for; `symbol` itself where it cannot be demangled.
std::string demangle(const std::string& symbol);

} // namespace zorvo
