#include <utils/Hdf5Library.h>

int main()
{
    auto const lock = Halden::Tavro::Utils::Hdf5Library::instance().lock();
    return lock == nullptr ? 1 : 0;
}
