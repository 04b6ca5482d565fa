#pragma once

#include <exception>
#include <string>

/// What is wrong with a document, in the words of the library's exception; but of one that is no XML, which has other
/// names there.
inline std::string faultOf(std::exception const& error)
{
    std::string const text = error.what();
    bool const malformed = text == "Failed to open the HaldenDeviceId.xml" || text == "Could not open file";
    return malformed ? "not well-formed XML" : text;
}
