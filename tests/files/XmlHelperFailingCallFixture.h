#pragma once

#include <utils/XmlHelper.h>

#include "files/TextFile.h"
#include "support/FailingCalls.h"

#include <gmock/gmock.h>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlschemas.h>
#include <libxml/xpath.h>

#include <string>

namespace Halden::Tavro::TestSupport
{

extern CallDouble<xmlDocPtr(char const*, char const*, int)> readFile;
extern CallDouble<xmlDocPtr(char const*, int, char const*, char const*, int)> readMemory;
extern CallDouble<xmlSchemaParserCtxtPtr(xmlDocPtr)> newDocParserCtxt;
extern CallDouble<xmlSchemaPtr(xmlSchemaParserCtxtPtr)> schemaParse;
extern CallDouble<xmlSchemaValidCtxtPtr(xmlSchemaPtr)> newValidCtxt;
extern CallDouble<int(xmlSchemaValidCtxtPtr, xmlDocPtr)> validateDoc;
extern CallDouble<xmlXPathContextPtr(xmlDocPtr)> newContext;
extern CallDouble<int(xmlXPathContextPtr, xmlChar const*, xmlChar const*)> registerNs;
extern CallDouble<xmlXPathObjectPtr(xmlChar const*, xmlXPathContextPtr)> evalExpression;
extern CallDouble<xmlChar*(xmlNode const*)> getContent;

/// A schema and a document of it, which are read with calls of libxml2 that fail.
///
/// For test programs that list files/XmlHelperFailingCallFixture.cpp among their sources.
class XmlHelperFailingCallFixture : public testing::Test
{
protected:
    /// Beside what is made on first use, and goes with the parser.
    std::string memoryLeft();

    TextFile const schemaFile{R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:element name="device" type="xs:string"/>
</xs:schema>)"};
    TextFile const documentFile{"<device>A text that is longer than any short string</device>"};
    Utils::XmlHelper sut;

private:
    long blocksBefore{0};
};

}
