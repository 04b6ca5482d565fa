#pragma once

#include <utils/Export.h>

#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

/// Validates XML documents against a schema, and finds texts in them by XPath, by means of libxml2.
///
///     XmlHelper xml;
///     xml.validateAgainstXSD("device.xml", "device.xsd");
///     auto const name = xml.singleNodeText("device.xml", "/upnp:root/upnp:device/upnp:friendlyName");
///
/// A document is the whole text of a stream, wherever it is being read, or a file, with what fileToString() throws.
/// Paths begin with "/". In expressions the prefix "upnp", and no other, stands for urn:schemas-upnp-org:device-1-0; a
/// name without a prefix is in no namespace. Texts are UTF-8, whatever the encoding of the document.
///
/// What makes a document invalid is logged. What libxml2 says of documents, schemas and expressions that it cannot read
/// goes to standard error.
///
/// Threads: several at once in the hardened build, also with one helper; only one in the exact build.
///
/// Limits, for documents of strangers:
/// - Nothing external is read: no DTD, no schema that the document names, and no entity, which leaves its text empty.
/// - Entities that the document defines are expanded: 7 KB can yield a text of 1 GB. Refuse a DOCTYPE before, or limit
///   the memory of the process.
/// - The schema must be trusted. It is not read from the network, but what it includes or imports is.
///
/// Hazards of the exact build:
/// - All XML work of the process, by this class or by libxml2 itself, belongs to one thread at a time. Each nodesText()
///   that succeeds ends with xmlCleanupParser(): libxml2 loses what others have registered with it, and what other
///   threads are using. On a second thread that leaves 1 KB allocated.
/// - A validation that succeeds leaves its objects allocated: 30 KB on a 64-bit machine for a schema of three elements,
///   more for larger schemas and documents. Validate what comes once, or validate in a child process.
/// - A validation message of 5000 characters or more ends the process; the hardened build cuts it to 4999. As messages
///   quote the document, one with long names or values is safe to validate only in a child process.
/// - An expression that yields a number, a text or a boolean, and a node without any content, leave their objects
///   allocated.
class HALDEN_CPPUTILS_EXPORT XmlHelper
{
public:
    /// Prepares libxml2. A version of it that does not fit the headers of the build is used all the same, with a line
    /// on standard error.
    XmlHelper();

    /// Returns when the document is valid. Each message about it is logged at Error, warnings too.
    ///
    /// A document with references to entities other than the five of XML itself counts as invalid.
    ///
    /// @param document holds the document
    /// @param xsdPath  as for xmlReadFile(): may be the URL of a file; "-" is standard input
    /// @throws std::runtime_error "Failed to load the XML schema", "Failed to create document parser context",
    ///         "Failed to parse XSD", "Failed to create validation context", "Document is invalid", or
    ///         "Failed to open the HaldenDeviceId.xml" for any document that is not well-formed, whatever its name
    void validateAgainstXSD(std::stringstream const& document, std::string const& xsdPath);

    /// The same for a file.
    void validateAgainstXSD(std::string const& documentPath, std::string const& xsdPath);

    /// The text of each node that the expression selects, in document order; empty when it selects none. The text of an
    /// element includes that of all elements in it.
    ///
    /// An expression that yields a number, a text or a boolean throws a pointer, which handlers for std::exception do
    /// not catch. Where you do not write the expressions yourself, add a handler:
    ///
    ///     try
    ///     {
    ///         use(xml.nodesText(documentPath, expression));
    ///     }
    ///     catch (std::runtime_error* error)
    ///     {
    ///         std::unique_ptr<std::runtime_error> const owner(error);
    ///         report(owner->what());
    ///     }
    ///
    /// A node without any content, such as a processing instruction without data, has an empty text. The exact build
    /// throws the std::logic_error of a std::string made of null instead.
    ///
    /// @throws std::runtime_error* "Invalid type", see above
    /// @throws std::runtime_error "Could not open file" when the document is not well-formed,
    ///         "Failed to create xpath context", "Failed to register namespace prefix for XPath", or
    ///         "Failed to create xpath expression" when it cannot be evaluated, as with an unknown prefix
    std::vector<std::string> nodesText(std::stringstream const& document, std::string const& xpath);

    /// The same for a file.
    std::vector<std::string> nodesText(std::string const& documentPath, std::string const& xpath);

    /// The text of the only node that the expression selects; otherwise as nodesText().
    ///
    /// @throws std::runtime_error "None or more than one node found", after a log line with their number
    std::string singleNodeText(std::stringstream const& document, std::string const& xpath);

    /// The same for a file.
    std::string singleNodeText(std::string const& documentPath, std::string const& xpath);
};

}
