// ZorvoUtilException: a failure whose text is complete as it stands; main prints it without any prefix.
#pragma once

#include <stdexcept>

namespace zorvo {

/// Caught first in main: what() goes to standard error alone, exit status 1.
class ZorvoUtilException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace zorvo
