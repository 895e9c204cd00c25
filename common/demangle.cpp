// printDemangled: see the header.
#include "common/demangle.h"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>

namespace zorvo {

namespace {

typedef std::unique_ptr<char, void (*)(void*)> MallocText;

} // namespace

void printDemangled(std::ostream& out, std::string_view symbol)
{
    const MallocText name(::strndup(symbol.data(), symbol.size()), std::free);
    int status = -1;
    const MallocText readable(name ? abi::__cxa_demangle(name.get(), nullptr, nullptr, &status) : nullptr,
                              std::free);
    out << (readable ? std::string_view(readable.get()) : symbol);
}

} // namespace zorvo
