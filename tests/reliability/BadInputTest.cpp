// Constructors given invalid parameters throw the stated message, and an owned input is deleted
// exactly once on the way out (nothing leaks under LeakSanitizer).
#include <nuvek/Nuvek.h>

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

using Nuvek::Image;
using Nuvek::Vector;

namespace {

// A source that counts its own destruction.
class CountedImage : public Nuvek::MemoryImage
{
public:
    CountedImage(long long channels, int& deletions)
        : Nuvek::MemoryImage(Vector(8, 8, 1), channels), deletions(deletions)
    {
    }
    ~CountedImage() override { ++deletions; }

private:
    int& deletions;
};

struct BadInput
{
    char const* what;
    long long channels;
    std::function<void(Image* ownedInput)> construct;
    char const* message;
};

} // namespace

TEST(BadInput, ConstructorsThrowTheStatedMessageAndFreeAnOwnedInput)
{
    std::vector<BadInput> const cases = {
        {"box even", 1, [](Image* in) { Nuvek::BoxFilter(in, 4, true, false, true); }, "Kernel size must be odd."},
        {"box negative", 1, [](Image* in) { Nuvek::BoxFilter(in, -3, true, false, true); },
         "Kernel size must not be negative."},
        {"convolution lengths", 1,
         [](Image* in) {
             Nuvek::SeparableConvolutionFilter(in, {1, 2, 1}, {1}, true);
         },
         "Kernel sizes for x and y must be equal."},
        {"convolution even", 1,
         [](Image* in) {
             Nuvek::SeparableConvolutionFilter(in, {1, 1}, true);
         },
         "Kernel size must be odd."},
        {"convolution empty", 1, [](Image* in) { Nuvek::SeparableConvolutionFilter(in, {}, true); },
         "Kernel size must be odd."},
        {"gaussian even", 1, [](Image* in) { Nuvek::GaussianBlurFilter(in, 6, true); }, "Kernel size must be odd."},
        {"gaussian zero", 1, [](Image* in) { Nuvek::GaussianBlurFilter(in, 0, true); }, "Kernel size must be odd."},
        {"sobel even", 1, [](Image* in) { Nuvek::SobelMagnitudeFilter(in, 4, true); }, "Kernel size must be odd."},
        {"sobel zero", 1, [](Image* in) { Nuvek::SobelVectorFilter(in, 0, true); }, "Kernel size must be at least 1."},
        {"harris even", 1, [](Image* in) { Nuvek::HarrisEigenvaluesFilter(in, 2, true); }, "Kernel size must be odd."},
        {"histogram even", 1, [](Image* in) { Nuvek::HistogramFilter(in, 2, 0, true); }, "Kernel size must be odd."},
        {"histogram bins", 1, [](Image* in) { Nuvek::HistogramFilter(in, 3, -3, true); },
         "Cannot create HistogramComputer with zero bins."},
        {"histogram channels", 2, [](Image* in) { Nuvek::HistogramFilter(in, 3, 4, true); },
         "Local histogram filter may only be applied to single channel images."},
        {"lbp channels", 3, [](Image* in) { Nuvek::LBPFilter(in, true); },
         "Error: LBPFilter can only be constructed from images with one channel.\n"},
        {"erosion even", 1, [](Image* in) { Nuvek::ErosionFilter(in, 8, true); }, "Kernel size must be odd."},
        {"rank even", 1, [](Image* in) { Nuvek::RankFilter(in, 4, 1, true); }, "Kernel size must be odd."},
        {"rank too large", 1, [](Image* in) { Nuvek::RankFilter(in, 3, 9, true); },
         "Rank index must be within [0, kernel size ^ 2]."},
        {"rank negative", 1, [](Image* in) { Nuvek::RankFilter(in, 3, -1, true); }, "Rank index must not be negative."},
        {"channel name", 2, [](Image* in) { Nuvek::ChannelFilter(in, std::string("Nope"), true); },
         "No channel named \"Nope\" found."},
        {"replacement width", 2,
         [](Image* in) { Nuvek::ValueReplacementFilter(in, true, std::vector<double>{1}, std::vector<double>{2}); },
         "Replacement color channels do not fit number of channels in image"},
    };
    int tried = 0;
    for (BadInput const& test : cases)
    {
        int deletions = 0;
        auto* input = new CountedImage(test.channels, deletions);
        try
        {
            test.construct(input);
            ADD_FAILURE() << test.what << ": no error";
        }
        catch (std::runtime_error const& error)
        {
            EXPECT_EQ(std::string(error.what()), test.message) << test.what;
        }
        EXPECT_EQ(deletions, 1) << test.what << ": the owned input must be deleted exactly once";
        ++tried;
    }
    std::printf("[ bad input ] %d constructors tried\n", tried);
}

TEST(BadInput, MultiInputFiltersDeleteNothingWhenTheyRefuse)
{
    int deletions = 0;
    auto* first = new CountedImage(1, deletions);
    auto* second = new CountedImage(2, deletions);
    try
    {
        Nuvek::AdditionFilter(first, second, true);
        ADD_FAILURE() << "no error";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(),
                     "Cannot instantiate difference filter from images with unequal numbers of channels.");
    }
    EXPECT_EQ(deletions, 0);
    delete first;
    delete second;
    EXPECT_EQ(deletions, 2);

    Nuvek::MemoryImage small(Vector(4, 4, 1), 1);
    Nuvek::MemoryImage large(Vector(5, 4, 1), 1);
    try
    {
        Nuvek::ConcatFilter({&small, &large}, true);
        ADD_FAILURE() << "no error";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "Image extents must match");
    }
}
