#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// A file that holds the given text, for as long as the object lives.
class TextFile
{
public:
    explicit TextFile(std::string const& text)
    {
        int const file = mkstemp(name.data());
        if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        {
            throw std::runtime_error("cannot write " + name);
        }
        close(file);
    }

    ~TextFile() { unlink(name.c_str()); }

    TextFile(TextFile const&) = delete;
    TextFile& operator=(TextFile const&) = delete;

    std::string const& path() const { return name; }

private:
    std::string name = std::filesystem::temp_directory_path() / "text-XXXXXX";
};

}
