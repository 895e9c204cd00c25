// retryOnEintr: the one loop that repeats an interrupted system call.
#pragma once

#include <cerrno>

namespace zorvo {

/// Calls `call` until it returns something other than -1 with errno EINTR, and returns that. Adds nothing of
/// its own, so it is async-signal-safe where `call` is.
template <class Call>
auto retryOnEintr(Call call) noexcept(noexcept(call())) -> decltype(call())
{
    decltype(call()) result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

} // namespace zorvo
