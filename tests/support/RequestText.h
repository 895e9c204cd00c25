// RequestText: request documents for the program.
#pragma once

#include <string>
#include <vector>

namespace support {

/// One element of "domains".
struct Binding {
    std::string domain;
    std::string ip4;
    std::string ip6;
};

/// The document for these domains; the strings are put in unchanged.
inline std::string request(const std::vector<Binding>& bindings)
{
    std::string text = "{\"domains\": [";
    for (const Binding& binding : bindings) {
        if (text.back() == '}')
            text += ", ";
        text += "{\"domain\": \"" + binding.domain + "\", \"ip4_addr\": \"" + binding.ip4 +
                "\", \"ip6_addr\": \"" + binding.ip6 + "\"}";
    }
    return text + "]}\n";
}

/// `text`, `times` times.
inline std::string repeated(const std::string& text, size_t times)
{
    std::string all;
    all.reserve(text.size() * times);
    for (size_t i = 0; i < times; ++i)
        all += text;
    return all;
}

} // namespace support
