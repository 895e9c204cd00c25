// clean_transports: takes Postfix back to a state without any generated outgoing binding.
#pragma once

/// Removes smtp_bind_address and smtp_bind_address6 from main.cf, empties the sender-dependent transport
/// table and removes every unix service named "zorvo-..." from master.cf, whoever wrote it. A failing step
/// throws what the manager it calls throws; the steps before it stay done.
void clean_transports();
