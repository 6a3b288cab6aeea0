// Chain expressions: their grammar and messages, and the registry that builds them into filters.
#include <nuvek/NuvekChains.h>

#include "support/NuvekTest.h"

#include <set>

using Nuvek::Box;
using Nuvek::parseChainExpression;
using Nuvek::Vector;

TEST(ChainExpression, StagesComposeLeftToRightAndSubChainsNestAndMayBeEmpty)
{
    Nuvek::ChainExpression const chain = parseChainExpression(
        "  difference () (clamp|concat (channel 0) (channel 1 | gaussian 3)) | sobel magnitude   3 ");
    ASSERT_EQ(chain.stages.size(), 2u);
    ASSERT_EQ(chain.stages[0].arguments.size(), 2u);
    EXPECT_TRUE(chain.stages[0].arguments[0].isChain());
    EXPECT_TRUE(chain.stages[0].arguments[0].chain->stages.empty());
    Nuvek::ChainExpression const& second = *chain.stages[0].arguments[1].chain;
    ASSERT_EQ(second.stages.size(), 2u);
    EXPECT_TRUE(second.stages[0].arguments.empty());
    EXPECT_EQ(second.stages[1].arguments[1].chain->stages[1].name, "gaussian");
    ASSERT_EQ(chain.stages[1].arguments.size(), 2u);
    EXPECT_EQ(chain.stages[1].arguments[0].word, "magnitude");
    EXPECT_EQ(chain.stages[1].arguments[1].word, "3");
    EXPECT_EQ(Nuvek::toString(chain),
              "difference () (clamp | concat (channel 0) (channel 1 | gaussian 3)) | sobel magnitude 3");
}

TEST(ChainExpression, SyntaxErrorsNameTheCharacter)
{
    std::pair<char const*, char const*> const cases[] = {
        {"", "1: a filter name is missing at the end."},
        {"clamp |", "8: a filter name is missing at the end."},
        {"clamp || gaussian 3", "8: expected a filter name, found '|'."},
        {"add (gaussian 3", "16: expected ')' to close the sub-chain."},
        {"clamp ) gaussian 3", "7: unexpected ')'."},
        {"(clamp)", "1: expected a filter name, found '('."},
    };
    for (auto const& [text, message] : cases)
        EXPECT_EQ(NuvekTest::messageOf([&] { parseChainExpression(text); }),
                  std::string("Bad chain expression at character ") + message);
}

TEST(FilterRegistry, EveryEntryIsNamedOnceAndItsExamplesBuildAsShareableAsItSays)
{
    std::set<std::string> names;
    std::mt19937_64 random(81);
    for (Nuvek::FilterEntry const& entry : Nuvek::FilterRegistry::entries())
    {
        EXPECT_TRUE(names.insert(entry.name).second) << "two entries named " << entry.name;
        EXPECT_FALSE(entry.examples.empty() || entry.classNames.empty()) << entry.name;
        auto source = NuvekTest::randomImage(random, Vector(8, 8, 1), entry.inputChannels);
        for (std::string const& example : entry.examples)
        {
            std::string const text =
                (entry.exampleInput.empty() ? "" : entry.exampleInput + " | ") + entry.name + " " + example;
            auto const chain = Nuvek::FilterRegistry::buildChain(parseChainExpression(text), source.get());
            EXPECT_NE(chain->output, source.get()) << text;
            EXPECT_EQ(chain->shareable, entry.shareable) << text;
        }
    }
    EXPECT_GE(names.size(), 27u);
}

TEST(FilterRegistry, NumbersAreWholeTextsOrNothing)
{
    EXPECT_EQ(Nuvek::NumberText::integer("-12"), -12);
    EXPECT_EQ(Nuvek::NumberText::number("2.5e1"), 25.0);
    for (char const* text : {"", "12x", "1.5", "99999999999999999999", "five"})
        EXPECT_FALSE(Nuvek::NumberText::integer(text).has_value()) << text;
    for (char const* text : {"", "1,5", "1e", "x1"})
        EXPECT_FALSE(Nuvek::NumberText::number(text).has_value()) << text;
}

TEST(FilterRegistry, ChainGivesTheSameBitsAsTheLibraryChainBuiltByHand)
{
    std::mt19937_64 random(81);
    auto source = NuvekTest::randomImage(random, Vector(48, 40, 1), 3, {1.0, 255.0, 0.0});
    auto const chain = Nuvek::FilterRegistry::buildChain(
        parseChainExpression("clamp | difference (gaussian 3) (box 5 mean) | threshold 0 -1 1"), source.get());
    Nuvek::ClampingFilter clamp(source.get(), false);
    Nuvek::GaussianBlurFilter gaussian(&clamp, 3, false);
    Nuvek::BoxFilter box(&clamp, 5, true, false, false);
    Nuvek::DifferenceFilter difference(&gaussian, &box, false);
    Nuvek::ThresholdFilter threshold(&difference, 0.0, -1.0, 1.0, false);
    Box const request(Vector(-2, -2, 0), Vector(49, 41, 0));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(threshold, 0, request),
                                    NuvekTest::openWhole(*chain->output, 0, request), request));
    // Every filter may serve several threads, the two that keep work caches between calls included.
    EXPECT_TRUE(Nuvek::FilterRegistry::isShareable(parseChainExpression("upsample 1 | add () (localnorm 2)")));
    EXPECT_EQ(NuvekTest::messageOf([] { Nuvek::FilterRegistry::isShareable(parseChainExpression("add () (blur 2)")); }),
              "Unknown filter 'blur'. 'nuvek filters' lists them.");
}

TEST(FilterRegistry, BadStagesAreNamedWithTheLibraryMessage)
{
    std::mt19937_64 random(81);
    auto source = NuvekTest::randomImage(random, Vector(8, 8, 1), 3);
    std::pair<char const*, char const*> const cases[] = {
        {"blur 3", "Unknown filter 'blur'. 'nuvek filters' lists them."},
        {"gaussian 4", "gaussian: Kernel size must be odd."},
        {"gaussian", "gaussian: parameter 'k' is missing; usage: gaussian k"},
        {"gaussian 5 7", "gaussian: too many parameters; usage: gaussian k"},
        {"gaussian five", "gaussian: parameter 'k' must be a whole number, got 'five'."},
        {"add (gaussian 3)", "add: takes 2 sub-chain(s) in parentheses, got 1; usage: add (CHAIN) (CHAIN)"},
        {"sobel sideways", "sobel: parameter 'output' must be one of vector, magnitude; got 'sideways'."},
        {"unmix hematoxylin+eosin 2", "unmix: stain index 2 is not among the 2 stains."},
        {"threshold 1 | unmix", "(nothing thrown)"},
        {"channel 0 | unmix", "unmix: the input needs three colour channels, it has 1."},
    };
    for (auto const& [text, message] : cases)
        EXPECT_EQ(
            NuvekTest::messageOf([&] { Nuvek::FilterRegistry::buildChain(parseChainExpression(text), source.get()); }),
            message);
}
