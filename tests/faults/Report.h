// Report: what was tried and what survived, as a table at the end and failures as they come.
#pragma once

#include <string>
#include <vector>

namespace faults {

/// What is wrong after one try; empty where all is well.
class Problems {
public:
    /// Notes `text` unless `holds`.
    void require(bool holds, const std::string& text)
    {
        if (!holds)
            texts_.push_back(text);
    }

    /// Notes both where they differ.
    void requireEqual(const std::string& what, const std::string& expected, const std::string& found)
    {
        require(expected == found,
                what + "\n    expected " + quoted(expected) + "\n    found    " + quoted(found));
    }

    void requireEqual(const std::string& what, const std::vector<std::string>& expected,
                      const std::vector<std::string>& found)
    {
        requireEqual(what, joined(expected), joined(found));
    }

    const std::vector<std::string>& texts() const { return texts_; }

    static std::string quoted(const std::string& text);
    static std::string joined(const std::vector<std::string>& list);

private:
    std::vector<std::string> texts_;
};

class Report {
public:
    /// For all points, or for one share of them: number `share`, counted from 1, of `shares`.
    explicit Report(unsigned share = 1, unsigned shares = 1) : share_(share - 1), shares_(shares) {}

    /// Asked once for each point, in the same order in every share: whether this share is to strike it.
    bool takes() { return point_++ % shares_ == share_; }

    /// One try of the row `name`; `circumstances` tells it from the row's others.
    void add(const std::string& name, const std::string& circumstances, const Problems& problems);

    /// Counts something worth knowing in the row's last column.
    void count(const std::string& name, const std::string& what, unsigned number = 1);

    /// A try in which the fault did not happen, because the order of signals is random.
    void missed(const std::string& name);

    /// Prints the table. Returns whether anything was tried, next to nothing missed, and everything survived.
    bool print() const;

private:
    struct Row {
        std::string name;
        unsigned tried = 0;
        unsigned survived = 0;
        std::vector<std::pair<std::string, unsigned>> counts;
    };
    Row& _row(const std::string& name);

    unsigned share_;
    unsigned shares_;
    unsigned point_ = 0;
    std::vector<Row> rows_;
    unsigned missed_ = 0;
};

// The parts of the test, each filling rows; the long form tries everything, the short one a choice.
void testInterrupted(Report& report, bool longForm);
void testKilled(Report& report, bool longForm);
void testFailing(Report& report, bool longForm);
void testPowerLoss(Report& report, bool longForm);
void testFullDisk(Report& report, bool longForm);
void testSeveralAtOnce(Report& report, bool longForm);
void testEnvironment(Report& report, bool longForm);
void testDescriptorLimits(Report& report, bool longForm);
void testHostileInput(Report& report, bool longForm);
void testMemory(Report& report, bool longForm);
void testRealTools(Report& report, bool longForm);

} // namespace faults
