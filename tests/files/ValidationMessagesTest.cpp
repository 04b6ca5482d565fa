// What a validation logs, from the callbacks that libxml2 gets.

#include <utils/XmlHelper.h>

#include "LibXmlWatch.h"
#include "TextFile.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <dlfcn.h>
#include <signal.h>

#include <cstdarg>
#include <cstddef>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace
{

std::vector<std::pair<int, std::size_t>> sizeTests; // flag and size of each call
std::vector<char const*> buffers;                   // of each call

}

extern "C" int __vsprintf_chk(char* buffer, int flag, std::size_t size, char const* format, va_list values)
{
    sizeTests.emplace_back(flag, size);
    buffers.push_back(buffer);
    return reinterpret_cast<decltype(&__vsprintf_chk)>(dlsym(RTLD_NEXT, "__vsprintf_chk"))(buffer, flag, size, format,
                                                                                           values);
}

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

std::string const xsd = R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:element name="device">
<xs:complexType><xs:sequence><xs:element name="port" type="xs:int" maxOccurs="9"/></xs:sequence></xs:complexType>
</xs:element>
</xs:schema>)";

std::string withPort(std::string const& port)
{
    return "<device><port>" + port + "</port></device>";
}

class ValidationMessagesTest : public Test
{
protected:
    ValidationMessagesTest() { log.expect(isLine(Log::Severity::Error, "", StartsWith("XML Validation "))); }

    void validate(std::string const& document) { sut.validateAgainstXSD(std::stringstream(document), xsdFile.path()); }

    void validateInvalid(std::string const& document)
    {
        EXPECT_THAT([&] { validate(document); }, ThrowsMessage<std::runtime_error>(StrEq("Document is invalid")));
    }

    /// Those that a validation installs, which libxml2 may call from then on.
    LibXmlWatch::Callback errorCallback()
    {
        validate(withPort("80"));
        return watch.errorCallback();
    }

    LibXmlWatch::Callback warningCallback()
    {
        validate(withPort("80"));
        return watch.warningCallback();
    }

    LogCapture log;
    LibXmlWatch watch;
    TextFile const xsdFile{xsd};
    XmlHelper sut;
};

TEST_F(ValidationMessagesTest, EachErrorIsOneLineWithItsNewline)
{
    validateInvalid("<device><port>a</port><port>80</port><port>b</port></device>");

    EXPECT_THAT(log.lines(),
                ElementsAre(isLine(Log::Severity::Error, "",
                                   "XML Validation ERROR: Element 'port': 'a' is not a valid value of the atomic type "
                                   "'xs:int'.\n"),
                            isLine(Log::Severity::Error, "",
                                   "XML Validation ERROR: Element 'port': 'b' is not a valid value of the atomic type "
                                   "'xs:int'.\n")));
}

TEST_F(ValidationMessagesTest, WarningsAreLoggedAtTheSeverityOfErrors)
{
    warningCallback()(nullptr, "%s has no %s in line %d\n", "device", "port", 7);

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Log::Severity::Error, "",
                                                "XML Validation Warning: device has no port in line 7\n")));
}

TEST_F(ValidationMessagesTest, ErrorsAreFormattedWithTheirValues)
{
    errorCallback()(nullptr, "%s has no %s in line %d", "device", "port", 7);

    EXPECT_THAT(log.lines(),
                ElementsAre(isLine(Log::Severity::Error, "", "XML Validation ERROR: device has no port in line 7")));
}

TEST_F(ValidationMessagesTest, ConversionSpecifiersInADocumentAreText)
{
    validateInvalid(withPort("%s%n%1000000d"));

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Log::Severity::Error, "",
                                                "XML Validation ERROR: Element 'port': '%s%n%1000000d' is not a valid "
                                                "value of the atomic type 'xs:int'.\n")));
}

TEST_F(ValidationMessagesTest, MessageOf4999CharactersIsLoggedWhole)
{
    std::string const message(4999, 'm');

    errorCallback()(nullptr, "%s", message.c_str());
    warningCallback()(nullptr, "%s", message.c_str());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Log::Severity::Error, "", "XML Validation ERROR: " + message),
                                         isLine(Log::Severity::Error, "", "XML Validation Warning: " + message)));
}

TEST_F(ValidationMessagesTest, LongerMessageEndsTheProcess)
{
    for (std::size_t const length : {std::size_t{5000}, std::size_t{100'000}})
    {
        std::string const message(length, 'm');
        for (auto const callback : {errorCallback(), warningCallback()})
        {
            auto const result = runInChild(
                [&]
                {
                    callback(nullptr, "%s", message.c_str());
                    return 0;
                });

            EXPECT_EQ(result.signal, SIGABRT) << length;
            EXPECT_THAT(result.output, StartsWith("*** buffer overflow detected ***: terminated\n")) << length;
        }
    }
}

TEST_F(ValidationMessagesTest, CLibraryTestsTheSizeOfEveryMessage)
{
    auto const error = errorCallback();
    auto const warning = warningCallback();
    sizeTests.clear();

    error(nullptr, "%s", "short");
    warning(nullptr, "%s", "short");

    EXPECT_THAT(sizeTests, ElementsAre(Pair(1, 5000), Pair(1, 5000)));
}

TEST_F(ValidationMessagesTest, ErrorsAndWarningsHaveOneBufferEach)
{
    auto const error = errorCallback();
    auto const warning = warningCallback();
    buffers.clear();

    error(nullptr, "%s", "short");
    error(nullptr, "%s", "short");
    warning(nullptr, "%s", "short");
    warning(nullptr, "%s", "short");

    ASSERT_THAT(buffers, SizeIs(4));
    EXPECT_EQ(static_cast<void const*>(buffers[0]), buffers[1]);
    EXPECT_EQ(static_cast<void const*>(buffers[2]), buffers[3]);
    EXPECT_NE(static_cast<void const*>(buffers[0]), buffers[2]);
}

TEST_F(ValidationMessagesTest, DocumentWithALongValueEndsTheProcess)
{
    validateInvalid(withPort(std::string(4900, 'a')));
    auto const result = runInChild(
        [&]
        {
            validate(withPort(std::string(5000, 'a')));
            return 0;
        });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, StartsWith("*** buffer overflow detected ***: terminated\n"));
}

TEST_F(ValidationMessagesTest, SinkThatThrowsDoesNotStopAValidation)
{
    int lines = 0;
    log.onLine(
        [&](LogLine const& /*line*/)
        {
            ++lines;
            throw std::runtime_error("disk full");
        });

    validateInvalid("<device><port>a</port><port>b</port></device>");

    EXPECT_EQ(lines, 2);
    EXPECT_THAT(watch.left(), IsEmpty());
}

TEST_F(ValidationMessagesTest, WhatLibXmlSaysOfReadingGoesToStandardError)
{
    TextFile const brokenXsd("<schema");
    TextFile const noSchema("<schema/>");
    TextFile const missingImport(R"(<xs:schema xmlns:xs="http://www.w3.org/2001/XMLSchema">
<xs:import namespace="urn:other" schemaLocation="/nonexistent/other.xsd"/><xs:element name="device"/></xs:schema>)");
    auto const outputOf = [&](std::string const& document, std::string const& xsdPath)
    {
        auto const result = runInChild(
            [&]
            {
                try
                {
                    sut.validateAgainstXSD(std::stringstream(document), xsdPath);
                }
                catch (std::runtime_error const& error)
                {
                    std::cerr << error.what();
                }
                return static_cast<int>(log.lines().size());
            });
        EXPECT_EQ(result.exitCode, 0) << "lines in the log";
        return result.output;
    };

    EXPECT_THAT(outputOf("<device/>", brokenXsd.path()),
                AllOf(HasSubstr("parser error : "), EndsWith("Failed to load the XML schema")));
    EXPECT_THAT(outputOf("<device/>", noSchema.path()),
                AllOf(HasSubstr("Schemas parser error : "), EndsWith("Failed to parse XSD")));
    EXPECT_THAT(outputOf("<device>", xsdFile.path()),
                AllOf(HasSubstr("parser error : "), EndsWith("Failed to open the HaldenDeviceId.xml")));
    EXPECT_THAT(outputOf("<device/>", missingImport.path()),
                AllOf(HasSubstr("Schemas parser warning : "), HasSubstr("Skipping the import.")));
}

}

}
