// MainCfManager: the only way to main.cf; every read and every change is one run of postconf(1).
//
// Changes run under a lock on the path of main.cf; reads take none. Nothing is cached. Names and values are
// passed to the tool as they are. A run that fails throws PostfixConfigurationError with the tool's standard
// error or, where that is empty, "unknown error"; a launch or a lock that fails throws SystemError.
#pragma once

#include <boost/algorithm/string/join.hpp>

#include <deque>
#include <string>

namespace zorvo::mail::postfix {

class MainCfManager {
public:
    /// The one instance, made by the first call, which asks postconf for config_directory and, when that run
    /// fails, for its built-in default. Throws as above or "unable to determine Postfix config_directory
    /// parameter"; the next call tries again.
    static MainCfManager& getInstance();

    MainCfManager(const MainCfManager&) = delete;
    MainCfManager& operator=(const MainCfManager&) = delete;

    /// The path of main.cf, which names the lock of its changes.
    const std::string& mainCfPath() const { return mainCfPath_; }

    /// `postconf -h [-d] [-x] name`: the value without white space at its ends. `useDefault` asks for the
    /// built-in default, `expand` for expanded $references. An unknown parameter gives an empty value, unless
    /// the tool reports an error (see checkOutput), which is thrown.
    std::string getStringValue(const std::string& name, bool useDefault, bool expand) const;

    /// `postconf -e name=value`, under the lock. An empty value is written as such.
    void replaceStringValue(const std::string& name, const std::string& value);

    /// `postconf -X name`, under the lock: the parameter falls back to its default.
    void removeKey(const std::string& name);

    /// `postconf -d name`: whether Postfix knows the parameter.
    bool isParamExists(const std::string& name) const;

    /// `postconf -n name`: whether main.cf sets the parameter. Throws an error that the tool reports.
    bool isValueConfigured(const std::string& name) const;

    /// Lists: elements stand between single spaces, tabs and commas; two of them in a row hold an empty
    /// element. They are written with ", " between them. Each of these operations writes at most once.

    /// Replaces `list` with the elements of the value; an empty value gives one empty element.
    void getList(const std::string& name, std::deque<std::string>& list) const;

    /// Writes the elements; an empty list makes the value empty.
    void setList(const std::string& name, const std::deque<std::string>& list);

    /// Replaces each element by transform(element), an empty result dropping it. Writes and returns true only
    /// where that changes more than dropping elements that were already empty.
    template <class Transform>
    bool transformList(const std::string& name, Transform transform);

    /// Drops every element equal to `value`. Returns whether there was one.
    bool removeListElement(const std::string& name, const std::string& value);

    /// Appends `value` to the current value, unless it is an element already. In that case only "mynetworks"
    /// is written, unchanged, which makes a default explicit.
    void appendStringValue(const std::string& name, const std::string& value);

    /// Adds the element "key value" unless it is there already; elements are separated by commas alone here,
    /// so they may hold several words. The same key with another value does not count.
    void appendCompoundStringValue(const std::string& name, const std::string& key, const std::string& value);

    /// Shows every comma-separated element, trimmed, to filter(element); then filter.finish(list) may add to
    /// the list and returns whether it is to be written.
    template <class Filter>
    void filterStringValues(const std::string& name, Filter& filter);

private:
    MainCfManager();

    void _lockedPostconfCall(const std::string& option, const std::string& argument);
    static std::deque<std::string> _splitAtCommas(const std::string& value);

    std::string mainCfPath_; ///< Key of the change lock; never passed to postconf.
};

/// The transform of removeListElement: what equals `value` is dropped.
class eq_tf {
public:
    explicit eq_tf(const std::string& value) : value_(value) {}
    std::string operator()(const std::string& element) const
    {
        return element == value_ ? std::string() : element;
    }

private:
    std::string value_;
};

/// The filter of appendCompoundStringValue.
class SingleCompoundStringValueAppender {
public:
    /// Both strings are borrowed until the filter is done.
    SingleCompoundStringValueAppender(const std::string& key, const std::string& value);

    void operator()(const std::string& element);
    bool finish(std::deque<std::string>& list);

    bool found() const noexcept { return found_; }       ///< The compound element was there.
    bool appended() const noexcept { return appended_; } ///< It was added.

private:
    std::string _compound() const;

    const std::string& key_;
    const std::string& value_;
    bool found_ = false;
    bool appended_ = false;
};

template <class Transform>
bool MainCfManager::transformList(const std::string& name, Transform transform)
{
    std::deque<std::string> list;
    getList(name, list);
    if (list.empty())
        return false;
    bool changed = false;
    std::deque<std::string> result;
    for (const std::string& element : list) {
        const std::string replacement = transform(element);
        changed = changed || replacement != element;
        if (!replacement.empty())
            result.push_back(replacement);
    }
    if (changed)
        setList(name, result);
    return changed;
}

template <class Filter>
void MainCfManager::filterStringValues(const std::string& name, Filter& filter)
{
    std::deque<std::string> list = _splitAtCommas(getStringValue(name, false, false));
    for (const std::string& element : list)
        filter(element);
    if (filter.finish(list))
        replaceStringValue(name, boost::algorithm::join(list, ", "));
}

} // namespace zorvo::mail::postfix
