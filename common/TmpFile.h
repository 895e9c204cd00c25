// TmpFile: a new, uniquely named file next to a target, written as a stream, removed unless it replaces the
// target.
//
//     TmpFile file(target, true);
//     file.exceptions(std::ios::badbit | std::ios::failbit);
//     file << text;
//     file.replace(target, 0644);
//
// Until the last step the target is untouched. A process killed before it leaves one file, named as the
// target with six more characters.
#pragma once

#include <ext/stdio_filebuf.h>

#include <ostream>
#include <string>
#include <utility>

namespace zorvo {

/// Holds the file of a TmpFile, so that the buffer exists before the stream over it.
class TmpFileBase {
protected:
    struct Data {
        /// Takes over the file; removes it, and throws, where there is no memory for a buffer.
        explicit Data(std::pair<std::string, int> pathAndDescriptor);

        std::string path;
        __gnu_cxx::stdio_filebuf<char> buffer; ///< Owns the descriptor.
    };

    explicit TmpFileBase(const std::string& prefix);

    Data data_;
};

/// An output stream over a new file PREFIXxxxxxx of mode 0600 (mkstemp(3)), closed on exec.
class TmpFile : private TmpFileBase, public std::ostream {
public:
    /// `autoclean` true: the destructor removes the file. Throws through throwSystemError with
    /// "mkstemp() failed: " when the file cannot be made, and leaves none behind.
    TmpFile(const std::string& prefix, bool autoclean);
    TmpFile(const TmpFile&) = delete;
    TmpFile& operator=(const TmpFile&) = delete;

    /// Removes the file with autoclean (a file that is gone is not an error, any other failure is reported on
    /// standard error), then flushes and closes. Never throws.
    ~TmpFile() override;

    /// Name of the file, as made by mkstemp(3).
    const std::string& path() const noexcept { return data_.path; }

    /// Makes the file the new `target`, as the last call on this object: flushes, sets the permission bits
    /// `mode`, waits until the data is on the disk (fsync(2)), closes and renames. Throws where a step fails:
    /// - std::ios::failure when not everything could be written, now or before;
    /// - std::filesystem::filesystem_error "chmod" or "fsync" with path();
    /// - mail::FSError "rename" with path() and `target`, for a failed close(2) or rename(2).
    /// The target is then as it was. After the last kind of failure the file is removed, after the others the
    /// destructor removes it with autoclean.
    void replace(const std::string& target, unsigned mode);

private:
    bool autoclean_;
};

} // namespace zorvo
