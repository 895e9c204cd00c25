// bench_stand_in: in the place of postmap where the cost of a launch is measured and not the tool's, whose
// own time differs more from run to run than a launch costs. Reads its input and ends. It goes through as
// much memory as a second-level cache holds, because after the real tool nothing of its parent is left there
// either.
#include <unistd.h>

#include <cstddef>

namespace {

constexpr size_t cacheLine = 64;
volatile char memory[768 * 1024];

} // namespace

int main()
{
    for (int round = 0; round < 3; ++round) {
        for (size_t i = 0; i < sizeof memory; i += cacheLine)
            memory[i] = static_cast<char>(round);
    }
    char buffer[512];
    while (::read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
    }
    return 0;
}
