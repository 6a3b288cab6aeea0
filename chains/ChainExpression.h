#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Nuvek {

struct ChainExpression;

/// One argument of a stage: a word (a number, a name, a comma-separated list) or a sub-chain in
/// parentheses.
struct StageArgument
{
    std::string word;
    std::shared_ptr<ChainExpression> chain;
    bool isChain() const { return chain != nullptr; }
};

/// One filter of a chain: its name and its arguments as written.
struct Stage
{
    std::string name;
    std::vector<StageArgument> arguments;
};

/// Stages separated by '|', applied left to right. An empty chain (written "()") passes its input on.
struct ChainExpression
{
    std::vector<Stage> stages;
};

/// Parses an expression such as "clamp | gaussian 5 | sobel magnitude 3" or
/// "difference (gaussian 3) (gaussian 9)". Throws std::runtime_error naming the position of a syntax
/// error.
ChainExpression parseChainExpression(std::string const& text);

/// The expression written back in canonical form.
std::string toString(ChainExpression const& chain);

} // namespace Nuvek
