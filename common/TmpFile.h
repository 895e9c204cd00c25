// TmpFile: a new, uniquely named file beside a target, written as a stream, removed unless kept.
//
// The way to replace a file: TmpFile tmp(target, true); write; set the mode; sync(); keep(); close();
// rename(tmp.path(), target). Until the rename the target is untouched; a process killed before it leaves
// one file named TARGET and six characters behind.
#pragma once

#include <ext/stdio_filebuf.h>

#include <list>
#include <ostream>
#include <string>
#include <utility>

namespace zorvo {

/// Holds the file of a TmpFile, so that the buffer exists before the stream over it.
class TmpFileBase {
protected:
    struct Data {
        explicit Data(const std::pair<std::string, int>& pathAndDescriptor);

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
    /// "mkstemp() failed: " when the file cannot be made.
    TmpFile(const std::string& prefix, bool autoclean);
    TmpFile(const TmpFile&) = delete;
    TmpFile& operator=(const TmpFile&) = delete;

    /// Removes the file when it is not kept (a file that is gone is no error, any other failure is said on
    /// standard error), then flushes and closes. Never throws.
    ~TmpFile() override;

    /// Name of the file, as made by mkstemp(3).
    const std::string& path() const noexcept { return data_.path; }

    /// Writes the lines from `line` up to, not with, `last`, each with its line feed and a flush, that is
    /// with one write(2) where nothing interrupts it. The same as inserting and flushing them, at a quarter
    /// of the instructions, as the buffer is passed by. When a line could not be written whole the stream is
    /// bad, with errno of the failed call, the lines behind it are not tried, and it throws where
    /// exceptions() says so. Nothing is written to a stream that has failed before.
    void writeLines(std::list<std::string>::const_iterator line, std::list<std::string>::const_iterator last);

    /// Sets the mode of the file (fchmod(2)). Returns 0, or -1 with errno.
    int chmod(unsigned mode) noexcept;

    /// Flushes the stream and puts the file's data on the disk (fsync(2)). Returns 0, or -1 with errno.
    int sync();

    /// From now on the destructor leaves the file in place.
    void keep() noexcept { autoclean_ = false; }

    /// Flushes and closes the file; nothing can be written afterwards. Returns 0, or -1 with errno.
    int close();

private:
    bool requireOpen() noexcept;

    bool autoclean_;
};

} // namespace zorvo
