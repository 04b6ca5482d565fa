#pragma once

#include <utils/Export.h>

#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

/// Validates XML documents against a schema, and takes texts out of them by XPath. Stands on libxml2.
///
///     XmlHelper xml;
///     xml.validateAgainstXSD("device.xml", "device.xsd");
///     auto const name = xml.singleNodeText("device.xml", "/upnp:root/upnp:device/upnp:friendlyName");
///
/// A document is the whole text of a stream, wherever its reading stands, or a file, which fileToString() reads and may
/// throw about. In expressions the prefix "upnp", and no other, stands for urn:schemas-upnp-org:device-1-0; names
/// without a prefix are those without a namespace. Paths begin with "/". Texts are UTF-8, whatever the encoding of the
/// document.
///
/// What makes a document invalid is logged. What libxml2 has to say of documents, schemas and expressions that it
/// cannot read goes to standard error.
///
/// Threads: any, each with a helper of its own or all with one. In the exact build, one at a time: see the hazards.
///
/// Documents of strangers:
/// - Nothing external is read for them: no DTD, no entity, whose text is empty, no schema that they name.
/// - Entities that they define themselves are expanded, and 7 KB can yield a text of 1 GB: refuse a DOCTYPE before, or
///   limit the memory of the process.
/// - The schema is to be trusted: it is not read from the network, but what it includes or imports is.
///
/// Hazards of the exact build:
/// - All XML work of the process, with this class or with libxml2 itself, belongs to one thread at a time. Each
///   nodesText() that succeeds ends with xmlCleanupParser(), which takes from libxml2 what others have registered with
///   it and whatever other threads are using; on a second thread that leaves 1 KB allocated.
/// - A validation that succeeds leaves its objects allocated: 30 KB on a 64-bit machine for a schema of three elements,
///   more for larger ones and larger documents. Validate what comes once, or do it in a child process.
/// - A validation message of 5000 characters or more ends the process; the hardened build cuts it to 4999. Messages
///   quote the document, so one with long names or values is only safe to validate in a child process.
/// - An expression that yields no nodes, and a node without any content, leave their objects allocated.
class HALDEN_CPPUTILS_EXPORT XmlHelper
{
public:
    /// Prepares libxml2. One that does not fit the headers of the build is named on standard error, and used all the
    /// same.
    XmlHelper();

    /// Returns when the document is valid. Each message about it is logged at severity Error, warnings as well.
    ///
    /// A document with references to entities other than the five of XML itself counts as invalid.
    ///
    /// @param xsdPath as for xmlReadFile(): also a URL of a file, and "-" is standard input
    /// @throws std::runtime_error "Failed to load the XML schema", "Failed to create document parser context",
    ///         "Failed to parse XSD", "Failed to create validation context", "Document is invalid", or
    ///         "Failed to open the HaldenDeviceId.xml" for any document that is not well-formed, whatever its name
    void validateAgainstXSD(std::stringstream const& document, std::string const& xsdPath);
    void validateAgainstXSD(std::string const& documentPath, std::string const& xsdPath);

    /// The text of each node that the expression selects, in document order; empty when there is none. The text of an
    /// element includes those of all elements in it.
    ///
    /// An expression that yields a number, a text or a boolean is answered with a pointer as exception, which handlers
    /// for std::exception do not catch. Whoever does not write the expressions himself needs
    ///
    ///     catch (std::runtime_error* error) { std::unique_ptr<std::runtime_error> const owner(error); ... }
    ///
    /// A node that has no content at all, such as a processing instruction without data, has an empty text; in the
    /// exact build it is answered with the std::logic_error of a std::string made of null.
    ///
    /// @throws std::runtime_error* "Invalid type", see above
    /// @throws std::runtime_error "Could not open file" when the document is not well-formed,
    ///         "Failed to create xpath context", "Failed to register namespace prefix for XPath", or
    ///         "Failed to create xpath expression" when it cannot be evaluated, as with an unknown prefix
    std::vector<std::string> nodesText(std::stringstream const& document, std::string const& xpath);
    std::vector<std::string> nodesText(std::string const& documentPath, std::string const& xpath);

    /// The text of the only node that the expression selects; otherwise as nodesText().
    ///
    /// @throws std::runtime_error "None or more than one node found", after a log line with their number
    std::string singleNodeText(std::stringstream const& document, std::string const& xpath);
    std::string singleNodeText(std::string const& documentPath, std::string const& xpath);
};

}
