// BatchDatabaseHelper: gathers changes of lookup tables so that each table costs one postmap(1) run, or
// passes each change straight on. What is still gathered when it is destroyed is dropped.
#pragma once

#include "postfix/DatabaseHelper.h"

#include <list>
#include <map>
#include <string>

namespace zorvo::mail::postfix {

class BatchDatabaseHelper {
public:
    /// `incremental`: records are merged into the table; otherwise they become its whole content.
    /// `immediate`: every addChanges is applied at once; otherwise commit() applies them.
    BatchDatabaseHelper(bool incremental, bool immediate);
    BatchDatabaseHelper(const BatchDatabaseHelper&) = delete;
    BatchDatabaseHelper& operator=(const BatchDatabaseHelper&) = delete;
    ~BatchDatabaseHelper();

    /// Adds records for `table`. Immediate: throws as DatabaseHelper does. Otherwise copies them, and throws
    /// PostfixDatabaseError "unable to form record cache" without memory for the table's entry.
    template <class RecordIterator>
    void addChanges(const std::string& table, RecordIterator first, RecordIterator last);

    /// Applies all additions, then all removals, table by table in the order of their names. A failure stops
    /// there, leaving what is gathered in place.
    void commit();

private:
    RecordList& _cacheOf(const std::string& table);

    bool incremental_;
    bool immediate_;
    std::map<std::string, RecordList> recordCache_;
    std::map<std::string, std::list<std::string>> removalCache_; ///< Nothing fills it yet; commit() is ready.
};

template <class RecordIterator>
void BatchDatabaseHelper::addChanges(const std::string& table, RecordIterator first, RecordIterator last)
{
    if (immediate_) {
        if (incremental_)
            DatabaseHelper::addRecords(table, first, last);
        else
            DatabaseHelper::replaceRecords(table, first, last);
        return;
    }
    RecordList& records = _cacheOf(table);
    records.insert(records.end(), first, last);
}

} // namespace zorvo::mail::postfix
