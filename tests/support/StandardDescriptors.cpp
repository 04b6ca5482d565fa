// Opens the descriptors 0, 1 and 2 of a test program where they are not: programs are run by a process that has them.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

namespace
{

class StandardDescriptors : public testing::Environment
{
public:
    void SetUp() override
    {
        int descriptor = STDIN_FILENO;
        while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        {
            descriptor = open("/dev/null", O_RDWR);
        }
        ASSERT_GT(descriptor, STDERR_FILENO);
        close(descriptor);
    }
};

auto* const environment = testing::AddGlobalTestEnvironment(new StandardDescriptors); // GoogleTest owns it

}
