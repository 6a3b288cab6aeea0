#include "Preview.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

namespace NuvekTool {

namespace {

void writePng(std::string const& path, long long width, long long height, int channels,
              std::vector<unsigned char> const& pixels)
{
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"), &std::fclose);
    if (!file)
        throw std::runtime_error("Cannot write the preview " + path + ".");
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr)
    {
        png_destroy_write_struct(&png, nullptr);
        throw std::runtime_error("Cannot write the preview " + path + ": out of memory.");
    }
    if (setjmp(png_jmpbuf(png)))
    {
        png_destroy_write_struct(&png, &info);
        throw std::runtime_error("Cannot write the preview " + path + ".");
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                 channels == 1 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (long long y = 0; y < height; ++y)
        png_write_row(png, pixels.data() + y * width * channels);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
}

} // namespace

long long writePreview(Nuvek::Image& image, std::string const& path, long long maxSize)
{
    long long level = 0;
    while (level + 1 < image.getNumLevels())
    {
        Nuvek::Vector const extent = image.getExtent(level);
        if (extent.x <= maxSize && extent.y <= maxSize)
            break;
        ++level;
    }
    Nuvek::Vector const extent = image.getExtent(level);
    // A one-level image larger than the preview is sampled with a stride instead.
    long long const step = std::max<long long>(1, (std::max(extent.x, extent.y) + maxSize - 1) / maxSize);
    long long const width = (extent.x + step - 1) / step;
    long long const height = (extent.y + step - 1) / step;
    int const channels = image.getNumChannels() >= 3 ? 3 : 1;

    std::vector<double> shown(static_cast<std::size_t>(width * height * channels));
    long long const rowsPerRead = 64;
    for (long long y0 = 0; y0 < height; y0 += rowsPerRead)
    {
        long long const y1 = std::min(height, y0 + rowsPerRead);
        Nuvek::Box const box(Nuvek::Vector(0, y0 * step, 0), Nuvek::Vector(extent.x - 1, (y1 - 1) * step, 0));
        std::vector<double> values(static_cast<std::size_t>(box.getSize() * image.getNumChannels()));
        image.openRegion(values.data(), level, box);
        for (long long y = y0; y < y1; ++y)
            for (long long x = 0; x < width; ++x)
                for (int c = 0; c < channels; ++c)
                    shown[static_cast<std::size_t>((y * width + x) * channels + c)] =
                        values[static_cast<std::size_t>(c * box.getSize() + (y - y0) * step * extent.x + x * step)];
    }

    std::vector<double> finite;
    for (double value : shown)
        if (std::isfinite(value))
            finite.push_back(value);
    double low = 0.0, high = 1.0;
    Nuvek::ValueRange<double> const range = image.getValueRange();
    if (channels == 3 && std::isfinite(range.min) && std::isfinite(range.max) && range.max > range.min)
    {
        // Colour images keep their colours: their own range, not a stretch per picture.
        low = range.min;
        high = range.max;
    }
    else if (!finite.empty())
    {
        auto percentile = [&finite](double p) {
            auto const at = finite.begin() + static_cast<std::ptrdiff_t>(p * static_cast<double>(finite.size() - 1));
            std::nth_element(finite.begin(), at, finite.end());
            return *at;
        };
        low = percentile(0.005);
        high = percentile(0.995);
        if (!(high > low))
        {
            // A flat image: show its value within the range it claims.
            low = std::min(range.min, range.max);
            high = std::max(range.min, range.max);
            if (!(high > low))
                high = low + 1.0;
        }
    }
    std::vector<unsigned char> pixels(shown.size());
    for (std::size_t i = 0; i < shown.size(); ++i)
    {
        double const scaled = std::isfinite(shown[i]) ? (shown[i] - low) / (high - low) * 255.0 : 0.0;
        pixels[i] = static_cast<unsigned char>(std::clamp(std::floor(scaled + 0.5), 0.0, 255.0));
    }
    writePng(path, width, height, channels, pixels);
    return level;
}

} // namespace NuvekTool
