#include "Report.h"

#include <algorithm>
#include <cstdio>

namespace faults {

std::string Problems::quoted(const std::string& text)
{
    constexpr size_t enough = 2000;
    std::string result = "\"";
    for (const char c : text.substr(0, enough)) {
        if (c == '\n')
            result += "\\n";
        else if (c == '"' || c == '\\')
            result += std::string("\\") + c;
        else if (c >= ' ' && c <= '~')
            result += c;
        else {
            char code[8];
            snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            result += code;
        }
    }
    return result + (text.size() > enough ? "\"..." : "\"");
}

std::string Problems::joined(const std::vector<std::string>& list)
{
    std::string text;
    for (const std::string& element : list)
        text += element + '\n';
    return text;
}

Report::Row& Report::_row(const std::string& name)
{
    const auto known =
        std::find_if(rows_.begin(), rows_.end(), [&](const Row& row) { return row.name == name; });
    if (known != rows_.end())
        return *known;
    rows_.emplace_back();
    rows_.back().name = name;
    return rows_.back();
}

void Report::add(const std::string& name, const std::string& circumstances, const Problems& problems)
{
    Row& entry = _row(name);
    ++entry.tried;
    if (problems.texts().empty()) {
        ++entry.survived;
        return;
    }
    fprintf(stderr, "FAILED %s, %s\n", name.c_str(), circumstances.c_str());
    for (const std::string& text : problems.texts())
        fprintf(stderr, "  %.5000s\n", text.c_str());
}

void Report::count(const std::string& name, const std::string& what, unsigned number)
{
    auto& counts = _row(name).counts;
    const auto known =
        std::find_if(counts.begin(), counts.end(), [&](const auto& count) { return count.first == what; });
    if (known != counts.end())
        known->second += number;
    else if (number != 0)
        counts.emplace_back(what, number);
}

void Report::missed(const std::string& name)
{
    ++missed_;
    count(name, "not reached");
}

bool Report::print() const
{
    size_t width = 13;
    for (const Row& entry : rows_)
        width = std::max(width, entry.name.size());
    const int column = static_cast<int>(width);
    printf("%-*s  %6s  %8s\n", column, "call or fault", "tried", "survived");
    unsigned tried = 0;
    unsigned survived = 0;
    for (const Row& entry : rows_) {
        printf("%-*s  %6u  %8u", column, entry.name.c_str(), entry.tried, entry.survived);
        for (const auto& [what, number] : entry.counts)
            printf("  %s: %u", what.c_str(), number);
        puts("");
        tried += entry.tried;
        survived += entry.survived;
    }
    printf("%-*s  %6u  %8u\n", column, "all", tried, survived);
    return tried != 0 && missed_ * 10 <= tried && tried == survived;
}

} // namespace faults
