#include "common/reportException.h"

#include "common/Traceback.h"
#include "common/UtilityErrorStream.h"

#include <typeinfo>

namespace zorvo {

template <>
void reportException<std::exception>(const std::exception& e)
{
    uerr << "Fatal error: ";
    printDemangled(uerr, typeid(e).name());
    uerr << '(' << e.what() << ')' << std::endl;
    if (const auto* trace = dynamic_cast<const Traceback*>(&e))
        uerr << *trace;
}

} // namespace zorvo
