// Runs a fuzz target on kept inputs: every file named, and every file in the folders named, in the order of
// their names. Prints how many. The first input that breaks a promise ends the process; its name is then the
// last line on standard error.
//
// exits: 0 all inputs ran; 1 a name could not be read, or there was no input at all
#include "fuzz/fuzz.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

// Few targets have one.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

void addInputs(const fs::path& name, std::vector<fs::path>& inputs)
{
    if (!fs::is_directory(name)) {
        inputs.push_back(name);
        return;
    }
    const size_t before = inputs.size();
    for (const fs::directory_entry& entry : fs::directory_iterator(name))
        if (entry.is_regular_file())
            inputs.push_back(entry.path());
    std::sort(inputs.begin() + static_cast<std::ptrdiff_t>(before), inputs.end());
}

void run(const fs::path& input)
{
    std::ifstream file(input, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file.is_open() || file.bad())
        throw std::runtime_error("cannot read " + input.string());
    std::cerr << input.string() << '\n';
    // In a block of its own size: a string may have spare memory after its end.
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

} // namespace

int main(int argc, char** argv)
{
    try {
        fuzz::everyCheck = true;
        if (LLVMFuzzerInitialize != nullptr)
            LLVMFuzzerInitialize(&argc, &argv);
        std::vector<fs::path> inputs;
        for (int i = 1; i < argc; ++i)
            addInputs(argv[i], inputs);
        if (inputs.empty())
            throw std::runtime_error("no inputs");
        for (const fs::path& input : inputs)
            run(input);
        std::cout << inputs.size() << " inputs\n";
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "replay: " << e.what() << '\n';
        return 1;
    }
}
