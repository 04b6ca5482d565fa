#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// What happens in this process and in its forked children, in order. Events beyond 64 KiB are lost.
class SharedEvents
{
public:
    SharedEvents()
    {
        void* const memory = mmap(nullptr, sizeof(Text), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
        {
            throw std::runtime_error("no shared memory");
        }
        text = static_cast<Text*>(memory);
    }

    ~SharedEvents() { munmap(text, sizeof(Text)); }

    SharedEvents(SharedEvents const&) = delete;
    SharedEvents& operator=(SharedEvents const&) = delete;

    /// @param event one line
    void add(std::string const& event)
    {
        std::size_t const begin = text->size.fetch_add(event.size() + 1);
        if (begin + event.size() < text->characters.size())
        {
            event.copy(text->characters.data() + begin, event.size());
            text->characters[begin + event.size()] = '\n';
        }
    }

    std::vector<std::string> list() const
    {
        std::size_t const size = std::min<std::size_t>(text->size, text->characters.size());
        std::istringstream lines(std::string(text->characters.data(), size));
        std::vector<std::string> events;
        for (std::string line; std::getline(lines, line);)
        {
            events.push_back(line);
        }
        return events;
    }

    void clear() { text->size = 0; }

private:
    struct Text
    {
        std::atomic<std::size_t> size;
        std::array<char, 65'536> characters;
    };

    Text* text;
};

}
