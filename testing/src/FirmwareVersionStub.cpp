#include <utils/testing/FirmwareVersionStub.h>

#include <stdexcept>
#include <utility>

namespace Halden::Tavro::Utils::Testing
{

void FirmwareVersionStub::setVersion(std::string text)
{
    std::lock_guard const lock(mutex);
    version_ = std::move(text);
}

void FirmwareVersionStub::setCompatibleId(std::string text)
{
    std::lock_guard const lock(mutex);
    compatibleId_ = std::move(text);
}

std::string FirmwareVersionStub::version() const
{
    std::lock_guard const lock(mutex);
    if (!version_)
    {
        throw std::logic_error("version() was asked before the test has called setVersion()");
    }
    return *version_;
}

std::string FirmwareVersionStub::compatibleId() const
{
    std::lock_guard const lock(mutex);
    if (!compatibleId_)
    {
        throw std::logic_error("compatibleId() was asked before the test has called setCompatibleId()");
    }
    return *compatibleId_;
}

}
