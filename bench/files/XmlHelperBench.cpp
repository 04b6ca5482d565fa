#include <utils/XmlHelper.h>

#include <benchmark/benchmark.h>

#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <sstream>
#include <string>

using Halden::Tavro::Utils::XmlHelper;

namespace
{

char const* const xpath = "//upnp:service/upnp:serviceId";

/// A device description of some 5 KB.
std::string description()
{
    std::string document =
        "<?xml version=\"1.0\"?>\n"
        "<root xmlns=\"urn:schemas-upnp-org:device-1-0\"><device>\n<friendlyName>Sensor</friendlyName>\n"
        "<serviceList>\n";
    for (int i = 10; document.size() < 5000; ++i)
    {
        std::string const name = "Reading" + std::to_string(i);
        document += "  <service>\n    <serviceType>urn:schemas-upnp-org:service:" + name +
                    ":1</serviceType>\n    <serviceId>urn:upnp-org:serviceId:" + name + "</serviceId>\n    <SCPDURL>/" +
                    name + ".xml</SCPDURL>\n  </service>\n";
    }
    return document + "</serviceList></device></root>\n";
}

void nodesTextOfLibrary(benchmark::State& state)
{
    std::stringstream const document(description());
    XmlHelper xml;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(xml.nodesText(document, xpath));
    }
}
BENCHMARK(nodesTextOfLibrary);

xmlChar const* toXml(char const* text)
{
    return reinterpret_cast<xmlChar const*>(text);
}

/// The calls that nodesText cannot do without.
void nodesTextBare(benchmark::State& state)
{
    std::string const document = description();
    for (auto _ : state)
    {
        xmlDocPtr tree = xmlReadMemory(document.data(), static_cast<int>(document.size()), nullptr, nullptr, 0);
        xmlXPathContextPtr context = xmlXPathNewContext(tree);
        xmlXPathRegisterNs(context, toXml("upnp"), toXml("urn:schemas-upnp-org:device-1-0"));
        xmlXPathObjectPtr result = xmlXPathEvalExpression(toXml(xpath), context);
        for (int i = 0; i < result->nodesetval->nodeNr; ++i)
        {
            xmlChar* content = xmlNodeGetContent(result->nodesetval->nodeTab[i]);
            benchmark::DoNotOptimize(content);
            xmlFree(content);
        }
        xmlXPathFreeObject(result);
        xmlXPathFreeContext(context);
        xmlFreeDoc(tree);
        xmlCleanupParser();
    }
}
BENCHMARK(nodesTextBare);

}
