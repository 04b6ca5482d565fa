#pragma once

#include <functional>
#include <streambuf>
#include <string>
#include <utility>

namespace Halden::Tavro::TestSupport
{

/// An input that runs a function between its text and its end.
class InputThatCalls : public std::streambuf
{
public:
    explicit InputThatCalls(std::function<void()> function, std::string text = {})
        : function(std::move(function))
        , text(std::move(text))
    {
        setg(this->text.data(), this->text.data(), this->text.data() + this->text.size());
    }

protected:
    int_type underflow() override
    {
        function();
        return traits_type::eof();
    }

private:
    std::function<void()> function;
    std::string text;
};

}
