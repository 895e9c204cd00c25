// giveUpPrivileges: from root to nobody, without return, before any data from strangers is read.
#pragma once

namespace zorvo::check {

/// Turns a process with root among its user ids into "nobody" of passwd(5), with that user's group and no
/// other, and makes sure that the process cannot become root again. For any process, sets no_new_privs
/// (prctl(2)), so that nothing it executes gains rights either. Descriptors stay open: whatever needs root
/// has to be read and closed before.
///
/// Throws SystemError, or std::runtime_error if there is no such user or the process could become root again.
/// The process may then be anything between both users and has to end.
void giveUpPrivileges();

} // namespace zorvo::check
