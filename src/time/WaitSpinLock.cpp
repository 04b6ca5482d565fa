#include <utils/WaitSpinLock.h>

namespace Halden::Tavro::Utils
{

WaitSpinLock::~WaitSpinLock() = default;

}
