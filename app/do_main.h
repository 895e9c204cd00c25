// do_main: the whole run of the utility: options, request, wipe, rebuild, one restart.
#pragma once

/// Runs the utility. Returns 0 after a completed run and 1 after printing the help text; every failure leaves
/// as an exception, with what was done before it left in place and Postfix not restarted. An invalid command
/// line or request is found before anything is changed. Before its first change it waits, without limit, for
/// another run that is in progress.
int do_main(int argc, char* argv[]);
