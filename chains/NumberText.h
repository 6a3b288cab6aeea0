#pragma once

#include <optional>
#include <string>

namespace Nuvek {

/// Reads numbers written as text, the whole text or nothing: "12" is a whole number, "12x", " 12" and
/// "" are not. Used by chain expressions and by the nuvek tool's options, so that both accept the
/// same spellings.
class NumberText
{
public:
    /// A whole number in decimal (an optional sign, then digits), or nothing.
    static std::optional<long long> integer(std::string const& text);

    /// A number as std::stod reads it ("1.5", "-2e3", "inf", "nan"), or nothing.
    static std::optional<double> number(std::string const& text);
};

} // namespace Nuvek
