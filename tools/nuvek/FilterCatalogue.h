#pragma once

#include "ChainExpression.h"

#include <nuvek/core/ChannelBank.h>
#include <nuvek/core/Image.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace NuvekTool {

enum class ParameterKind
{
    Integer,
    Number,
    Word,
    NumberList
};

/// One positional parameter of a filter as the chain expression writes it.
struct Parameter
{
    std::string name;
    ParameterKind kind;
    /// Empty: the parameter must be given.
    std::string defaultValue;
    std::string help;
};

/// The images a chain is made of, owned together. Filters are created without ownership of their
/// inputs, and the chain deletes them last-made first.
class Chain
{
public:
    Chain() = default;
    Chain(Chain const&) = delete;
    Chain& operator=(Chain const&) = delete;
    ~Chain();

    Nuvek::Image* add(std::unique_ptr<Nuvek::Image> image);
    Nuvek::ChannelBank* addBank(std::unique_ptr<Nuvek::ChannelBank> bank);

    /// The last filter of the chain (the source when the chain is empty).
    Nuvek::Image* output = nullptr;
    /// False when a filter of the chain must not serve two threads at once, or serialises its calls.
    bool shareable = true;

private:
    // Images and banks in the order made; destroyed in reverse, so that nothing outlives what it reads.
    std::vector<std::shared_ptr<void>> owned;
};

/// The parsed arguments of one stage, by parameter name.
class Arguments
{
public:
    long long integer(std::string const& name) const;
    double number(std::string const& name) const;
    std::string const& word(std::string const& name) const;
    std::vector<double> numbers(std::string const& name) const;

    std::map<std::string, std::string> values;
    std::vector<Nuvek::Image*> chains;
    std::string filterName;
};

struct FilterEntry
{
    std::string name;
    std::string description;
    std::vector<Parameter> parameters;
    /// How many sub-chains in parentheses the filter takes: at least / at most (-1: any number).
    int minChains = 0;
    int maxChains = 0;
    /// False for filters that must not be shared between threads (or lock every call).
    bool shareable = true;
    std::function<Nuvek::Image*(Chain& chain, Nuvek::Image* input, Arguments const& arguments)> build;
};

/// Every filter the tool offers, in the order `nuvek filters` lists them.
std::vector<FilterEntry> const& filterCatalogue();

/// Builds the chain over source. Throws std::runtime_error naming the filter for an unknown name, a
/// missing or malformed parameter, or an error of the filter's constructor.
std::unique_ptr<Chain> buildChain(ChainExpression const& expression, Nuvek::Image* source);

/// Whether every filter of the expression may be shared by several threads.
bool isShareable(ChainExpression const& expression);

/// `nuvek filters`: one block per filter with its usage and description.
std::string describeFilters();

} // namespace NuvekTool
