#include "common/UtilityErrorStream.h"

#include "common/writeText.h"

#include <iostream>
#include <new>

namespace zorvo {

UtilityErrorStreamBuf::int_type UtilityErrorStreamBuf::overflow(int_type c)
{
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return c;
    const char character = traits_type::to_char_type(c);
    writeText(std::cerr, {{&character, 1}});
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
    writeText(std::cout, {pending_});
    std::cout.flush();
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
