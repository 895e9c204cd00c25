// demangle: see the header.
#include "common/demangle.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace zorvo {

std::string demangle(const std::string& symbol)
{
    int status = -1;
    const std::unique_ptr<char, void (*)(void*)> readable(
        abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), std::free);
    return status == 0 && readable ? std::string(readable.get()) : symbol;
}

} // namespace zorvo
