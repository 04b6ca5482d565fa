// A machine that nobody has synchronised and whose real-time clocks do not answer, whatever the real one is like.

#include "support/CallDouble.h"

#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <sys/timex.h>

#include <cerrno>

extern "C" int adjtimex(timex* query) noexcept
{
    query->status = STA_UNSYNC;
    return TIME_ERROR;
}

extern "C" int ioctlOfTest(int descriptor, unsigned long request, void* argument) noexcept
{
    if (request == RTC_RD_TIME)
    {
        errno = EIO;
        return -1;
    }
    return Halden::Tavro::TestSupport::systemFunction<decltype(&ioctl)>("ioctl")(descriptor, request, argument);
}
HALDEN_DOUBLE(ioctl, ioctlOfTest)
