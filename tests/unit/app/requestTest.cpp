// readRequest: the bindings on standard input, or an error that names the place of the flaw.
#include "app/request.h"

#include "common/SystemError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

/// Another standard input, until the end of the scope.
class StandardInput {
public:
    /// Takes over `fd`.
    explicit StandardInput(int fd) : saved_(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        if (saved_ == -1 || ::dup2(fd, STDIN_FILENO) == -1)
            throw std::runtime_error("cannot replace standard input");
        ::close(fd);
    }
    explicit StandardInput(const std::string& bytes) : StandardInput(fileWith(bytes)) {}
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;
    ~StandardInput()
    {
        ::dup2(saved_, STDIN_FILENO);
        ::close(saved_);
    }

private:
    static int fileWith(const std::string& bytes)
    {
        const int fd = ::memfd_create("input", MFD_CLOEXEC);
        if (::pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
            throw std::runtime_error("cannot write the input");
        return fd;
    }

    int saved_;
};

std::vector<std::string> read(const std::string& bytes)
{
    const StandardInput input(bytes);
    std::vector<std::string> lines;
    for (const Binding& binding : readRequest())
        lines.push_back(binding.domain + '|' + binding.ip4 + '|' + binding.ip6);
    return lines;
}

/// The text of the std::runtime_error of a refusal. A SystemError, although derived from it, does not count.
std::string refusalOf(const std::string& bytes)
{
    try {
        read(bytes);
    } catch (const zorvo::SystemError& e) {
        return std::string("SystemError: ") + e.what();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "accepted";
}

} // namespace

TEST(RequestTest, BindingsComeInTheOrderOfTheDocument)
{
    EXPECT_THAT(
        read(R"({"domains": [{"domain": "b.example", "ip4_addr": "192.0.2.1", "ip6_addr": ""},)"
             R"({"ip6_addr": "2001:db8::1", "domain": "a.example", "ip4_addr": ""},)"
             R"({"domain": "b.example", "ip4_addr": "192.0.2.1", "ip6_addr": ""}]})"),
        testing::ElementsAre("b.example|192.0.2.1|", "a.example||2001:db8::1", "b.example|192.0.2.1|"));
}

TEST(RequestTest, StringsAreAsGiven)
{
    EXPECT_THAT(
        read(R"({"domains": [{"domain": " Example.COM\n", "ip4_addr": "none", "ip6_addr": "A\"\\"}]})"),
        testing::ElementsAre(" Example.COM\n|none|A\"\\"));
}

TEST(RequestTest, EmptyListGivesNoBindings)
{
    EXPECT_THAT(read(R"({"domains": []})"), testing::IsEmpty());
}

TEST(RequestTest, RepeatedListReplacesTheOneBefore)
{
    EXPECT_THAT(read(R"({"domains": [{"domain": "a", "ip4_addr": "1", "ip6_addr": ""},)"
                     R"({"domain": "b", "ip4_addr": "2", "ip6_addr": ""}],)"
                     R"("domains": [{"domain": "c", "ip4_addr": "3", "ip6_addr": ""}]})"),
                testing::ElementsAre("c|3|"));
}

TEST(RequestTest, FlawIsReportedWithItsPlace)
{
    EXPECT_EQ(refusalOf(R"({"domains": [}]})"), "can not parse data from stdin : JSON object is expected. "
                                                "Error occured at offset 13, character '}'. ");
}

TEST(RequestTest, EmptyInputIsRefused)
{
    EXPECT_EQ(refusalOf(""), "can not parse data from stdin : JSON object is expected. "
                             "Error occured at offset 0, character '\\x00'. ");
}

TEST(RequestTest, TextEndsAtTheFirstNul)
{
    EXPECT_EQ(refusalOf(std::string("{\"domains\": [\0]}", 16)),
              "can not parse data from stdin : JSON object is expected. "
              "Error occured at offset 13, character '\\x00'. ");
}

TEST(RequestTest, ErrorOfSomethingEarlierIsNotPartOfTheReport)
{
    errno = EIO;
    EXPECT_EQ(refusalOf("[]"), "can not parse data from stdin : JSON object is expected. "
                               "Error occured at offset 0, character '['. ");
}

TEST(RequestTest, InputThatArrivesInPiecesIsReadToItsEnd)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const std::string start = R"({"domains": [)" + std::string(200000, ' ');
    const std::string end = R"({"domain": "a", "ip4_addr": "1", "ip6_addr": ""}]})";
    std::thread writer([&] {
        for (const std::string& piece : {start, end})
            EXPECT_EQ(::write(ends[1], piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
        ::close(ends[1]);
    });
    const StandardInput input(ends[0]);
    const std::vector<Binding> bindings = readRequest();
    writer.join();
    ASSERT_EQ(bindings.size(), 1U);
    EXPECT_EQ(bindings[0].domain, "a");
}

TEST(RequestTest, InputThatCannotBeReadIsASystemError)
{
    const StandardInput input(::open("/", O_RDONLY | O_CLOEXEC));
    try {
        readRequest();
        FAIL() << "expected SystemError";
    } catch (const zorvo::SystemError& e) {
        EXPECT_STREQ(e.what(), "stdin read: Is a directory");
    }
}
