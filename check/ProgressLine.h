// ProgressLine: one line on a terminal that shows the progress of the DNS queries.
#pragma once

#include <chrono>
#include <cstddef>
#include <ostream>

namespace zorvo::check {

/// Silent for the first second, then rewritten at most ten times a second, and erased at the end.
class ProgressLine {
public:
    /// `terminal` outlives this.
    explicit ProgressLine(std::ostream& terminal) : terminal_(terminal) {}
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    ~ProgressLine();

    /// `elapsed` counts from the first question on.
    void show(size_t answered, size_t asked, std::chrono::milliseconds elapsed);

private:
    std::ostream& terminal_;
    std::chrono::milliseconds due_{1000};
    size_t length_ = 0; ///< Of the line as it is shown.
};

} // namespace zorvo::check
