#include "check/report.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>

namespace zorvo::check {

namespace {

/// From this number on, findings of one kind are a count with the first names.
constexpr size_t summaryFrom = 10;
constexpr size_t namesInSummary = 3;

using Order = std::pair<Gravity, Kind>;

Order orderOf(const Finding& finding)
{
    return {infoOf(finding.kind).gravity, finding.kind};
}

/// The findings of each kind, the most serious first.
using Groups = std::map<Order, std::vector<const Finding*>>;

Groups groupsOf(const Findings& findings)
{
    Groups groups;
    for (const Finding& finding : findings)
        groups[orderOf(finding)].push_back(&finding);
    return groups;
}

/// What is wrong with each route.
class Verdicts {
public:
    explicit Verdicts(const Findings& findings)
    {
        for (const Finding& finding : findings) {
            byDomain_[boost::algorithm::to_lower_copy(finding.domain)].insert(orderOf(finding));
            if (finding.domain.empty() && infoOf(finding.kind).gravity == Gravity::Severe)
                global_.insert(orderOf(finding));
        }
    }

    /// The kinds that concern `route`, the most serious first: its own, and the severe ones of the whole
    /// server. Warnings about the server are not about its route.
    std::set<Order> of(const Route& route) const
    {
        std::set<Order> kinds = global_;
        const auto own = byDomain_.find(route.domain);
        if (own == byDomain_.end())
            return kinds;
        std::copy_if(own->second.begin(), own->second.end(), std::inserter(kinds, kinds.end()),
                     [&route](const Order& order) {
                         return !route.domain.empty() || order.first != Gravity::Warning;
                     });
        return kinds;
    }

private:
    std::unordered_map<std::string, std::set<Order>> byDomain_;
    std::set<Order> global_;
};

std::string painted(const std::string& text, Gravity gravity, bool colour)
{
    if (!colour)
        return text;
    const char* const start = gravity == Gravity::Severe    ? "\033[1;31m"
                              : gravity == Gravity::Problem ? "\033[31m"
                                                            : "\033[33m";
    return start + text + "\033[0m";
}

/// `c` itself if it is printable ASCII.
std::string escapedByte(char c)
{
    const char* const digits = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
    case '\n':
        return "\\n";
    case '\t':
        return "\\t";
    case '\r':
        return "\\r";
    default:
        if (byte >= 0x20 && byte < 0x7f)
            return {c};
        return {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
    }
}

/// A value so that its ends can be seen.
std::string quoted(const std::string& value)
{
    const bool isPlain = !value.empty() && value.find(' ') == std::string::npos;
    return isPlain ? escaped(value) : "\"" + escaped(value) + "\"";
}

constexpr size_t columns = 5;
using Row = std::array<std::string, columns>;

Row rowOf(const Route& route)
{
    const auto cell = [](const std::string& text) { return text.empty() ? "-" : escaped(text); };
    return {route.domain.empty() ? "(whole server)" : escaped(route.domain), cell(route.service),
            cell(route.ip4), cell(route.ip6), cell(route.helo)};
}

/// "ok", or the most serious kind and how many others there are.
std::string verdictText(const std::set<Order>& kinds, bool colour)
{
    if (kinds.empty())
        return "ok";
    const auto& [gravity, kind] = *kinds.begin();
    const std::string text = painted(infoOf(kind).identifier, gravity, colour);
    return kinds.size() == 1 ? text : text + " +" + std::to_string(kinds.size() - 1);
}

void writeRoutes(std::ostream& out, const Report& report, bool colour)
{
    const Row head = {"domain", "service", "IPv4", "IPv6", "HELO name"};
    std::array<size_t, columns> widths = {};
    const auto widen = [&widths](const Row& row) {
        for (size_t i = 0; i < columns; ++i)
            widths[i] = std::max(widths[i], row[i].size());
    };
    const auto write = [&](const Row& row, const std::string& verdict) {
        for (size_t i = 0; i < columns; ++i)
            out << row[i] << std::string(widths[i] - row[i].size() + 2, ' ');
        out << verdict << '\n';
    };
    const Verdicts verdicts(report.findings);
    widen(head);
    for (const Route& route : report.routes)
        widen(rowOf(route));
    write(head, "verdict");
    for (const Route& route : report.routes)
        write(rowOf(route), verdictText(verdicts.of(route), colour));
}

/// What a finding is about, for a list of names.
std::string nameOf(const Finding& finding)
{
    if (!finding.domain.empty())
        return escaped(finding.domain);
    return finding.values.empty() ? "(whole server)" : escaped(finding.values.front().second);
}

std::string lineOf(const Finding& finding)
{
    std::string line = finding.domain.empty() ? "" : escaped(finding.domain) + ": ";
    for (const auto& [name, value] : finding.values)
        line += name + " " + quoted(value) + ", ";
    if (!line.empty())
        line.resize(line.size() - 2);
    return line;
}

void writeGroup(std::ostream& out, const KindInfo& info, const std::vector<const Finding*>& group,
                bool colour)
{
    out << '\n'
        << painted(gravityName(info.gravity), info.gravity, colour) << ": " << info.identifier << '\n';
    if (group.size() >= summaryFrom) {
        out << "    " << group.size() << " times: ";
        for (size_t i = 0; i < namesInSummary; ++i)
            out << (i == 0 ? "" : ", ") << nameOf(*group[i]);
        out << " and " << group.size() - namesInSummary << " more\n";
    } else {
        for (const Finding* const finding : group) {
            const std::string line = lineOf(*finding);
            if (!line.empty())
                out << "    " << line << '\n';
        }
    }
    out << "  " << info.consequence << "\n  " << info.remedy << '\n';
}

/// "2 severe, 1 problem, 3 warnings"
std::string countsOf(const Findings& findings)
{
    std::string text;
    for (const Gravity gravity : {Gravity::Severe, Gravity::Problem, Gravity::Warning}) {
        const auto count = std::count_if(findings.begin(), findings.end(), [gravity](const Finding& finding) {
            return infoOf(finding.kind).gravity == gravity;
        });
        if (count == 0)
            continue;
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + gravityName(gravity);
        text += count != 1 && gravity != Gravity::Severe ? "s" : "";
    }
    return text.empty() ? "nothing wrong" : text;
}

} // namespace

int exitStatus(const Findings& findings)
{
    return std::any_of(
               findings.begin(), findings.end(),
               [](const Finding& finding) { return infoOf(finding.kind).gravity != Gravity::Warning; })
               ? 1
               : 0;
}

std::string escaped(const std::string& text)
{
    std::string result;
    for (const char c : text)
        result += c == '\\' ? "\\\\" : escapedByte(c);
    return result;
}

std::string escapedMessage(const std::string& text)
{
    std::string result;
    for (const char c : text)
        result += c == '\n' ? "\n" : escapedByte(c);
    return result;
}

void writeTable(std::ostream& out, const Report& report, bool colour)
{
    if (report.routes.empty())
        out << "nothing is bound\n";
    else
        writeRoutes(out, report, colour);
    for (const auto& [order, group] : groupsOf(report.findings))
        writeGroup(out, infoOf(order.second), group, colour);
    out << '\n' << countsOf(report.findings) << '\n';
}

void writeJson(std::ostream& out, const Report& report)
{
    using nlohmann::ordered_json;
    ordered_json document = {{"status", exitStatus(report.findings)},
                             {"routes", ordered_json::array()},
                             {"findings", ordered_json::array()},
                             {"kinds", ordered_json::object()}};
    const Verdicts verdicts(report.findings);
    for (const Route& route : report.routes) {
        ordered_json identifiers = ordered_json::array();
        for (const Order& order : verdicts.of(route))
            identifiers.push_back(infoOf(order.second).identifier);
        document["routes"].push_back({{"domain", route.domain},
                                      {"service", route.service},
                                      {"ip4", route.ip4},
                                      {"ip6", route.ip6},
                                      {"helo", route.helo},
                                      {"findings", std::move(identifiers)}});
    }
    for (const auto& [order, group] : groupsOf(report.findings)) {
        const KindInfo& info = infoOf(order.second);
        document["kinds"][info.identifier] = {{"gravity", gravityName(info.gravity)},
                                              {"consequence", info.consequence},
                                              {"remedy", info.remedy}};
        for (const Finding* const finding : group) {
            ordered_json values = ordered_json::object();
            for (const auto& [name, value] : finding->values)
                values[name] = value;
            document["findings"].push_back({{"identifier", info.identifier},
                                            {"gravity", gravityName(info.gravity)},
                                            {"domain", finding->domain},
                                            {"values", std::move(values)}});
        }
    }
    out << document.dump(2, ' ', true, ordered_json::error_handler_t::replace) << '\n';
}

} // namespace zorvo::check
