#include "postfix/DatabaseHelper.h"

#include "common/eintr.h"
#include "postfix/PostfixError.h"
#include "postfix/PostfixTool.h"

#include <boost/algorithm/string/predicate.hpp>

#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace zorvo::mail::postfix {

namespace {

/// As std::filesystem::remove(), which is not repeated while interrupted.
void removeFile(const std::string& path)
{
    if (retryOnEintr([&] { return std::remove(path.c_str()); }) == -1 && errno != ENOENT)
        throw std::filesystem::filesystem_error("cannot remove", path, {errno, std::generic_category()});
}

} // namespace

std::string DatabaseHelper::_getSourceFilename(const std::string& table)
{
    // Without a colon npos + 1 is 0, the whole string.
    return table.substr(table.find(':') + 1);
}

void DatabaseHelper::_removeLmdbFile(const std::string& table)
{
    // postmap -r opens the database file that is there, and an lmdb one does not get smaller.
    if (boost::algorithm::starts_with(table, "lmdb:"))
        removeFile(_getSourceFilename(table) + ".lmdb");
}

void DatabaseHelper::_runAdd(const std::string& table, const process::InputSource& records)
{
    requireToolSuccess(runPostfixTool({postmapPath, "-r", "-i", table}, ToolOutput::Inherited, records));
}

void DatabaseHelper::_runRemove(const std::string& table, const std::string& key,
                                const process::InputSource& keys)
{
    const ToolResult result = runPostfixTool({postmapPath, "-d", key, table}, ToolOutput::Inherited, keys);
    if (WIFSIGNALED(result.status) ||
        (!toolSucceeded(result.status) && !checkOutput(result.errorOutput, false)))
        throw PostfixDatabaseError(result.errorOutput);
}

void DatabaseHelper::_runRebuild(const std::string& table)
{
    requireToolSuccess(runPostfixTool({postmapPath, "-r", table}, ToolOutput::Inherited));
}

void DatabaseHelper::addRecord(const std::string& table, const std::string& key, const std::string& value)
{
    const RecordList records(1, Record(key, value));
    addRecords(table, records.begin(), records.end());
}

void DatabaseHelper::removeRecord(const std::string& table, const std::string& key)
{
    const MKLock lock(_getSourceFilename(table), HashedName, Blocking);
    _runRemove(table, key, process::InputSource());
}

} // namespace zorvo::mail::postfix
