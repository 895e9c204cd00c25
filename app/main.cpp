// main: prepares the process, runs the utility, turns an exception into a message and an exit status.
#include "app/do_main.h"
#include "common/SystemError.h"
#include "common/UtilityErrorStream.h"
#include "common/reportException.h"
#include "common/writeText.h"
#include "process/FdOwner.h"
#include "process/signals.h"

#include <exception>
#include <iostream>

int main(int argc, char* argv[])
{
    try {
        zorvo::process::ensureStandardDescriptors();
        zorvo::process::takeOverSignals();
        return do_main(argc, argv);
    } catch (const zorvo::ZorvoUtilException& e) {
        zorvo::writeText(std::cerr, {e.what(), "\n"});
        return 1;
    } catch (const std::exception& e) {
        zorvo::reportException<std::exception>(e);
        return 1;
    } catch (...) {
        zorvo::uerr << "UNSPECIFIED ERROR OCCURED" << std::endl;
        return 2;
    }
}
