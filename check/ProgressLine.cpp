#include "check/ProgressLine.h"

#include <string>

namespace zorvo::check {

ProgressLine::~ProgressLine()
{
    // Blanks, because not every terminal erases a line on request.
    if (length_ != 0)
        terminal_ << '\r' << std::string(length_, ' ') << '\r' << std::flush;
}

void ProgressLine::show(size_t answered, size_t asked, std::chrono::milliseconds elapsed)
{
    if (elapsed < due_)
        return;
    due_ = elapsed + std::chrono::milliseconds(100);
    // Both numbers only grow, so each line covers the one before.
    const std::string line = "DNS: " + std::to_string(answered) + " of " + std::to_string(asked) + " answers";
    length_ = line.size();
    terminal_ << '\r' << line << std::flush;
}

} // namespace zorvo::check
