// uerr: the stream of final error reports. Text goes to standard error at once and, at every flush, once
// more to standard output as one block, because the panel reads the one and administrators the other.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace zorvo {

/// Has no put area: every character passes through overflow().
class UtilityErrorStreamBuf : public std::streambuf {
public:
    /// Writes `c` to std::cerr, again where that is interrupted, and keeps it for the next sync(), unless
    /// memory is short. Returns c; EOF is returned unchanged.
    int_type overflow(int_type c) override;

    /// Flushes std::cerr, writes the kept text to std::cout, whole although it may be interrupted, flushes
    /// that, forgets the text. Returns 0.
    int sync() override;

private:
    std::string pending_;
};

/// An ostream over its own UtilityErrorStreamBuf.
class UtilityErrorStream : public std::ostream {
public:
    UtilityErrorStream();

private:
    UtilityErrorStreamBuf buffer_;
};

/// The one instance, constructed before main runs.
extern UtilityErrorStream uerr;

} // namespace zorvo
