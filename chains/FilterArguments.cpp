#include <nuvek/chains/FilterArguments.h>

#include <nuvek/chains/NumberText.h>

#include <cctype>
#include <sstream>
#include <stdexcept>

namespace Nuvek {

namespace {

std::string lowerCase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

} // namespace

long long FilterArguments::integer(std::string const& name) const
{
    std::string const& text = word(name);
    std::optional<long long> const value = NumberText::integer(text);
    if (!value)
        fail("parameter '" + name + "' must be a whole number, got '" + text + "'.");
    return *value;
}

double FilterArguments::number(std::string const& name) const
{
    std::string const& text = word(name);
    std::optional<double> const value = NumberText::number(text);
    if (!value)
        fail("parameter '" + name + "' must be a number, got '" + text + "'.");
    return *value;
}

std::string const& FilterArguments::word(std::string const& name) const
{
    auto const found = values.find(name);
    if (found == values.end())
        throw std::logic_error(filterName + ": no parameter '" + name + "'");
    return found->second;
}

std::vector<double> FilterArguments::numbers(std::string const& name) const
{
    return numbersIn(name, word(name));
}

std::vector<double> FilterArguments::numbersIn(std::string const& name, std::string const& text) const
{
    std::vector<double> values;
    std::stringstream stream(text);
    std::string item;
    while (std::getline(stream, item, ','))
    {
        std::optional<double> const value = NumberText::number(item);
        if (!value)
            fail("parameter '" + name + "' must be a number, got '" + item + "'.");
        values.push_back(*value);
    }
    if (values.empty())
        fail("parameter '" + name + "' must be a comma-separated list of numbers.");
    return values;
}

std::string FilterArguments::choice(std::string const& name, std::vector<std::string> const& choices) const
{
    std::string const value = lowerCase(word(name));
    for (std::string const& choice : choices)
        if (value == choice)
            return value;
    std::string list;
    for (std::string const& choice : choices)
        list += (list.empty() ? "" : ", ") + choice;
    fail("parameter '" + name + "' must be one of " + list + "; got '" + word(name) + "'.");
}

void FilterArguments::fail(std::string const& message) const
{
    throw std::runtime_error(filterName + ": " + message);
}

} // namespace Nuvek
