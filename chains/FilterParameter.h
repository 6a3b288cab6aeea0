#pragma once

#include <string>
#include <vector>

namespace Nuvek {

/// How a parameter is written in a chain expression.
enum class ParameterKind
{
    Integer,
    Number,
    Word,
    NumberList
};

/// The values a parameter may take, as far as random valid chains need to know: the fuzzer and the
/// tests draw from it. A value outside it may still be valid; the filter's constructor decides.
struct ParameterDomain
{
    enum class Kind
    {
        /// One of `words`, used as written.
        Choices,
        /// Whole numbers from `low` to `high`.
        Integers,
        /// Odd whole numbers from `low` to `high` (window and kernel sizes).
        OddIntegers,
        /// Numbers from `low` to `high`.
        Numbers,
        /// A channel index of the input: 0 to its channel count - 1.
        ChannelIndex,
        /// One whole number from `low` to `high` per channel of the input, joined by commas.
        PerChannelIntegers
    };
    Kind kind = Kind::Choices;
    double low = 0.0;
    double high = 0.0;
    std::vector<std::string> words;
};

/// One positional parameter of a filter as the chain expression writes it.
struct FilterParameter
{
    std::string name;
    ParameterKind kind = ParameterKind::Word;
    /// Empty: the parameter must be given.
    std::string defaultValue;
    std::string help;
    ParameterDomain domain;
};

} // namespace Nuvek
