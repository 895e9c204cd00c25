// TableFiles: the files of a lookup table that is named "TYPE:PATH".
#pragma once

#include <string>

namespace support {

/// The source file.
inline std::string sourceOf(const std::string& table)
{
    return table.substr(table.find(':') + 1);
}

/// The database file that postmap(1) makes of it.
inline std::string databaseOf(const std::string& table)
{
    return sourceOf(table) + (table.compare(0, 5, "lmdb:") == 0 ? ".lmdb" : ".db");
}

} // namespace support
