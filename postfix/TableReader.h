// TableReader: lookup tables as Postfix reads them, through postmap(1); never changes one.
//
// One run of the tool for each call, however many records or keys. No lock is taken: a table that is being
// changed is read as it was before or after.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

namespace zorvo::mail::postfix {

/// Values by key.
using TableRecords = std::unordered_map<std::string, std::string>;

class TableReader {
public:
    /// All records: `postmap -s table`. Throws PostfixConfigurationError with the tool's standard error or
    /// "unknown error".
    static TableRecords readAll(const std::string& table);

    /// The records that a lookup of `keys` finds, whatever the type of the table: `postmap -q - table`. A key
    /// that is not found, is empty or holds a line feed is left out. No keys, no run. Throws
    /// PostfixDatabaseError with the tool's standard error where it reports an error or was killed.
    static TableRecords lookUp(const std::string& table, const std::vector<std::string>& keys);
};

} // namespace zorvo::mail::postfix
