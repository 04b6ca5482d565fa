// Runs the example on its own description and on broken ones.

#include "support/RunExample.h"

#include <utils/TempDir.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace Halden::Tavro::Examples
{

namespace
{

using namespace TestSupport;
using namespace testing;

ChildResult describe(std::vector<std::string> const& arguments)
{
    return runExample(DEVICE_DESCRIPTION, arguments);
}

class DeviceDescriptionTest : public Test
{
protected:
    std::string file(std::string const& text) const
    {
        auto path = directory.path() + "/device.xml";
        std::ofstream(path) << text;
        return path;
    }

private:
    Utils::TempDir const directory{"DeviceDescriptionTest-", std::filesystem::temp_directory_path()};
};

std::string const minimal = R"(<root xmlns="urn:schemas-upnp-org:device-1-0">
<specVersion><major>1</major><minor>0</minor></specVersion>
<device><deviceType>urn:x:device:Lamp:1</deviceType><friendlyName>Lamp</friendlyName><manufacturer>M</manufacturer>
<modelName>L</modelName><UDN>uuid:1</UDN></device></root>)";

TEST_F(DeviceDescriptionTest, ShowsItsOwnDescription)
{
    auto const result = describe({});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "Friendly name: Pressure sensor, hall 3\n"
                             "Model:         Tavro P-40\n"
                             "Services:\n"
                             "    urn:upnp-org:serviceId:ConfigurationManagement\n"
                             "        urn:schemas-upnp-org:service:ConfigurationManagement:2\n"
                             "    urn:upnp-org:serviceId:SensorTransportGeneric\n"
                             "        urn:schemas-upnp-org:service:SensorTransportGeneric:1\n");
}

TEST_F(DeviceDescriptionTest, ShowsAnotherFile)
{
    auto const result = describe({file(minimal)});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "Friendly name: Lamp\nModel:         L\nServices:\n");
}

TEST_F(DeviceDescriptionTest, InvalidDescriptionIsAnsweredWithItsFaults)
{
    std::string text = minimal;
    text.replace(text.find("uuid:1"), 6, "1");
    auto const path = file(text);

    auto const result = describe({path});

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output,
              "device_description: " + path +
                  ": XML Validation ERROR: Element '{urn:schemas-upnp-org:device-1-0}UDN': [facet 'pattern'] The value "
                  "'1' is not accepted by the pattern 'uuid:.+'.\n"
                  "device_description: " +
                  path + ": Document is invalid\n");
}

TEST_F(DeviceDescriptionTest, WhatCannotBeReadIsAnsweredWithAReason)
{
    EXPECT_EQ(describe({"/nonexistent.xml"}).output,
              "device_description: /nonexistent.xml: No such file or directory\n");
    EXPECT_EQ(describe({"/"}).output, "device_description: /: Is a directory\n");

    auto const path = file("<root>");
    auto const result = describe({path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output, EndsWith("device_description: " + path + ": not well-formed XML\n"));
}

TEST_F(DeviceDescriptionTest, ExpressionSelectsOtherTexts)
{
    EXPECT_EQ(describe({"--xpath", "//upnp:icon/*"}).output, "image/png\n48\n48\n24\n/icon.png\n");

    auto const number = describe({file(minimal), "--xpath", "count(//*)"});
    EXPECT_EQ(number.exitCode, 1);
    EXPECT_THAT(number.output, EndsWith(": 'count(//*)' selects no nodes: Invalid type\n"));

    auto const wrong = describe({"--xpath", "//u:icon"});
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_THAT(wrong.output, EndsWith(": Failed to create xpath expression\n"));
}

TEST_F(DeviceDescriptionTest, BadOptionIsAnsweredWithOneSentence)
{
    expectRefusal(DEVICE_DESCRIPTION,
                  {{{"--xptah"}, "--xptah"}, {{"--xpath"}, "--xpath"}, {{"one.xml", "two.xml"}, "two.xml"}});
}

TEST_F(DeviceDescriptionTest, HelpNamesTheOptions)
{
    auto const result = describe({"--help"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, AllOf(HasSubstr("FILE"), HasSubstr("--xpath EXPRESSION")));
}

TEST_F(DeviceDescriptionTest, VersionIsThatOfTheLibrary)
{
    expectVersion(DEVICE_DESCRIPTION);
}

TEST_F(DeviceDescriptionTest, StandardOutputThatCannotBeWrittenIsAnError)
{
    expectComplaintAboutFullOutput(DEVICE_DESCRIPTION, {});
}

}

}
