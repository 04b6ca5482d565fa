#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// An empty directory that is the working directory for as long as the object lives, and is removed with all in it.
class WorkingDirectory
{
public:
    WorkingDirectory()
    {
        if (mkdtemp(name.data()) == nullptr)
        {
            throw std::runtime_error("cannot make " + name);
        }
        std::filesystem::current_path(name);
    }

    ~WorkingDirectory()
    {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(name);
    }

    WorkingDirectory(WorkingDirectory const&) = delete;
    WorkingDirectory& operator=(WorkingDirectory const&) = delete;

    std::string const& path() const { return name; }

private:
    std::string name = std::filesystem::temp_directory_path() / "working-XXXXXX";
};

}
