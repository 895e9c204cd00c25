// DatabaseHelper: changes Postfix lookup tables through postmap(1); never reads one.
//
// A table is named as in main.cf, "hash:/path"; the path after the first colon is its source file, the key
// of the lock under which every change runs. A record's text is "KEY VALUE\n"; nothing is quoted or checked.
#pragma once

#include "common/AutocleanOFStream.h"
#include "common/MKLock.h"
#include "process/Pipe.h"

#include <list>
#include <string>
#include <utility>
#include <vector>

namespace zorvo::mail::postfix {

/// A record: key and value.
using Record = std::pair<std::string, std::string>;
using RecordList = std::list<Record>;

class DatabaseHelper {
public:
    /// addRecords with one record.
    static void addRecord(const std::string& table, const std::string& key, const std::string& value);

    /// `postmap -r -i table` with the records on standard input: merges them into the table. An empty range
    /// does nothing. Throws PostfixConfigurationError with the tool's standard error or "unknown error".
    template <class RecordIterator>
    static void addRecords(const std::string& table, RecordIterator first, RecordIterator last);

    /// `postmap -d key table`. A key that is not there is not an error. Throws PostfixDatabaseError with the
    /// tool's standard error as it is when the tool was killed, or failed and reports an error (see
    /// checkOutput).
    static void removeRecord(const std::string& table, const std::string& key);

    /// `postmap -d - table` with the keys on standard input; otherwise as removeRecord. An empty range does
    /// nothing.
    template <class KeyIterator>
    static void removeRecords(const std::string& table, KeyIterator first, KeyIterator last);

    /// Makes the records the table's whole content: writes the source file, runs `postmap -r table`, removes
    /// the source file again, whatever happened. An empty range empties the table. Throws as addRecords, and
    /// the stream's failure when the source file cannot be written. The database file of an "lmdb:" table is
    /// removed first.
    template <class RecordIterator>
    static void replaceRecords(const std::string& table, RecordIterator first, RecordIterator last);

private:
    static std::string _getSourceFilename(const std::string& table);
    static void _removeLmdbFile(const std::string& table);
    static void _runAdd(const std::string& table, const process::InputSource& records);
    static void _runRemove(const std::string& table, const std::string& key,
                           const process::InputSource& keys);
    static void _runRebuild(const std::string& table);
};

/// Appends the text of the record at `it` to `buffer` and advances; true while more remain.
template <class RecordIterator>
bool formRecord(std::vector<char>& buffer, RecordIterator& it, const RecordIterator& end)
{
    const std::string& key = it->first;
    const std::string& value = it->second;
    buffer.insert(buffer.end(), key.begin(), key.end());
    buffer.push_back(' ');
    buffer.insert(buffer.end(), value.begin(), value.end());
    buffer.push_back('\n');
    return ++it != end;
}

/// Appends the line of the key at `it` to `buffer` and advances; true while more remain.
template <class KeyIterator>
bool printKey(std::vector<char>& buffer, KeyIterator& it, const KeyIterator& end)
{
    const std::string& key = *it;
    buffer.insert(buffer.end(), key.begin(), key.end());
    buffer.push_back('\n');
    return ++it != end;
}

template <class RecordIterator>
void DatabaseHelper::addRecords(const std::string& table, RecordIterator first, RecordIterator last)
{
    if (first == last)
        return;
    const MKLock lock(_getSourceFilename(table), HashedName, Blocking);
    _runAdd(table, [&](std::vector<char>& buffer) { return formRecord(buffer, first, last); });
}

template <class KeyIterator>
void DatabaseHelper::removeRecords(const std::string& table, KeyIterator first, KeyIterator last)
{
    if (first == last)
        return;
    const MKLock lock(_getSourceFilename(table), HashedName, Blocking);
    _runRemove(table, "-", [&](std::vector<char>& buffer) { return printKey(buffer, first, last); });
}

template <class RecordIterator>
void DatabaseHelper::replaceRecords(const std::string& table, RecordIterator first, RecordIterator last)
{
    const std::string source = _getSourceFilename(table);
    const MKLock lock(source, HashedName, Blocking);
    AutocleanOFStream stream(source);
    stream.exceptions(std::ios::badbit | std::ios::failbit);
    std::vector<char> buffer;
    for (bool more = first != last; more;) {
        buffer.clear();
        more = formRecord(buffer, first, last);
        stream.write(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    }
    stream.close();
    _removeLmdbFile(table);
    _runRebuild(table);
}

} // namespace zorvo::mail::postfix
