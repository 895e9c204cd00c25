// Fuzz target: how the output of Postfix's tools is judged (postfix/PostfixTool.h), leniently and strictly,
// against a model that follows a line character by character.
#include "fuzz/fuzz.h"
#include "postfix/PostfixTool.h"

#include <sstream>

namespace {

/// "NAME: LEVEL TEXT" taken apart. `level` stays empty for a line of another form.
struct Line {
    std::string level;
    bool furtherColon = false;
};

Line takeApart(const std::string& line)
{
    size_t position = 0;
    while (position < line.size() && line[position] != ':')
        ++position;
    if (position >= line.size() || position == line.size() - 1)
        return {};
    ++position;
    while (position < line.size() && line[position] == ' ')
        ++position;
    if (position >= line.size() || position == line.size() - 1)
        return {};
    Line result;
    result.level = line.substr(position);
    for (size_t i = position + 1; i < line.size(); ++i)
        result.furtherColon = result.furtherColon || line[i] == ':';
    return result;
}

bool acceptable(const std::string& output, bool strict)
{
    std::istringstream stream(output);
    std::string text;
    while (std::getline(stream, text)) {
        const Line line = takeApart(text);
        if (!line.furtherColon)
            continue;
        for (const char* const word : {"panic:", "fatal:", "error:"})
            if (line.level.rfind(word, 0) == 0)
                return false;
        if (strict && line.level.rfind("warning:", 0) != 0)
            return false;
    }
    return true;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using zorvo::mail::postfix::checkOutput;
    const std::string output = fuzz::toString(data, size);
    const bool lenient = checkOutput(output, false);
    const bool strict = checkOutput(output, true);
    FUZZ_CHECK(lenient == acceptable(output, false));
    FUZZ_CHECK(strict == acceptable(output, true));
    FUZZ_CHECK(lenient || !strict);
    // Lines are judged one by one.
    FUZZ_CHECK(checkOutput(output + "\n" + output, false) == lenient);
    FUZZ_CHECK(!checkOutput(output + "\npostconf: fatal: x: y", false));
    return 0;
}
