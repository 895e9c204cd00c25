// SystemError: a failed system call as an exception: the label of the failed step plus its errno.
//
// throwSystemError() picks a typed variant for the five errno values that callers tell apart by type;
// everything else is a plain SystemError. All are reported by main as fatal, so the label is what an
// operator reads first: keep it short and name the step.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace zorvo {

/// A failed system call. Copyable.
class SystemError : public std::runtime_error {
public:
    /// `message` is the label of the failed step and may be empty. `code` is an errno value; 0 stands for
    /// the value of errno at this moment.
    SystemError(const std::string& message, int code);

    /// `message`, ": " and strerror(code()); only the latter where the message is empty. The text is built on
    /// the first call and kept; if there is no memory for it, the bare message is returned.
    /// The pointer is valid as long as this object lives.
    const char* what() const noexcept override;

    /// The errno value.
    int code() const noexcept { return code_; }

private:
    struct Code {
        int value;
    };
    SystemError(Code code, const std::string& message);

    int code_;
    mutable std::string fullText_;
};

/// The SystemError of one errno value, so that a caller can catch that value by type.
template <int N>
class ExSystemError : public SystemError {
public:
    explicit ExSystemError(const std::string& message) : SystemError(message, N) {}
};

extern template class ExSystemError<1>;  // EPERM
extern template class ExSystemError<2>;  // ENOENT
extern template class ExSystemError<4>;  // EINTR
extern template class ExSystemError<10>; // ECHILD
extern template class ExSystemError<11>; // EAGAIN

/// Throws ExSystemError<code> where `code` is EPERM, ENOENT, EINTR, EAGAIN or ECHILD, else SystemError.
/// Code 0 throws a plain SystemError with the current errno, whatever that is.
[[noreturn]] void throwSystemError(const std::string& message, int code);

/// Caught first in main: what() goes to standard error alone, exit status 1.
class ZorvoUtilException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace zorvo

namespace zorvo::mail {

/// A std::filesystem::filesystem_error whose message names the operation, the final name and the file that
/// was to become it: "rename for TARGET (PATH)".
class FSError : public std::filesystem::filesystem_error {
public:
    /// `code` is an errno value; 0 stands for ECANCELED. `path` becomes path1().
    FSError(const std::string& operation, const std::filesystem::path& path, const std::string& target,
            int code);
};

} // namespace zorvo::mail
