// Fuzz target: what a child sends through the control pipe before exec (rethrowReport of
// process/ProcessLaunch.h).
//
// Input: one byte that is skipped, then the report. The result is compared with a simple model.
#include "common/SystemError.h"
#include "fuzz/fuzz.h"
#include "process/ProcessLaunch.h"

#include <boost/lexical_cast.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iostream>
#include <optional>
#include <sstream>
#include <vector>

namespace {

/// Redirects std::clog for one scope.
class CapturedLog {
public:
    CapturedLog() : old_(std::clog.rdbuf(text_.rdbuf())) {}
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;
    ~CapturedLog() { std::clog.rdbuf(old_); }

    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* old_;
};

/// The result of a report: the exception, and what was logged on the way.
struct Outcome {
    std::string type; ///< Empty: the child executed its program.
    std::string message;
    int code = 0;
    std::string log;

    bool operator==(const Outcome& other) const
    {
        return type == other.type && message == other.message && code == other.code && log == other.log;
    }
};

/// What errno is while a report is read: a SystemError without a code takes that.
constexpr int ambientErrno = ENOSPC;

Outcome read(const std::string& report)
{
    const CapturedLog log;
    Outcome outcome;
    errno = ambientErrno;
    try {
        const std::vector<char> block(report.begin(),
                                      report.end()); // without a NUL, so that reading past it is seen
        zorvo::process::rethrowReport({block.data(), block.size()});
    } catch (const zorvo::SystemError& e) {
        outcome = {"SystemError", e.what(), e.code(), ""};
    } catch (const std::runtime_error& e) {
        outcome = {"std::runtime_error", e.what(), 0, ""};
    } catch (const boost::bad_lexical_cast&) {
        outcome.type = "bad code";
    } catch (const std::exception& e) {
        FUZZ_CHECK(typeid(e) == typeid(std::exception));
        outcome.type = "std::exception";
    }
    outcome.log = log.text();
    return outcome;
}

/// Decimal digits after at most one sign, within the range of int.
std::optional<int> toInt(const std::string& text)
{
    const bool sign = !text.empty() && (text[0] == '-' || text[0] == '+');
    long long value = 0;
    for (size_t i = sign ? 1 : 0; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9')
            return std::nullopt;
        value = std::min<long long>(value * 10 + (text[i] - '0'), 1LL << 40);
    }
    if (sign && text[0] == '-')
        value = -value;
    const bool digits = text.size() > (sign ? 1U : 0U);
    return digits && value >= INT_MIN && value <= INT_MAX ? std::optional<int>(static_cast<int>(value))
                                                          : std::nullopt;
}

Outcome expected(const std::string& report)
{
    Outcome outcome;
    std::string type;
    std::string message;
    int code = 0;
    std::istringstream stream(report);
    std::string record;
    while (std::getline(stream, record, '\0')) {
        const std::string text = record.size() < 4 ? "" : record.substr(4);
        if (record.rfind("ET: ", 0) == 0) {
            type = text;
        } else if (record.rfind("EM: ", 0) == 0) {
            message = text;
        } else if (record.rfind("EC: ", 0) == 0) {
            const std::optional<int> number = toInt(text);
            if (!number) {
                outcome.type = "bad code";
                return outcome;
            }
            code = *number;
        } else {
            outcome.log += "child output: " + record + "\n";
        }
    }
    if (message.empty())
        message = "an error in child process";
    if (type == "SystemError") {
        code = code == 0 ? ambientErrno : code;
        outcome.type = type;
        outcome.message = zorvo::SystemError(message, code).what();
        outcome.code = code;
    } else if (type == "std::runtime_error") {
        outcome.type = type;
        outcome.message = message;
    } else if (type == "std::exception") {
        outcome.type = type;
    }
    return outcome;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const std::string report = fuzz::toString(data + 1, size - 1);
    FUZZ_CHECK(read(report) == expected(report));
    return 0;
}
