// do_check: the whole run of zorvo-smtp-check: options, request, facts, findings, report.
#pragma once

/// Runs the program and writes its report to standard output. Returns 0 where nothing is wrong, or after
/// printing the help text, and 1 where there are problems. If something could not be checked, throws
/// with nothing written. Nothing on the host is changed.
int do_check(int argc, char* argv[]);
