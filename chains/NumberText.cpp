#include <nuvek/chains/NumberText.h>

#include <stdexcept>

namespace Nuvek {

std::optional<long long> NumberText::integer(std::string const& text)
{
    try
    {
        std::size_t used = 0;
        long long const value = std::stoll(text, &used);
        if (used == text.size())
            return value;
    }
    catch (std::exception const&)
    {
    }
    return std::nullopt;
}

std::optional<double> NumberText::number(std::string const& text)
{
    try
    {
        std::size_t used = 0;
        double const value = std::stod(text, &used);
        if (used == text.size())
            return value;
    }
    catch (std::exception const&)
    {
    }
    return std::nullopt;
}

} // namespace Nuvek
