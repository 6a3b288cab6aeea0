// Separates a brightfield RGB image into the amounts of its stains, as a pathology application
// does: the user picks a reference colour for each stain (the colour of a region holding that stain
// alone), the library turns the colours into an unmixing matrix, and one unmixing filter per stain
// yields that stain's amount per voxel.
//
// The image is made here: a tissue-like field of three stains (a blue-purple nuclear stain, a pink
// counterstain and a brown chromogen marking some nuclei), mixed by the law of absorbance and
// rounded to 8 bits as a scanner would deliver it. Since the true amounts are known, the example
// prints how well each one is recovered, then does the same with two stains only.
#include <nuvek/Nuvek.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Matrix = std::vector<std::vector<double>>;

struct Stain
{
    std::string name;
    std::vector<double> colour; // transmitted red, green, blue of the pure stain, 8-bit scale
};

double opticalDensity(double value)
{
    return -std::log10(std::max(1.0, value) / 256.0);
}

// Per stain, the amount at every voxel of an extent.x x extent.y field.
std::vector<std::vector<double>> makeAmounts(Nuvek::Vector const& extent, bool withChromogen)
{
    struct Nucleus
    {
        double x, y, radius;
        bool marked;
    };
    std::vector<Nucleus> const nuclei{{12, 10, 6, false}, {34, 18, 7, true},  {58, 9, 5, false},
                                      {78, 24, 6, true},  {20, 40, 8, false}, {50, 44, 6, true},
                                      {84, 50, 5, false}, {8, 56, 4, false},  {66, 30, 4, false}};
    std::size_t const size = static_cast<std::size_t>(extent.x * extent.y);
    std::vector<std::vector<double>> amounts(3, std::vector<double>(size, 0.0));
    for (long long y = 0; y < extent.y; ++y)
        for (long long x = 0; x < extent.x; ++x)
        {
            std::size_t const i = static_cast<std::size_t>(y * extent.x + x);
            // Counterstain: a smooth stroma pattern with a gap (a lumen) in the middle.
            double const lumen = std::hypot(x - 46.0, y - 30.0) < 7.0 ? 0.0 : 1.0;
            amounts[1][i] = lumen * (0.35 + 0.2 * std::sin(x * 0.21) * std::cos(y * 0.17));
            for (Nucleus const& nucleus : nuclei)
            {
                double const distance = std::hypot(x - nucleus.x, y - nucleus.y);
                if (distance >= nucleus.radius)
                    continue;
                double const core = 1.0 - 0.4 * distance / nucleus.radius;
                amounts[0][i] = 0.9 * core;
                amounts[1][i] *= 0.3;
                if (withChromogen && nucleus.marked)
                    amounts[2][i] = 0.7 * core;
            }
        }
    return amounts;
}

// The RGB image a scanner would see: absorbances add per channel, then 8-bit rounding.
std::vector<double> makeImage(std::vector<std::vector<double>> const& amounts, std::vector<Stain> const& stains)
{
    std::size_t const size = amounts[0].size();
    std::vector<double> rgb(3 * size);
    for (std::size_t c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < size; ++i)
        {
            double density = 0.0;
            for (std::size_t k = 0; k < stains.size(); ++k)
                density += amounts[k][i] * opticalDensity(stains[k].colour[c]);
            rgb[c * size + i] = std::min(255.0, std::round(256.0 * std::pow(10.0, -density)));
        }
    return rgb;
}

void unmixAndReport(Nuvek::Vector const& extent, std::vector<Stain> const& stains,
                    std::vector<std::vector<double>> const& amounts)
{
    std::vector<std::string> const channels{"Red", "Green", "Blue"};
    Nuvek::MemoryImage image(extent, 3, makeImage(amounts, stains));
    image.setChannelNames(channels);
    image.setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
    Nuvek::ChannelBank bank(&image);

    Matrix colours;
    for (Stain const& stain : stains)
        colours.push_back(stain.colour);
    Matrix const matrix = Nuvek::ColorUnmixingFilter::computeMatrixFromColors(colours);

    Nuvek::Box const box(extent);
    std::printf("%-13s %28s   %s\n", "stain", "weights (R, G, B)", "mean |error| of the amount, max |error|");
    std::vector<std::vector<double>> outputs;
    for (std::size_t k = 0; k < stains.size(); ++k)
    {
        Nuvek::ColorUnmixingFilter filter(&bank, channels);
        filter.reinit(matrix[k]);
        std::vector<double> out(static_cast<std::size_t>(box.getSize()));
        filter.openRegion(out.data(), 0, box);

        // The filter gives 1 - 10^-d, where d is the stain's amount times the length of its
        // optical-density vector (the matrix works on unit-length densities).
        double length = 0.0;
        for (double value : stains[k].colour)
            length += opticalDensity(value) * opticalDensity(value);
        length = std::sqrt(length);
        double sumError = 0.0, maxError = 0.0;
        for (std::size_t i = 0; i < out.size(); ++i)
        {
            double const recovered = out[i] >= 1.0 ? INFINITY : -std::log10(1.0 - out[i]) / length;
            double const error = std::fabs(recovered - amounts[k][i]);
            sumError += error;
            maxError = std::max(maxError, error);
        }
        std::printf("%-13s (%7.3f, %7.3f, %7.3f)   %.4f, %.4f\n", stains[k].name.c_str(), matrix[k][0], matrix[k][1],
                    matrix[k][2], sumError / static_cast<double>(out.size()), maxError);
        outputs.push_back(std::move(out));
    }

    // Every third column and fifth row of each output: '#' above 0.5, '+' above 0.15, '.' below.
    std::printf("\n");
    for (std::size_t k = 0; k < stains.size(); ++k)
        std::printf("%-*s", static_cast<int>(extent.x / 3 + 2), stains[k].name.c_str());
    std::printf("\n");
    for (long long y = 0; y < extent.y; y += 5)
    {
        for (std::size_t k = 0; k < stains.size(); ++k)
        {
            for (long long x = 0; x < extent.x; x += 3)
            {
                double const value = outputs[k][static_cast<std::size_t>(y * extent.x + x)];
                std::printf("%c", value > 0.5 ? '#' : value > 0.15 ? '+' : '.');
            }
            std::printf("  ");
        }
        std::printf("\n");
    }
}

} // namespace

int main()
{
    Nuvek::Vector const extent(96, 64, 1);
    std::vector<Stain> const stains{
        {"nuclear", {72, 62, 160}}, {"counterstain", {232, 112, 172}}, {"chromogen", {152, 108, 62}}};

    std::printf("Three stains, %lld x %lld voxels, 8-bit RGB\n\n", extent.x, extent.y);
    unmixAndReport(extent, stains, makeAmounts(extent, true));

    std::printf("\nTwo stains (no chromogen): the matrix has two rows of three weights\n\n");
    std::vector<Stain> const twoStains(stains.begin(), stains.begin() + 2);
    std::vector<std::vector<double>> amounts = makeAmounts(extent, false);
    amounts.resize(2);
    unmixAndReport(extent, twoStains, amounts);
    return 0;
}
