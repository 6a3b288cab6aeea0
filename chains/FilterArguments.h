#pragma once

#include <nuvek/core/Image.h>

#include <map>
#include <string>
#include <vector>

namespace Nuvek {

/// The arguments of one stage of a chain expression, by parameter name, as a filter's builder reads
/// them. A value that does not read as the asked type throws std::runtime_error naming the filter and
/// the parameter.
class FilterArguments
{
public:
    long long integer(std::string const& name) const;
    double number(std::string const& name) const;
    std::string const& word(std::string const& name) const;
    /// Comma-separated numbers.
    std::vector<double> numbers(std::string const& name) const;
    /// Comma-separated numbers in text, a part of the parameter `name` (named in the message).
    std::vector<double> numbersIn(std::string const& name, std::string const& text) const;
    /// The word in lower case, which must be one of choices.
    std::string choice(std::string const& name, std::vector<std::string> const& choices) const;

    /// Throws std::runtime_error "<filter>: <message>".
    [[noreturn]] void fail(std::string const& message) const;

    std::map<std::string, std::string> values;
    /// The outputs of the stage's sub-chains, in order.
    std::vector<Image*> chains;
    std::string filterName;
};

} // namespace Nuvek
