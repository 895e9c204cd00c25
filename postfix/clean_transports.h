// clean_transports: removes every generated binding from Postfix.
#pragma once

/// Removes the parameters of removedParameters from main.cf, empties the sender-dependent transport table and
/// removes every unix service named "zorvo-..." from master.cf, whoever wrote it (see SenderTransport.h). A
/// failing step throws what the manager it calls throws; the steps before it stay done.
void clean_transports();
