// AutocleanOFStream: a scratch file on a chosen path that does not outlive its stream.
#pragma once

#include <fstream>
#include <string>

namespace zorvo {

/// An ofstream whose file is removed when the stream is destroyed, whatever its state is by then.
class AutocleanOFStream : public std::ofstream {
public:
    /// Opens `path` for output, created or truncated. A failed open sets failbit and is not reported
    /// otherwise.
    explicit AutocleanOFStream(const std::string& path);

    /// Removes the file, keeping errno; a file that is gone is not an error. Then closes the stream;
    /// a failure of that is ignored, whatever exceptions() asks for.
    ~AutocleanOFStream() override;

    /// Flushes and closes the file. A failure sets failbit, and throws where exceptions() asks for it.
    void close();

private:
    std::string path_;
};

} // namespace zorvo
