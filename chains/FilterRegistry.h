#pragma once

#include <nuvek/chains/Chain.h>
#include <nuvek/chains/ChainExpression.h>
#include <nuvek/chains/FilterEntry.h>

#include <memory>
#include <string>
#include <vector>

namespace Nuvek {

/// \brief The filters a chain expression may name, in one table, and the building of chains from
/// expressions.
///
/// The table is made once and never changes; every function may be called from several threads.
class FilterRegistry
{
public:
    /// Every filter, in the order `nuvek filters` lists them.
    static std::vector<FilterEntry> const& entries();

    /// The entry named name. Throws std::runtime_error for an unknown name.
    static FilterEntry const& find(std::string const& name);

    /// "name k [mode=mean] ..." with optional parameters in brackets and sub-chains as (CHAIN).
    static std::string usage(FilterEntry const& entry);

    /// One block per filter with its usage, description and parameter help, as `nuvek filters` prints.
    static std::string describe();

    /// Builds the chain over source (not owned). Throws std::runtime_error naming the filter for an
    /// unknown name, a missing or malformed parameter, or an error of the filter's constructor.
    static std::unique_ptr<Chain> buildChain(ChainExpression const& expression, Image* source);

    /// Whether every filter of the expression may be shared by several threads. Throws
    /// std::runtime_error for an unknown filter name.
    static bool isShareable(ChainExpression const& expression);
};

} // namespace Nuvek
