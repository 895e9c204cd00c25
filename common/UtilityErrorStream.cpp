// UtilityErrorStream and its one instance, uerr: see the header.
#include "common/UtilityErrorStream.h"

#include <iostream>
#include <new>

namespace zorvo {

UtilityErrorStreamBuf::int_type UtilityErrorStreamBuf::overflow(int_type c)
{
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return c;
    const char character = traits_type::to_char_type(c);
    std::cerr << character;
    try {
        pending_ += character;
    } catch (const std::bad_alloc&) {
        // Without memory the copy is cut, and standard error still gets everything.
    }
    return c;
}

int UtilityErrorStreamBuf::sync()
{
    std::cerr.flush();
    std::cout << pending_ << std::flush;
    pending_.clear();
    return 0;
}

UtilityErrorStream::UtilityErrorStream() : std::ostream(nullptr)
{
    // The base is built before the buffer exists.
    rdbuf(&buffer_);
}

UtilityErrorStream uerr;

} // namespace zorvo
