#pragma once

#include "files/LibXmlWatch.h"
#include "files/TextFile.h"
#include "support/LogCapture.h"

#include <utils/XmlHelper.h>

#include <gmock/gmock.h>

#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

inline std::string const deviceXsd = R"(<?xml version="1.0"?>
<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema" xmlns="urn:schemas-upnp-org:device-1-0"
    targetNamespace="urn:schemas-upnp-org:device-1-0" elementFormDefault="qualified">
  <xs:simpleType name="Udn">
    <xs:restriction base="xs:string"><xs:pattern value="uuid:[0-9a-f\-]+"/></xs:restriction>
  </xs:simpleType>
  <xs:complexType name="Service">
    <xs:sequence>
      <xs:element name="serviceType" type="xs:anyURI"/>
      <xs:element name="serviceId" type="xs:anyURI"/>
    </xs:sequence>
  </xs:complexType>
  <xs:complexType name="Device">
    <xs:sequence>
      <xs:element name="friendlyName" type="xs:string"/>
      <xs:element name="modelName" type="xs:string"/>
      <xs:element name="UDN" type="Udn"/>
      <xs:element name="serviceList" minOccurs="0">
        <xs:complexType>
          <xs:sequence><xs:element name="service" type="Service" maxOccurs="unbounded"/></xs:sequence>
        </xs:complexType>
      </xs:element>
      <xs:element name="deviceList" minOccurs="0">
        <xs:complexType>
          <xs:sequence><xs:element name="device" type="Device" maxOccurs="unbounded"/></xs:sequence>
        </xs:complexType>
      </xs:element>
      <xs:any namespace="##other" processContents="lax" minOccurs="0" maxOccurs="unbounded"/>
    </xs:sequence>
  </xs:complexType>
  <xs:element name="root">
    <xs:complexType>
      <xs:sequence>
        <xs:element name="specVersion">
          <xs:complexType>
            <xs:sequence><xs:element name="major" type="xs:int"/><xs:element name="minor" type="xs:int"/></xs:sequence>
          </xs:complexType>
        </xs:element>
        <xs:element name="device" type="Device"/>
      </xs:sequence>
      <xs:attribute name="configId" type="xs:unsignedInt"/>
    </xs:complexType>
  </xs:element>
</xs:schema>
)";

inline std::string const begin =
    R"(<root xmlns="urn:schemas-upnp-org:device-1-0"><specVersion><major>1</major><minor>0</minor></specVersion>)";

inline std::string const sensor = "<?xml version=\"1.0\"?>\n" + begin + R"(<device>
  <friendlyName>Sensor 7</friendlyName><modelName>HX-2</modelName><UDN>uuid:0a-7</UDN>
  <serviceList>
    <service><serviceType>urn:x:service:Reading:1</serviceType><serviceId>urn:x:serviceId:Reading</serviceId></service>
    <service><serviceType>urn:x:service:Clock:2</serviceType><serviceId>urn:x:serviceId:Clock</serviceId></service>
  </serviceList>
</device></root>)";

/// One device in another, prefixes instead of a default namespace, an attribute, and an element of the maker.
inline std::string const gateway = R"(<u:root xmlns:u="urn:schemas-upnp-org:device-1-0" configId="42">
<u:specVersion><u:major>1</u:major><u:minor>1</u:minor></u:specVersion>
<u:device><u:friendlyName>Gateway</u:friendlyName><u:modelName>GX</u:modelName><u:UDN>uuid:1</u:UDN>
<u:deviceList>
<u:device><u:friendlyName>Port</u:friendlyName><u:modelName>GX-P</u:modelName><u:UDN>uuid:2</u:UDN></u:device>
</u:deviceList>
<m:colour xmlns:m="urn:maker" m:tone="dark">blue</m:colour></u:device></u:root>)";

inline std::string const bare =
    begin + "<device><friendlyName/><modelName>M</modelName><UDN>uuid:f</UDN></device></root>";

/// Validates and reads descriptions of devices, and whatever else.
class DescriptionTest : public testing::Test
{
protected:
    std::vector<std::string> texts(std::string const& document, std::string const& xpath)
    {
        return sut.nodesText(std::stringstream(document), xpath);
    }

    void validate(std::string const& document, std::string const& xsd = deviceXsd)
    {
        TextFile const xsdFile(xsd);
        sut.validateAgainstXSD(std::stringstream(document), xsdFile.path());
    }

    LogCapture log;
    LibXmlWatch watch;
    Utils::XmlHelper sut;
};

}
