#pragma once

#include <nuvek/io/PyramidalTiffWriter.h>

#include <vector>

namespace Nuvek {

/// How the pyramid writers store a tile: tileSize x tileSize voxels of `samples` interleaved samples
/// of `type`, integer samples mapped from ranges[first channel + sample].
struct TileLayout
{
    TiffSampleType type = TiffSampleType::UInt8;
    long long tileSize = 256;
    long long samples = 1;
    std::vector<ValueRange<double>> ranges;

    long long bytesPerSample() const
    {
        return type == TiffSampleType::UInt8 ? 1 : (type == TiffSampleType::UInt16 ? 2 : 4);
    }
    long long tileBytes() const { return tileSize * tileSize * samples * bytesPerSample(); }
};

/// The extent of one level of a pyramid and its number of tiles along x and y.
struct PyramidLevel
{
    long long width;
    long long height;
    long long tilesX;
    long long tilesY;
};

/// The levels the pyramid writers store for a level-0 extent: each halves x and y of the one
/// above, rounded down, down to the first that fits in one tile (or whose x or y extent would fall
/// below 1 by halving again).
std::vector<PyramidLevel> pyramidLevels(Vector const& extent, long long tileSize);

/// Interleaves channels firstChannel to firstChannel + samples - 1 of a planar region of doubles
/// (width x height voxels per channel) into the tile, stored as the writers document it: integers
/// as round((v - min) / (max - min) * M) with halves up, clamped to 0..M, NaN as 0, counted in
/// statistics; floats converted unscaled (finite values beyond float's range become infinities).
/// The rest of the tile is 0. Integer samples are converted a row at a time by code the compiler
/// vectorises; `plain` asks for the reference loop, one voxel at a time, which gives the same bits
/// and statistics. A tile can be stored in bands of rows: with firstRow > 0 the region's rows go to
/// the tile's rows from firstRow on and nothing else of the tile changes (the band at row 0 clears it).
void storeRegion(TileLayout const& layout, double const* region, long long firstChannel, long long width,
                 long long height, unsigned char* tile, SampleStatistics& statistics, bool plain = false,
                 long long firstRow = 0);

/// Fills width x height voxels of the tile with the 2 x 2 means of the level above, added row by
/// row and divided by 4 (integers rounded halves up). children[j * 2 + i] is the decoded tile
/// (2 tx + i, 2 ty + j) of that level, or empty beyond its edge. The rest of the tile is 0.
void averageChildren(TileLayout const& layout, std::vector<unsigned char> const* children, long long width,
                     long long height, unsigned char* tile);

/// Fills the voxels of the tile that child (i, j) of the level above covers (i, j in 0..1; x in
/// i * tileSize / 2 up to width, y likewise) with their 2 x 2 means, as averageChildren does, so
/// that a tile can be made from its children one at a time as they come.
void averageQuarter(TileLayout const& layout, unsigned char const* child, long long i, long long j, long long width,
                    long long height, unsigned char* tile);

/// Adds the counts of part to total.
void addStatistics(SampleStatistics& total, SampleStatistics const& part);

} // namespace Nuvek
