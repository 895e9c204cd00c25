// FdOwner and PipeOwner: one open descriptor, and the two of a pipe, each with exactly one owner.
// Borrowers take a plain int and never close it. With them what is done to descriptors on their own: a number
// above the standard ones, non-blocking mode, and 0, 1 and 2 kept open, so that no owner ever gets one of
// them.
#pragma once

#include <utility>

namespace zorvo::process {

/// Owns one descriptor; -1 when empty. Move-only.
class FdOwner {
public:
    FdOwner() noexcept = default;
    explicit FdOwner(int fd) noexcept : fd_(fd) {}
    FdOwner(FdOwner&& other) noexcept : fd_(other.release()) {}
    FdOwner& operator=(FdOwner&& other) noexcept; ///< Closes what it held.
    ~FdOwner();                                   ///< Closes silently and keeps errno.

    /// Borrowed: valid until this is closed, moved from or destroyed.
    int get() const noexcept { return fd_; }
    bool isOpen() const noexcept { return fd_ >= 0; }

    /// Gives the descriptor to the caller, who closes it; -1 when empty.
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    /// Closes; holds -1 afterwards, also on failure: then throws SystemError with `label`.
    void close(const char* label);

    /// Closes, ignoring failures and keeping errno; holds -1 afterwards. Async-signal-safe.
    void close_nothrow() noexcept;

private:
    int fd_ = -1;
};

/// Gives a descriptor numbered 0, 1 or 2 a higher number, so that a child's standard descriptors can be laid
/// over these. Keeps it closed on exec. Throws SystemError with `label`.
void moveAboveStandard(FdOwner& fd, const char* label);

/// Owns both ends of one pipe(2); closed on exec, and never numbered 0, 1 or 2.
class PipeOwner {
public:
    PipeOwner() noexcept = default;
    PipeOwner(PipeOwner&&) noexcept = default;
    PipeOwner& operator=(PipeOwner&&) noexcept = default;

    /// Closes both ends. A failure throws SystemError ("pipe read-end close", "pipe write-end close") unless
    /// an exception is in flight. An object with such a member closes the ends itself, in a destructor that
    /// does not throw: smart pointers end the program over one that does.
    ~PipeOwner() noexcept(false); // NOLINT(bugprone-exception-escape)

    /// Makes the pipe. Throws SystemError with `label`.
    void open(const char* label);

    FdOwner readEnd;
    FdOwner writeEnd;
};

/// Sets O_NONBLOCK and no other status flag (F_SETFL of fcntl(2)). False with errno.
[[nodiscard]] bool setNonBlocking(int fd) noexcept;

/// Opens /dev/null on whichever of the descriptors 0, 1 and 2 is closed, so that no file opened later gets
/// one of these numbers. For main. Throws SystemError "/dev/null open".
void ensureStandardDescriptors();

} // namespace zorvo::process
