#include <utils/StringConversions.h>

int main()
{
    return Halden::Tavro::Utils::to_uint8("0");
}
