// A do_main that ends in the way its first argument names, under the program's own main. With a second
// argument every write on standard error is interrupted from then on.
#include "app/do_main.h"

#include "common/SystemError.h"
#include "support/InterruptedPipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

int realStandardError = -1;

support::InterruptedPipe& interruptedStandardError()
{
    static support::InterruptedPipe pipe(STDERR_FILENO);
    return pipe;
}

/// What arrived there is passed on when main has returned.
void interruptStandardError()
{
    realStandardError = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    interruptedStandardError();
    (void)std::atexit([] {
        const std::string text = interruptedStandardError().text();
        if (::write(realStandardError, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            ::_exit(98);
    });
}

} // namespace

int do_main(int argc, char* argv[])
{
    const std::string outcome = argc > 1 ? argv[1] : "";
    if (argc > 2)
        interruptStandardError();
    if (outcome == "utility exception")
        throw zorvo::ZorvoUtilException("the text alone");
    if (outcome == "standard exception")
        throw std::out_of_range("its text");
    if (outcome == "anything else")
        throw 42; // NOLINT(hicpp-exception-baseclass): this is the point
    return 7;
}
