#include <utils/XmlHelper.h>

int main()
{
    Halden::Tavro::Utils::XmlHelper xml;
    return static_cast<int>(xml.nodesText(std::stringstream("<a/>"), "/b").size());
}
