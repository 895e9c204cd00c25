// A do_main that ends in the way its argument names, under the program's own main.
#include "app/do_main.h"
#include "common/SystemError.h"

#include <stdexcept>
#include <string>

int do_main(int argc, char* argv[])
{
    const std::string outcome = argc > 1 ? argv[1] : "";
    if (outcome == "utility exception")
        throw zorvo::ZorvoUtilException("the text alone");
    if (outcome == "standard exception")
        throw std::out_of_range("its text");
    if (outcome == "anything else")
        throw 42; // NOLINT(hicpp-exception-baseclass): this is the point
    return 7;
}
