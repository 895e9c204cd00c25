// main of zorvo-smtp-check: prepares the process, runs the program, turns an exception into a message and
// exit status 2. The messages have the form of zorvo-smtp-bind's, but go to standard error only: standard
// output is for the report.
#include "check/do_check.h"
#include "check/report.h"
#include "common/SystemError.h"
#include "common/Traceback.h"
#include "process/FdOwner.h"
#include "process/signals.h"

#include <exception>
#include <iostream>
#include <typeinfo>

int main(int argc, char* argv[])
{
    constexpr int couldNotCheck = 2;
    try {
        zorvo::process::ensureStandardDescriptors();
        zorvo::process::takeOverSignals();
        return do_check(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "Fatal error: ";
        zorvo::printDemangled(std::cerr, typeid(e).name());
        std::cerr << "(" << zorvo::check::escapedMessage(e.what()) << ")" << std::endl;
    } catch (...) {
        std::cerr << "UNSPECIFIED ERROR OCCURED" << std::endl;
    }
    return couldNotCheck;
}
