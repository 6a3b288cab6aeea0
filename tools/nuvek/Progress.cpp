#include "Progress.h"

#include <unistd.h>

namespace NuvekTool {

Progress::Progress(std::string label, bool quiet)
    : label(std::move(label)), quiet(quiet), terminal(isatty(fileno(stderr)) != 0),
      start(std::chrono::steady_clock::now()), lastDraw(start)
{
}

double Progress::elapsedSeconds() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void Progress::update(long long tilesDone, long long tilesTotal, long long voxelsDone)
{
    if (quiet || !terminal)
        return;
    std::lock_guard<std::mutex> guard(mutex);
    auto const now = std::chrono::steady_clock::now();
    if (tilesDone < tilesTotal && now - lastDraw < std::chrono::milliseconds(100))
        return;
    lastDraw = now;
    double const seconds = elapsedSeconds();
    double const fraction = tilesTotal > 0 ? static_cast<double>(tilesDone) / static_cast<double>(tilesTotal) : 1.0;
    int const width = 30;
    int const filled = static_cast<int>(fraction * width);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(width, '.');
    double const rate = seconds > 0 ? static_cast<double>(voxelsDone) / seconds / 1e6 : 0.0;
    double const left = fraction > 0 ? seconds * (1.0 - fraction) / fraction : 0.0;
    std::fprintf(stderr, "\r%s [%s] %lld/%lld tiles  %.1f Mvoxel/s  %.0f s left   ", label.c_str(), bar.c_str(),
                 tilesDone, tilesTotal, rate, left);
    std::fflush(stderr);
    drawn = true;
}

void Progress::finish(long long voxels)
{
    if (quiet)
        return;
    std::lock_guard<std::mutex> guard(mutex);
    double const seconds = elapsedSeconds();
    if (drawn)
        std::fprintf(stderr, "\n");
    std::fprintf(stderr, "%s: %lld voxels in %.2f s (%.1f Mvoxel/s)\n", label.c_str(), voxels, seconds,
                 seconds > 0 ? static_cast<double>(voxels) / seconds / 1e6 : 0.0);
}

} // namespace NuvekTool
