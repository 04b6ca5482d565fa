#include "MetricsFile.h"

#include <prometheus/text_serializer.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace DeviceService
{

void writeMetricsFile(std::string const& path, prometheus::Registry const& registry)
{
    std::string const fresh = path + ".new"; // the collector reads *.prom only
    std::ofstream file(fresh);
    prometheus::TextSerializer().Serialize(file, registry.Collect());
    file.close();
    if (!file || std::rename(fresh.c_str(), path.c_str()) != 0)
    {
        int const error = errno;
        static_cast<void>(std::remove(fresh.c_str()));
        throw std::runtime_error(path + ": " + std::strerror(error));
    }
}

}
