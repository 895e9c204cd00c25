// closeRetrying: close(2) that survives an interruption.
#pragma once

namespace zorvo {

/// close(2), repeated while it is interrupted. Returns 0, or -1 with errno. A repetition that finds the
/// descriptor already gone counts as success: Linux releases it even when the call was interrupted.
/// Async-signal-safe.
int closeRetrying(int fd) noexcept;

} // namespace zorvo
