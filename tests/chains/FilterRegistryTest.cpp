#include <nuvek/Nuvek.h>
#include <nuvek/NuvekChains.h>

#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <stdexcept>

using Nuvek::Box;
using Nuvek::Vector;

namespace {

std::string buildError(std::string const& text, Nuvek::Image* source)
{
    try
    {
        Nuvek::FilterRegistry::buildChain(Nuvek::parseChainExpression(text), source);
    }
    catch (std::runtime_error const& error)
    {
        return error.what();
    }
    return "no error";
}

std::shared_ptr<Nuvek::MemoryImage> rgbImage()
{
    std::mt19937_64 random(81);
    auto image = NuvekTest::randomImage(random, Vector(48, 40, 1), 3, {1.0, 255.0, 0.0});
    image->setValueRange(Nuvek::ValueRange<double>(0, 255));
    image->setChannelNames({"Red", "Green", "Blue"});
    return image;
}

} // namespace

TEST(FilterRegistry, EveryExampleBuildsAndOpens)
{
    std::set<std::string> names;
    for (Nuvek::FilterEntry const& entry : Nuvek::FilterRegistry::entries())
    {
        EXPECT_TRUE(names.insert(entry.name).second) << "two entries named " << entry.name;
        ASSERT_FALSE(entry.examples.empty()) << entry.name;
        ASSERT_FALSE(entry.classNames.empty()) << entry.name;
        std::mt19937_64 random(81);
        auto source = NuvekTest::randomImage(random, Vector(48, 40, 1), entry.inputChannels, {0.0, 255.0, 0.01});
        source->setValueRange(Nuvek::ValueRange<double>(0, 255));
        for (std::string const& example : entry.examples)
        {
            std::string const text =
                (entry.exampleInput.empty() ? "" : entry.exampleInput + " | ") + entry.name + " " + example;
            SCOPED_TRACE(text);
            std::unique_ptr<Nuvek::Chain> chain =
                Nuvek::FilterRegistry::buildChain(Nuvek::parseChainExpression(text), source.get());
            ASSERT_NE(chain->output, source.get());
            EXPECT_EQ(chain->shareable, entry.shareable);
            Box const box(Vector(-3, 5, 0), Vector(20, 17, 0));
            std::vector<double> const values = NuvekTest::openWhole(*chain->output, 0, box);
            EXPECT_EQ(values.size(), static_cast<std::size_t>(box.getSize() * chain->output->getNumChannels()));
        }
    }
    EXPECT_GE(names.size(), 27u);
}

TEST(FilterRegistry, DefaultsAndDomainsReadAsTheirParameterKind)
{
    for (Nuvek::FilterEntry const& entry : Nuvek::FilterRegistry::entries())
        for (Nuvek::FilterParameter const& parameter : entry.parameters)
        {
            SCOPED_TRACE(entry.name + " " + parameter.name);
            std::string const& value = parameter.defaultValue;
            if (!value.empty() && parameter.kind == Nuvek::ParameterKind::Integer)
            {
                EXPECT_TRUE(Nuvek::NumberText::integer(value).has_value());
            }
            if (!value.empty() && parameter.kind == Nuvek::ParameterKind::Number)
            {
                EXPECT_TRUE(Nuvek::NumberText::number(value).has_value());
            }
            Nuvek::ParameterDomain const& domain = parameter.domain;
            if (domain.kind == Nuvek::ParameterDomain::Kind::Choices)
                EXPECT_FALSE(domain.words.empty());
            else
                EXPECT_LE(domain.low, domain.high);
        }
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
    auto source = rgbImage();
    std::unique_ptr<Nuvek::Chain> chain = Nuvek::FilterRegistry::buildChain(
        Nuvek::parseChainExpression("clamp | difference (gaussian 3) (box 5 mean) | threshold 0 -1 1"), source.get());
    Nuvek::ClampingFilter clamp(source.get(), false);
    Nuvek::GaussianBlurFilter gaussian(&clamp, 3, false);
    Nuvek::BoxFilter box(&clamp, 5, true, false, false);
    Nuvek::DifferenceFilter difference(&gaussian, &box, false);
    Nuvek::ThresholdFilter threshold(&difference, 0.0, -1.0, 1.0, false);
    Box const request(Vector(-2, -2, 0), Vector(49, 41, 0));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(threshold, 0, request),
                                    NuvekTest::openWhole(*chain->output, 0, request), request));
    EXPECT_TRUE(chain->shareable);
    // Every filter may serve several threads, the two that keep work caches between calls included.
    EXPECT_TRUE(Nuvek::FilterRegistry::isShareable(Nuvek::parseChainExpression("upsample 1 | add () (localnorm 2)")));
    EXPECT_THROW(Nuvek::FilterRegistry::isShareable(Nuvek::parseChainExpression("add () (blur 2)")),
                 std::runtime_error);
}

TEST(FilterRegistry, BadStagesAreNamedWithTheLibraryMessage)
{
    auto source = rgbImage();
    EXPECT_EQ(buildError("blur 3", source.get()), "Unknown filter 'blur'. 'nuvek filters' lists them.");
    EXPECT_EQ(buildError("gaussian 4", source.get()), "gaussian: Kernel size must be odd.");
    EXPECT_EQ(buildError("gaussian", source.get()), "gaussian: parameter 'k' is missing; usage: gaussian k");
    EXPECT_EQ(buildError("gaussian 5 7", source.get()), "gaussian: too many parameters; usage: gaussian k");
    EXPECT_EQ(buildError("gaussian five", source.get()), "gaussian: parameter 'k' must be a whole number, got 'five'.");
    EXPECT_EQ(buildError("add (gaussian 3)", source.get()),
              "add: takes 2 sub-chain(s) in parentheses, got 1; usage: add (CHAIN) (CHAIN)");
    EXPECT_EQ(buildError("sobel sideways", source.get()),
              "sobel: parameter 'output' must be one of vector, magnitude; got 'sideways'.");
    EXPECT_EQ(buildError("unmix hematoxylin+eosin 2", source.get()), "unmix: stain index 2 is not among the 2 stains.");
    EXPECT_EQ(buildError("threshold 1 | unmix", source.get()), "no error");
    EXPECT_EQ(buildError("channel 0 | unmix", source.get()), "unmix: the input needs three colour channels, it has 1.");
}
