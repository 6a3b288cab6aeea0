#include "OutputWriter.h"

#include <nuvek/io/ImageOpener.h>
#include <nuvek/io/PyramidalTiffWriter.h>

namespace NuvekTool {

bool writeOutput(Nuvek::Image& image, std::string const& path, OutputSettings const& settings,
                 std::function<void(long long, long long, long long)> const& progress, std::atomic<bool> const& cancel)
{
    Nuvek::PyramidalTiffOptions options;
    options.tileSize = settings.tileSize;
    options.threads = settings.threads;
    options.compression = settings.compression;
    options.sampleType = settings.type;
    long long const voxels = image.getExtent(0).prod() * image.getNumChannels();
    options.progress = [&](long long done, long long total) {
        // Level 0 holds about three quarters of all tiles; the voxel count is an estimate.
        progress(done, total, total > 0 ? voxels * done / total : 0);
        return !cancel.load();
    };
    return Nuvek::writePyramidalTiff(image, path, options);
}

} // namespace NuvekTool
