#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// Sees every call of the library to libxml2, for as long as it lives, and lets one of them fail.
///
/// For test programs that list files/LibXmlWatch.cpp among their sources and link libxml2. One at a time, on one
/// thread.
///
/// Objects are named after what they are: "XSD", "parser", "schema", "validation", "document", "context", "result" and
/// "content". At the end those that the library has left are freed, so that the leak checker sees nothing but what the
/// watch does not know.
class LibXmlWatch
{
public:
    using Callback = void (*)(void*, char const*, ...);

    LibXmlWatch();
    ~LibXmlWatch();

    LibXmlWatch(LibXmlWatch const&) = delete;
    LibXmlWatch& operator=(LibXmlWatch const&) = delete;

    /// Lets the next call of that function fail: a null pointer, or the number where it returns one.
    void fail(std::string const& function, int number = -1);

    /// In their order, with their arguments: "xmlSchemaParse(parser)".
    std::vector<std::string> const& calls() const;

    /// What is not freed, in the order of its making.
    std::vector<std::string> left() const;

    /// Frees what is left, in the order that the library frees it.
    void freeWhatIsLeft();

    Callback errorCallback() const;
    Callback warningCallback() const;

    /// What libxml2 has allocated in this process and not freed, but for the last error that it remembers.
    static std::size_t bytes();
};

}
