// FSError: see the header.
#include "common/FSError.h"

#include <cerrno>

namespace zorvo::mail {

FSError::FSError(const std::string& operation, const std::filesystem::path& path, const std::string& target,
                 int code)
    : std::filesystem::filesystem_error(operation + " for " + target + " (" + path.string() + ")", path,
                                        std::error_code(code != 0 ? code : ECANCELED, std::system_category()))
{
}

} // namespace zorvo::mail
