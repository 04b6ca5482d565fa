// Runs the example in a network namespace, where nobody else changes addresses.

#include "support/NetworkNamespace.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>
#include <vector>

namespace Halden::Tavro
{

namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using namespace TestSupport;
using namespace std::chrono_literals;

/// The example, started in the calling thread's network namespace. Both its outputs come as one.
class Addresses
{
public:
    explicit Addresses(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), ADDRESSES);
        std::vector<char*> pointers;
        for (auto& argument : arguments)
        {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        child = fork();
        if (child == 0)
        {
            dup2(ends[1], STDOUT_FILENO);
            dup2(ends[1], STDERR_FILENO);
            execv(ADDRESSES, pointers.data());
            _exit(127);
        }
        close(ends[1]);
        output = ends[0];
    }

    ~Addresses()
    {
        close(output);
        if (child > 0)
        {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }

    Addresses(Addresses const&) = delete;
    Addresses& operator=(Addresses const&) = delete;

    /// The next line, or what has come of it when the output ends or 10 s have passed.
    std::string line()
    {
        auto const deadline = std::chrono::steady_clock::now() + 10s;
        std::string text;
        for (char letter = 0; std::chrono::steady_clock::now() < deadline;)
        {
            pollfd polled{output, POLLIN, 0};
            if (poll(&polled, 1, 100) <= 0)
            {
                continue;
            }
            if (read(output, &letter, 1) != 1 || letter == '\n')
            {
                break;
            }
            text += letter;
        }
        return text;
    }

    void send(int signalNumber) const { kill(child, signalNumber); }

    /// @return the exit status, once the program has ended; -1 when a signal has ended it
    int status()
    {
        int result = 0;
        pid_t ended = 0;
        waitFor([&] { return (ended = waitpid(child, &result, WNOHANG)) != 0; });
        EXPECT_EQ(ended, child);
        child = ended == child ? -1 : child;
        return WIFEXITED(result) ? WEXITSTATUS(result) : -1;
    }

private:
    pid_t child{-1};
    int output{-1};
};

class AddressesTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (auto const refusal = networkNamespaceRefusal())
        {
            GTEST_SKIP() << *refusal;
        }
    }
};

TEST_F(AddressesTest, PrintsEachAddressWithItsInterface)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            control.addInterface("link0", "veth");
            control.addAddress("link0", "10.0.0.1");

            Addresses sut({});

            EXPECT_EQ(sut.line(), "127.0.0.1 lo");
            EXPECT_EQ(sut.line(), "10.0.0.1 link0");
            EXPECT_EQ(sut.line(), "::1 lo");
            EXPECT_EQ(sut.line(), "");
            EXPECT_EQ(sut.status(), 0);
        });
}

TEST_F(AddressesTest, FollowsTheAddressesUntilASignal)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Addresses sut({"--watch"});
            EXPECT_EQ(sut.line(), "+ 127.0.0.1 lo");
            EXPECT_EQ(sut.line(), "+ ::1 lo");

            control.addAddress("lo", "10.0.0.1");
            EXPECT_EQ(sut.line(), "+ 10.0.0.1 lo");
            control.addAddress("lo", "fd00::1", "fd00::2");
            EXPECT_EQ(sut.line(), "+ fd00::1 lo");
            control.removeAddress("lo", "10.0.0.1");
            EXPECT_EQ(sut.line(), "- 10.0.0.1");
            sut.send(SIGINT);

            EXPECT_EQ(sut.status(), 0);
            EXPECT_EQ(sut.line(), "");
        });
}

TEST_F(AddressesTest, GivesUpAtAnAddressThatCannotBeFollowed)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Addresses sut({"--watch"});
            EXPECT_EQ(sut.line(), "+ 127.0.0.1 lo");
            EXPECT_EQ(sut.line(), "+ ::1 lo");

            control.addAddress("lo", "fd00::1");

            EXPECT_THAT(sut.line(), StartsWith("addresses: an IPv6 address has changed"));
            EXPECT_EQ(sut.status(), 3);
        });
}

TEST_F(AddressesTest, SaysThatEventsWereLost)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Addresses sut({"--watch"});
            EXPECT_EQ(sut.line(), "+ 127.0.0.1 lo");
            EXPECT_EQ(sut.line(), "+ ::1 lo");

            sut.send(SIGSTOP);
            for (int i = 0; i < 1000; ++i)
            {
                control.addAddress("lo", "10.1." + std::to_string(i / 250) + '.' + std::to_string(i % 250 + 1));
            }
            sut.send(SIGCONT);
            std::string line = sut.line();
            while (line.rfind("+ ", 0) == 0)
            {
                line = sut.line();
            }

            EXPECT_EQ(line, "! events were lost: what follows may be incomplete; start again");
            sut.send(SIGINT);
            EXPECT_EQ(sut.status(), 0);
        });
}

TEST_F(AddressesTest, HelpAndBadOptionsAreAnswered)
{
    Addresses help({"--help"});
    Addresses bad({"--loudly"});

    EXPECT_EQ(help.line(), "Prints the addresses of this machine with their interfaces.");
    EXPECT_EQ(help.status(), 0);
    EXPECT_THAT(bad.line(), AllOf(StartsWith("addresses: "), HasSubstr("--loudly")));
    EXPECT_EQ(bad.status(), 2);
}

}

}
