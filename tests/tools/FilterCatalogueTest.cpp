#include "FilterCatalogue.h"

#include <nuvek/Nuvek.h>

#include "support/RandomImages.h"
#include "support/Tiling.h"
#include "support/VoxelCompare.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

using Nuvek::Box;
using Nuvek::Vector;

namespace {

std::string buildError(std::string const& text, Nuvek::Image* source)
{
    try
    {
        NuvekTool::buildChain(NuvekTool::parseChainExpression(text), source);
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

TEST(FilterCatalogue, EveryFilterBuildsAndOpensWithItsDefaults)
{
    auto source = rgbImage();
    // Required parameters get a typical value; everything else its default.
    std::map<std::string, std::string> const required = {
        {"threshold", "threshold 100"}, {"add", "add () (gaussian 3)"},       {"difference", "difference () ()"},
        {"concat", "concat () (channel 1)"}, {"channel", "channel Green"},    {"zslice", "zslice 0"},
        {"voxelsize", "voxelsize 2 2 5"},  {"replace", "replace 1,2,3 4,5,6"}, {"box", "box 3"},
        {"convolve", "convolve 1,2,1"},    {"gaussian", "gaussian 5"},         {"radial", "channel 0 | radial 3"},
        {"histogram", "channel 0 | histogram 3"}, {"lbp", "channel 0 | lbp"}, {"erode", "erode 3"},
        {"dilate", "dilate 3"},            {"rank", "rank 3 4"},               {"median", "median 3"},
        {"upsample", "upsample 1"},        {"distance", "channel 0 | distance 0 4"},
        {"harris", "channel 0 | harris"}};
    for (NuvekTool::FilterEntry const& entry : NuvekTool::filterCatalogue())
    {
        auto const found = required.find(entry.name);
        std::string const text = found != required.end() ? found->second : entry.name;
        SCOPED_TRACE(text);
        std::unique_ptr<NuvekTool::Chain> chain = NuvekTool::buildChain(NuvekTool::parseChainExpression(text), source.get());
        ASSERT_NE(chain->output, nullptr);
        Box const box(Vector(-3, 5, 0), Vector(20, 17, 0));
        std::vector<double> const values = NuvekTest::openWhole(*chain->output, 0, box);
        EXPECT_EQ(values.size(), static_cast<std::size_t>(box.getSize() * chain->output->getNumChannels()));
    }
}

TEST(FilterCatalogue, ChainGivesTheSameBitsAsTheLibraryChainBuiltByHand)
{
    auto source = rgbImage();
    std::unique_ptr<NuvekTool::Chain> chain =
        NuvekTool::buildChain(NuvekTool::parseChainExpression("clamp | difference (gaussian 3) (box 5 mean) | threshold 0 -1 1"), source.get());
    Nuvek::ClampingFilter clamp(source.get(), false);
    Nuvek::GaussianBlurFilter gaussian(&clamp, 3, false);
    Nuvek::BoxFilter box(&clamp, 5, true, false, false);
    Nuvek::DifferenceFilter difference(&gaussian, &box, false);
    Nuvek::ThresholdFilter threshold(&difference, 0.0, -1.0, 1.0, false);
    Box const request(Vector(-2, -2, 0), Vector(49, 41, 0));
    EXPECT_TRUE(NuvekTest::sameBits(NuvekTest::openWhole(threshold, 0, request),
                                    NuvekTest::openWhole(*chain->output, 0, request), request));
    EXPECT_TRUE(chain->shareable);
    EXPECT_FALSE(NuvekTool::isShareable(NuvekTool::parseChainExpression("gaussian 3 | add () (localnorm 2)")));
}

TEST(FilterCatalogue, BadStagesAreNamedWithTheLibraryMessage)
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
