// Pump: moves data between this process and its children: feeds one, collects from any number, in one
// select(2) loop that ends when every pipe is closed and every child has ended.
//
//     Pump pump;
//     pump.setInput(launch.stdinPipe(), source);
//     pump.addOutput(launch.stdoutPipe(), receiver);
//     pump.run(catcher);
//
// What it is given is borrowed and has to outlive it. SIGCHLD has to come through and SIGPIPE has to be
// ignored meanwhile (LaunchSignals::adapt). Descriptors are closed as soon as they are not needed any more;
// after an exception some may be open. Everything throws SystemError with the label of the failed call:
// "select" (also with EMFILE, for a descriptor number that select(2) cannot watch), "fcntl", "read", "write"
// or "pipe read-end close".
#pragma once

#include "process/FdOwner.h"
#include "process/ProcessSetCatcher.h"

#include <boost/function.hpp>

#include <cstddef>
#include <list>
#include <vector>

namespace zorvo::process {

/// Gets every chunk that a child writes, at most 1024 bytes at a time.
using OutputReceiver = boost::function<void(const std::vector<char>&)>;

/// Called again and again with an empty buffer to append the next bytes to; returns false with the last.
using InputSource = boost::function<bool(std::vector<char>&)>;

class Pump {
public:
    /// Reads from `fd` until end of file and passes everything to `receiver`. Makes it non-blocking.
    void addOutput(FdOwner& fd, const OutputReceiver& receiver);

    /// Writes to `fd` what `source` gives (an empty source: nothing) and closes it then. Makes it
    /// non-blocking. Call it once at most.
    void setInput(FdOwner& fd, const InputSource& source);

    /// Blocks until every descriptor is closed and all children of `catcher` have ended. Passes on what a
    /// receiver or the source throws.
    void run(ProcessSetCatcher& catcher);

    /// True when input was left that no process reads any more (EPIPE). The descriptor was closed then, and
    /// the output collected to its end as usual: it may say why the child did not read.
    bool inputRefused() const noexcept { return inputRefused_; }

private:
    struct Output {
        FdOwner* fd;
        const OutputReceiver* receiver;
    };

    void _pass(ProcessSetCatcher& catcher);
    bool _read(const Output& output);
    void _refill();
    void _write();
    void _closeInput();

    std::list<Output> outputs_;
    FdOwner* input_ = nullptr; ///< Null once it is closed.
    const InputSource* source_ = nullptr;
    bool more_ = false; ///< The source has not given its last bytes yet.
    bool inputRefused_ = false;
    std::vector<char> pending_;
    size_t written_ = 0; ///< How many of the pending bytes.
};

} // namespace zorvo::process
