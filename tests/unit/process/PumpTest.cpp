// Pump: what is fed and collected, and which descriptors are left open.
#include "process/Pump.h"

#include "process/signals.h"
#include "support/OpenFds.h"
#include "unit/process/FailingCall.h"
#include "unit/process/ProcessTestTools.h"

#include <boost/function.hpp>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

using faults::Call;
using faults::FailingCall;
using testing::ElementsAre;
using tools::systemError;
using tools::thrownBy;
using zorvo::process::FdOwner;
using zorvo::process::InputSource;
using zorvo::process::LaunchSignals;
using zorvo::process::OutputReceiver;
using zorvo::process::PipeOwner;
using zorvo::process::ProcessSetCatcher;
using zorvo::process::Pump;

namespace {

/// A pump beside a catcher that has no child, so that only the descriptors keep it running.
class PumpTest : public tools::NothingLeftTest {
protected:
    PumpTest()
    {
        signals_.adapt();
        catcher_.install();
    }
    ~PumpTest() noexcept override { catcher_.remove(false); }

    /// A pipe with `text` in it and nobody to write more; its read end.
    static FdOwner filled(const std::string& text)
    {
        PipeOwner pipe;
        pipe.open("pipe");
        EXPECT_EQ(::write(pipe.writeEnd.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
        return std::move(pipe.readEnd);
    }

    LaunchSignals signals_;
    ProcessSetCatcher catcher_;
    Pump pump_;
};

InputSource once(const std::string& text)
{
    return [text](std::vector<char>& buffer) {
        buffer.insert(buffer.end(), text.begin(), text.end());
        return false;
    };
}

} // namespace

TEST_F(PumpTest, ReturnsAtOnceWithNothingToDo)
{
    pump_.run(catcher_);
    EXPECT_FALSE(pump_.inputRefused());
}

TEST_F(PumpTest, OutputsAreCollectedToTheirEndAndClosed)
{
    FdOwner one = filled(std::string(2500, 'x'));
    FdOwner two = filled("two");
    std::vector<size_t> sizes;
    std::string text;
    const OutputReceiver count = [&sizes](const std::vector<char>& chunk) { sizes.push_back(chunk.size()); };
    const OutputReceiver append = [&text](const std::vector<char>& chunk) {
        text.append(chunk.begin(), chunk.end());
    };
    pump_.addOutput(one, count);
    pump_.addOutput(two, append);
    pump_.run(catcher_);
    EXPECT_THAT(sizes, ElementsAre(1024, 1024, 452));
    EXPECT_EQ(text, "two");
    EXPECT_FALSE(one.isOpen());
    EXPECT_FALSE(two.isOpen());
}

TEST_F(PumpTest, InputIsWrittenWholeAndClosed)
{
    PipeOwner pipe;
    pipe.open("pipe");
    const InputSource source = once("input");
    pump_.setInput(pipe.writeEnd, source);
    EXPECT_TRUE(pipe.writeEnd.isOpen());
    pump_.run(catcher_);
    EXPECT_FALSE(pipe.writeEnd.isOpen());
    EXPECT_FALSE(pump_.inputRefused());
    EXPECT_EQ(support::readAll(pipe.readEnd.get()), "input");
}

TEST_F(PumpTest, EmptySourceClosesTheInputAtOnce)
{
    PipeOwner pipe;
    pipe.open("pipe");
    const InputSource none;
    pump_.setInput(pipe.writeEnd, none);
    EXPECT_FALSE(pipe.writeEnd.isOpen());
}

// What it is fed comes back through the same pump, more than a pipe holds.
TEST_F(PumpTest, FeedingAndCollectingDoNotWaitForEachOther)
{
    PipeOwner pipe;
    pipe.open("pipe");
    const std::string text(1000000, 'x');
    size_t size = 0;
    const InputSource source = once(text);
    const OutputReceiver receiver = [&size](const std::vector<char>& chunk) { size += chunk.size(); };
    pump_.setInput(pipe.writeEnd, source);
    pump_.addOutput(pipe.readEnd, receiver);
    pump_.run(catcher_);
    EXPECT_EQ(size, text.size());
}

TEST_F(PumpTest, InputThatNobodyReadsIsRefusedAndOutputCollectedAllTheSame)
{
    PipeOwner pipe;
    pipe.open("pipe");
    pipe.readEnd.close_nothrow();
    FdOwner output = filled("last words");
    std::string text;
    const InputSource source = once("input");
    const OutputReceiver append = [&text](const std::vector<char>& chunk) {
        text.append(chunk.begin(), chunk.end());
    };
    pump_.setInput(pipe.writeEnd, source);
    pump_.addOutput(output, append);
    pump_.run(catcher_);
    EXPECT_TRUE(pump_.inputRefused());
    EXPECT_FALSE(pipe.writeEnd.isOpen());
    EXPECT_EQ(text, "last words");
}

TEST_F(PumpTest, OtherFailureOfAWriteIsThrown)
{
    PipeOwner pipe;
    pipe.open("pipe");
    const InputSource source = once("input");
    pump_.setInput(pipe.writeEnd, source);
    const FailingCall failing(Call::write, 1, EIO);
    EXPECT_EQ(thrownBy([this] { pump_.run(catcher_); }), systemError("write", EIO));
    EXPECT_FALSE(pump_.inputRefused());
}

TEST_F(PumpTest, DescriptorThatCannotBeMadeNonBlockingIsNamed)
{
    FdOwner output = filled("");
    const OutputReceiver receiver;
    const FailingCall failing(Call::setFl, 1, EPERM);
    EXPECT_EQ(thrownBy([&] { pump_.addOutput(output, receiver); }), systemError("fcntl", EPERM));
}
