#pragma once

#include <functional>
#include <streambuf>
#include <utility>

namespace Halden::Tavro::TestSupport
{

/// An input that runs a function before its end.
class InputThatCalls : public std::streambuf
{
public:
    explicit InputThatCalls(std::function<void()> function)
        : function(std::move(function))
    {
    }

protected:
    int_type underflow() override
    {
        function();
        return traits_type::eof();
    }

private:
    std::function<void()> function;
};

}
