#include <utils/FileToString.h>

#include "log/Log.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <streambuf>

namespace Halden::Tavro::Utils
{

namespace
{

/// With the stream's usual 8 KiB, a tenth of the time would go into calls of read(2).
constexpr std::size_t blockSize = 64UL * 1024;

/// Appends to a string. The library hands it whole blocks where a plain assignment from iterators goes byte by byte.
class StringAppender : public std::streambuf
{
public:
    explicit StringAppender(std::string& text)
        : text(text)
    {
    }

protected:
    std::streamsize xsputn(char const* block, std::streamsize size) override
    {
        text.append(block, static_cast<std::size_t>(size));
        return size;
    }

    int_type overflow(int_type character) override
    {
        text.push_back(traits_type::to_char_type(character));
        return character;
    }

private:
    std::string& text;
};

/// Does nothing where the size cannot be told (-1) or is more than a string can hold: some directories say 2^63-1.
void reserve(std::string& text, std::streamoff size)
{
    if (size > 0 && static_cast<std::uint64_t>(size) <= text.max_size())
    {
        text.reserve(static_cast<std::size_t>(size));
    }
}

}

std::string fileToString(std::string const& path)
{
    std::unique_ptr<char[]> const block(new char[blockSize]); // outlives the stream
    std::ifstream file;
    file.rdbuf()->pubsetbuf(block.get(), blockSize);
    file.open(path);
    if (!file.good())
    {
        TAVRO_LOG(Log::Severity::Error, "Failed to read file %s", path.c_str());
        throw std::runtime_error("Failed to read file: " + path);
    }

    std::string content;
    file.seekg(0, std::ios::end);
    reserve(content, file.tellg());
    file.seekg(0);

    StringAppender appender(content);
    std::copy(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>(),
              std::ostreambuf_iterator<char>(&appender));
    return content;
}

}
