#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

namespace NuvekTool {

/// \brief Reports tiles done on stderr: a bar redrawn in place when stderr is a terminal (tiles,
/// Mvoxel/s, time left), else one summary line at the end; nothing when quiet.
class Progress
{
public:
    Progress(std::string label, bool quiet);

    /// Called from any thread.
    void update(long long tilesDone, long long tilesTotal, long long voxelsDone);
    /// Ends the bar and prints the summary line.
    void finish(long long voxels);

    double elapsedSeconds() const;

private:
    std::string label;
    bool quiet;
    bool terminal;
    std::chrono::steady_clock::time_point start;
    std::chrono::steady_clock::time_point lastDraw;
    std::mutex mutex;
    bool drawn = false;
};

} // namespace NuvekTool
