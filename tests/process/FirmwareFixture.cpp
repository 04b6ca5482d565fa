#include "process/FirmwareFixture.h"

namespace Halden::Tavro::TestSupport
{

CallDouble<std::FILE*(char const*, char const*)> popenDouble{"popen"};
CallDouble<std::size_t(void*, std::size_t, std::size_t, std::FILE*)> freadDouble{"fread"};
CallDouble<int(std::FILE*)> pcloseDouble{"pclose"};
std::vector<std::string> calls;

namespace
{

std::FILE* stream = nullptr;

}

extern "C"
{

    std::FILE* popen(char const* command, char const* mode)
    {
        calls.push_back(std::string("popen(") + command + ")");
        return stream = popenDouble(command, mode);
    }

    std::size_t fread(void* buffer, std::size_t size, std::size_t count, std::FILE* file)
    {
        if (file != stream)
        {
            return freadDouble.passOn(buffer, size, count, file);
        }
        calls.push_back("fread(" + std::to_string(size) + ", " + std::to_string(count) + ")");
        return freadDouble(buffer, size, count, file);
    }

    int pclose(std::FILE* file)
    {
        calls.push_back(file == stream ? "pclose" : "pclose of another stream");
        return pcloseDouble(file);
    }
}

}
