// report: findings as a table for people and as a JSON document for programs.
//
// Nothing in either can act on a terminal: bytes that are not printable ASCII are shown escaped.
#pragma once

#include "check/Facts.h"
#include "check/Finding.h"

#include <ostream>
#include <string>
#include <vector>

namespace zorvo::check {

struct Report {
    std::vector<Route> routes;
    Findings findings;
};

/// 0: nothing wrong, or warnings only; 1: problems.
int exitStatus(const Findings& findings);

/// `text` with every byte except printable ASCII as "\xNN" (line feed "\n", tab "\t", carriage return "\r"),
/// and "\\" for a backslash.
std::string escaped(const std::string& text);

/// The same for a message that was written to be read: line feeds and backslashes stay.
std::string escapedMessage(const std::string& text);

/// One line for each route, then the findings, the most serious first; ten or more of one kind as one line.
void writeTable(std::ostream& out, const Report& report, bool colour);

/// One JSON document. Bytes that are not UTF-8 are replaced by U+FFFD.
void writeJson(std::ostream& out, const Report& report);

} // namespace zorvo::check
