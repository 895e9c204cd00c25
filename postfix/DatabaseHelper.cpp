// DatabaseHelper: see the header.
#include "postfix/DatabaseHelper.h"

#include "postfix/PostfixError.h"
#include "postfix/PostfixTool.h"

#include <boost/algorithm/string/predicate.hpp>

#include <sys/wait.h>

#include <filesystem>

namespace zorvo::mail::postfix {

namespace {

const char* const postmapPath = "/usr/sbin/postmap";

/// Runs postmap with up to three arguments, fed from `input` where that is set. Returns the wait status; what
/// the tool prints on standard error goes to `errorOutput`.
int runPostmap(const process::Parameters<process::PipeProcessFlags>& postmap,
               const process::InputSource& input, std::string& errorOutput)
{
    process::Pipe pipe;
    if (input) {
        pipe.stdinFd = process::kPipeFd;
        pipe.stdinSource = input;
    }
    pipe.stderrFd = process::kPipeFd;
    pipe.stderrReceiver = process::makeStringReceiver(errorOutput);
    pipe.processes().push_back(postmap);
    return pipe.run();
}

} // namespace

std::string DatabaseHelper::getSourceFilename(const std::string& table)
{
    // Without a colon npos + 1 is 0, the whole string.
    return table.substr(table.find(':') + 1);
}

void DatabaseHelper::removeLmdbFile(const std::string& table)
{
    // postmap -r opens the database file that is there, and an lmdb one does not get smaller.
    if (boost::algorithm::starts_with(table, "lmdb:"))
        std::filesystem::remove(getSourceFilename(table) + ".lmdb");
}

void DatabaseHelper::runAdd(const std::string& table, const process::InputSource& records)
{
    std::string errorOutput;
    const int status = runPostmap({postmapPath, "-r", "-i", table}, records, errorOutput);
    requireToolSuccess(status, errorOutput);
}

void DatabaseHelper::runRemove(const std::string& table, const std::string& key,
                               const process::InputSource& keys)
{
    std::string errorOutput;
    const int status = runPostmap({postmapPath, "-d", key, table}, keys, errorOutput);
    if (WIFSIGNALED(status) || (!toolSucceeded(status) && !checkOutput(errorOutput, false)))
        throw PostfixDatabaseError(errorOutput);
}

void DatabaseHelper::runRebuild(const std::string& table)
{
    std::string errorOutput;
    const int status = runPostmap({postmapPath, "-r", table}, process::InputSource(), errorOutput);
    requireToolSuccess(status, errorOutput);
}

void DatabaseHelper::addRecord(const std::string& table, const std::string& key, const std::string& value)
{
    const RecordList records(1, Record(key, value));
    addRecords(table, records.begin(), records.end());
}

void DatabaseHelper::removeRecord(const std::string& table, const std::string& key)
{
    const MKLock lock(getSourceFilename(table), HashedName, Blocking);
    runRemove(table, key, process::InputSource());
}

} // namespace zorvo::mail::postfix
