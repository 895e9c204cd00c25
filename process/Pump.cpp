#include "process/Pump.h"

#include "common/SystemError.h"
#include "common/eintr.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace zorvo::process {

namespace {

constexpr size_t chunkSize = 1024;
const char* const closeLabel = "pipe read-end close";

/// fd_set cannot hold a higher number, and select(2) would write past its end.
void checkSelectable(int fd)
{
    if (fd >= FD_SETSIZE)
        throw SystemError("select", EMFILE);
}

void prepare(int fd)
{
    checkSelectable(fd);
    if (!setNonBlocking(fd))
        throw SystemError("fcntl", errno);
}

} // namespace

void Pump::addOutput(FdOwner& fd, const OutputReceiver& receiver)
{
    prepare(fd.get());
    outputs_.push_back(Output{&fd, &receiver});
}

void Pump::setInput(FdOwner& fd, const InputSource& source)
{
    prepare(fd.get());
    input_ = &fd;
    source_ = &source;
    more_ = static_cast<bool>(source);
    _refill();
}

void Pump::run(ProcessSetCatcher& catcher)
{
    checkSelectable(catcher.controlFd());
    while (input_ != nullptr || !outputs_.empty() || catcher.finishedCount() < catcher.children().size())
        _pass(catcher);
}

/// One select(2), and what it found.
void Pump::_pass(ProcessSetCatcher& catcher)
{
    fd_set readable;
    fd_set writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    int last = catcher.controlFd();
    FD_SET(last, &readable);
    for (const Output& output : outputs_) {
        FD_SET(output.fd->get(), &readable);
        last = std::max(last, output.fd->get());
    }
    if (input_ != nullptr) {
        FD_SET(input_->get(), &writable);
        last = std::max(last, input_->get());
    }
    if (retryOnEintr([&] { return ::select(last + 1, &readable, &writable, nullptr, nullptr); }) == -1)
        throw SystemError("select", errno);

    if (FD_ISSET(catcher.controlFd(), &readable))
        catcher.clear_control();
    if (input_ != nullptr && FD_ISSET(input_->get(), &writable))
        _write();
    for (auto output = outputs_.begin(); output != outputs_.end();) {
        const bool open = !FD_ISSET(output->fd->get(), &readable) || _read(*output);
        output = open ? std::next(output) : outputs_.erase(output);
    }
}

/// One read(2). False at end of file, with the descriptor closed.
bool Pump::_read(const Output& output)
{
    std::vector<char> chunk(chunkSize);
    const ssize_t size = retryOnEintr([&] { return ::read(output.fd->get(), chunk.data(), chunk.size()); });
    if (size == -1) {
        if (errno == EAGAIN)
            return true;
        throw SystemError("read", errno);
    }
    if (size == 0) {
        output.fd->close(closeLabel);
        return false;
    }
    chunk.resize(static_cast<size_t>(size));
    (*output.receiver)(chunk);
    return true;
}

/// Takes the next bytes from the source, or closes the descriptor where there are none.
void Pump::_refill()
{
    pending_.clear();
    written_ = 0;
    while (more_ && pending_.empty())
        more_ = (*source_)(pending_);
    if (pending_.empty())
        _closeInput();
}

/// One write(2).
void Pump::_write()
{
    const ssize_t size = retryOnEintr(
        [&] { return ::write(input_->get(), pending_.data() + written_, pending_.size() - written_); });
    if (size != -1) {
        written_ += static_cast<size_t>(size);
        if (written_ == pending_.size())
            _refill();
    } else if (errno == EPIPE) {
        inputRefused_ = true;
        _closeInput();
    } else if (errno != EAGAIN) {
        throw SystemError("write", errno);
    }
}

void Pump::_closeInput()
{
    FdOwner* const input = input_;
    input_ = nullptr;
    input->close(closeLabel);
}

} // namespace zorvo::process
