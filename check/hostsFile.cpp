#include "check/hostsFile.h"

#include "check/Address.h"
#include "check/dns.h"

#include <sstream>

namespace zorvo::check {

std::map<DnsQuestion, DnsAnswer> readHostsFile(std::istream& file)
{
    std::map<DnsQuestion, DnsAnswer> answers;
    const auto add = [&answers](ns_type type, const std::string& name, const std::string& value) {
        DnsAnswer& answer = answers[{type, name}];
        answer.state = DnsAnswer::State::Found;
        answer.fromHostsFile = true;
        answer.values.push_back(value);
    };
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string text;
        words >> text;
        const bool isIp6 = text.find(':') != std::string::npos;
        const Family family = isIp6 ? Family::Ip6 : Family::Ip4;
        const std::string address = readAddress(family, text).canonical;
        if (address.empty())
            continue;
        for (std::string name; words >> name;) {
            add(isIp6 ? ns_t_aaaa : ns_t_a, foldedName(name), address);
            add(ns_t_ptr, reverseName(family, address), foldedName(name));
        }
    }
    return answers;
}

} // namespace zorvo::check
