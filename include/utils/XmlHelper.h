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
/// A document is the whole text of a stream, wherever its reading stands, or a file, which is read as by fileToString()
/// with the exceptions of that function. In expressions the prefix "upnp" stands for urn:schemas-upnp-org:device-1-0,
/// and there is no other; names without a prefix are those without a namespace. Paths begin with "/": a relative one
/// has nothing to start from and selects nothing. Texts are UTF-8, whatever the encoding of the document.
///
/// Only what is wrong with the validity of a document is logged. What libxml2 has to say about the reading of
/// documents, schemas and expressions goes to its own error output, which is standard error.
///
/// Threads: one at a time for all XML work of the process, with this class or with libxml2 itself. The messages of a
/// validation pass through buffers of the process, and every nodesText() that succeeds ends with xmlCleanupParser(): no
/// other thread may use libxml2 then, and what was registered with libxml2 (input callbacks, encodings) is lost. Best
/// keep to one thread: a success on another than that which used libxml2 before can leave 1 KB of libxml2's allocated.
///
/// Documents of strangers:
/// - Neither an external DTD nor an external entity is read, from the disk or the network; its text is empty. Neither
///   is a schema that a document names. The schema file itself is not read from the network, but what it includes or
///   imports is, and so everything in it must be trusted.
/// - Entities that a document defines itself are expanded. Deep nesting is refused as a loop, but a document of 7 KB
///   can still yield a text of 1 GB: refuse a document with a DOCTYPE before, or limit the memory of the process.
/// - A validation message quotes the document, and one of 5000 characters or more ends the process. So a document with
///   long names or values is only safe to validate in a child process.
class HALDEN_CPPUTILS_EXPORT XmlHelper
{
public:
    /// Prepares libxml2. One that does not fit the headers of the build is named on standard error, and used all the
    /// same.
    XmlHelper();

    /// Returns when the document is valid.
    ///
    /// Each message about it is logged at severity Error, warnings as well. A document with references to entities
    /// other than the five of XML itself counts as invalid.
    ///
    /// Every success leaves five objects allocated for good: the schema's document, parser context and schema, the
    /// validation context and the document. With a schema of three elements these are 30 KB on a 64-bit machine, and
    /// they grow with schema and document. So validate what comes once, not what comes periodically, or do it in a
    /// child process.
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
    /// for std::exception do not catch, and leaves result, context and document allocated. Whoever does not write the
    /// expressions himself needs
    ///
    ///     catch (std::runtime_error* error) { std::unique_ptr<std::runtime_error> const owner(error); ... }
    ///
    /// @throws std::runtime_error* "Invalid type", see above
    /// @throws std::runtime_error "Could not open file" when the document is not well-formed,
    ///         "Failed to create xpath context", "Failed to register namespace prefix for XPath", or
    ///         "Failed to create xpath expression" when it cannot be evaluated, as with an unknown prefix
    /// @throws std::logic_error of std::string for a processing instruction without data, which has no text at all;
    ///         result, context and document stay allocated
    std::vector<std::string> nodesText(std::stringstream const& document, std::string const& xpath);
    std::vector<std::string> nodesText(std::string const& documentPath, std::string const& xpath);

    /// The text of the only node that the expression selects; otherwise as nodesText().
    ///
    /// @throws std::runtime_error "None or more than one node found", after a log line with their number
    std::string singleNodeText(std::stringstream const& document, std::string const& xpath);
    std::string singleNodeText(std::string const& documentPath, std::string const& xpath);
};

}
