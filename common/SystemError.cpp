#include "common/SystemError.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace zorvo {

// errno is read before the base class copies the message: an allocation may change it.
SystemError::SystemError(const std::string& message, int code)
    : SystemError(Code{code != 0 ? code : errno}, message)
{
}

SystemError::SystemError(Code code, const std::string& message)
    : std::runtime_error(message), code_(code.value)
{
}

const char* SystemError::what() const noexcept
{
    const char* const message = std::runtime_error::what();
    try {
        if (fullText_.empty()) {
            std::string text;
            if (*message != '\0')
                text.append(message).append(": ");
            text.append(std::strerror(code_));
            fullText_ = std::move(text);
        }
        return fullText_.c_str();
    } catch (...) {
        return message;
    }
}

template class ExSystemError<EPERM>;
template class ExSystemError<ENOENT>;
template class ExSystemError<EINTR>;
template class ExSystemError<ECHILD>;
template class ExSystemError<EAGAIN>;

void throwSystemError(const std::string& message, int code)
{
    switch (code) {
    case EPERM:
        throw ExSystemError<EPERM>(message);
    case ENOENT:
        throw ExSystemError<ENOENT>(message);
    case EINTR:
        throw ExSystemError<EINTR>(message);
    case EAGAIN:
        throw ExSystemError<EAGAIN>(message);
    case ECHILD:
        throw ExSystemError<ECHILD>(message);
    default:
        throw SystemError(message, code);
    }
}

} // namespace zorvo

namespace zorvo::mail {

FSError::FSError(const std::string& operation, const std::filesystem::path& path, const std::string& target,
                 int code)
    : std::filesystem::filesystem_error(operation + " for " + target + " (" + path.string() + ")", path,
                                        std::error_code(code != 0 ? code : ECANCELED, std::system_category()))
{
}

} // namespace zorvo::mail
