// closefrom: closes whole ranges of descriptors, for a child that is about to execute a program.
//
// All of them ignore what close(2) reports and may be called between fork and exec; those that look into
// /proc/self/fd allocate (opendir(3)), the others are async-signal-safe.
#pragma once

/// Closes every descriptor from `lowfd` upwards. Takes the place of the C library's function of this name.
extern "C" void closefrom(int lowfd) noexcept; // NOLINT(readability-redundant-declaration)

/// The two strategies of closefrom: by the names in /proc/self/fd, 0, or -1 when that cannot be relied upon
/// (some may be closed already then); and by number, from getdtablesize() down to `lowfd`, which keeps errno.
int closefrom_through_proc(int lowfd) noexcept;
void closefrom_max(int lowfd) noexcept;

namespace zorvo::process {

/// Closes the descriptors from `last` down to `first`; none where `last` is the lower one. Keeps errno.
void closeRange(int first, int last) noexcept;

} // namespace zorvo::process
