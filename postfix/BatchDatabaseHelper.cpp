#include "postfix/BatchDatabaseHelper.h"

#include "postfix/PostfixError.h"

#include <new>

namespace zorvo::mail::postfix {

BatchDatabaseHelper::BatchDatabaseHelper(bool incremental, bool immediate)
    : incremental_(incremental), immediate_(immediate)
{
}

BatchDatabaseHelper::~BatchDatabaseHelper() = default;

RecordList& BatchDatabaseHelper::_cacheOf(const std::string& table)
{
    try {
        return recordCache_[table];
    } catch (const std::bad_alloc&) {
        throw PostfixDatabaseError("unable to form record cache");
    }
}

void BatchDatabaseHelper::commit()
{
    for (const auto& [table, records] : recordCache_) {
        if (incremental_)
            DatabaseHelper::addRecords(table, records.begin(), records.end());
        else
            DatabaseHelper::replaceRecords(table, records.begin(), records.end());
    }
    recordCache_.clear();
    for (const auto& [table, keys] : removalCache_)
        DatabaseHelper::removeRecords(table, keys.begin(), keys.end());
    removalCache_.clear();
}

} // namespace zorvo::mail::postfix
