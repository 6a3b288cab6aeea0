#include <nuvek/chains/ChainExpression.h>

#include <gtest/gtest.h>

#include <stdexcept>

using Nuvek::parseChainExpression;

namespace {

std::string errorOf(std::string const& text)
{
    try
    {
        parseChainExpression(text);
    }
    catch (std::runtime_error const& error)
    {
        return error.what();
    }
    return "no error";
}

} // namespace

TEST(ChainExpression, StagesComposeLeftToRightWithTheirWords)
{
    Nuvek::ChainExpression const chain = parseChainExpression("  clamp|gaussian 5 |  sobel magnitude 3 ");
    ASSERT_EQ(chain.stages.size(), 3u);
    EXPECT_EQ(chain.stages[0].name, "clamp");
    EXPECT_TRUE(chain.stages[0].arguments.empty());
    ASSERT_EQ(chain.stages[2].arguments.size(), 2u);
    EXPECT_EQ(chain.stages[2].arguments[0].word, "magnitude");
    EXPECT_EQ(chain.stages[2].arguments[1].word, "3");
    EXPECT_EQ(Nuvek::toString(chain), "clamp | gaussian 5 | sobel magnitude 3");
}

TEST(ChainExpression, SubChainsNestAndMayBeEmpty)
{
    Nuvek::ChainExpression const chain =
        parseChainExpression("difference () (clamp | concat (channel 0) (channel 1 | gaussian 3)) | threshold 0.5");
    ASSERT_EQ(chain.stages.size(), 2u);
    ASSERT_EQ(chain.stages[0].arguments.size(), 2u);
    EXPECT_TRUE(chain.stages[0].arguments[0].isChain());
    EXPECT_TRUE(chain.stages[0].arguments[0].chain->stages.empty());
    Nuvek::ChainExpression const& second = *chain.stages[0].arguments[1].chain;
    ASSERT_EQ(second.stages.size(), 2u);
    EXPECT_EQ(second.stages[1].arguments[1].chain->stages[1].name, "gaussian");
    EXPECT_EQ(Nuvek::toString(chain),
              "difference () (clamp | concat (channel 0) (channel 1 | gaussian 3)) | threshold 0.5");
}

TEST(ChainExpression, SyntaxErrorsNameTheCharacter)
{
    EXPECT_EQ(errorOf(""), "Bad chain expression at character 1: a filter name is missing at the end.");
    EXPECT_EQ(errorOf("clamp |"), "Bad chain expression at character 8: a filter name is missing at the end.");
    EXPECT_EQ(errorOf("clamp || gaussian 3"),
              "Bad chain expression at character 8: expected a filter name, found '|'.");
    EXPECT_EQ(errorOf("add (gaussian 3"), "Bad chain expression at character 16: expected ')' to close the sub-chain.");
    EXPECT_EQ(errorOf("clamp ) gaussian 3"), "Bad chain expression at character 7: unexpected ')'.");
    EXPECT_EQ(errorOf("(clamp)"), "Bad chain expression at character 1: expected a filter name, found '('.");
}
