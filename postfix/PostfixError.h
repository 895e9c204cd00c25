// PostfixError: failures of Postfix's tools and files, by what they concern.
#pragma once

#include <stdexcept>

namespace zorvo::mail::postfix {

class PostfixError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// main.cf or master.cf, or adding to and rebuilding a lookup table.
class PostfixConfigurationError : public PostfixError {
public:
    using PostfixError::PostfixError;
};

/// Deleting from a lookup table.
class PostfixDatabaseError : public PostfixError {
public:
    using PostfixError::PostfixError;
};

} // namespace zorvo::mail::postfix
