"""Lazy image filters for large multi-resolution images.

Every filter is itself an image: it wraps its input(s) and computes only the box and level that
open_region asks for. Vectors are (x, y, z) tuples; boxes are ((min x, min y, min z), (max x, max y,
max z)) with both corners inclusive; open_region returns a float64 array of shape
(channels, z, y, x).

    import numpy as np
    import nuvek

    source = nuvek.MemoryImage(np.random.rand(512, 512))          # (y, x): one channel
    blur = nuvek.GaussianBlurFilter(nuvek.ClampingFilter(source), 5)
    tile = blur.open_region(0, ((0, 0, 0), (255, 255, 0)))          # shape (1, 1, 256, 256)

Filters keep their inputs alive. Library errors raise RuntimeError with the library's message.
nuvek.dask turns a chain into a lazy dask array.
"""

from ._nuvek import (  # noqa: F401
    AdditionFilter,
    BinaryOperatorFilter,
    BoxFilter,
    Chain,
    ChannelBank,
    ChannelFilter,
    ClampingFilter,
    ColorUnmixingFilter,
    ConcatFilter,
    DifferenceFilter,
    DilationFilter,
    DistanceTransformFilter,
    DownsampleFilter,
    ErosionFilter,
    Filter,
    GaussianBlurFilter,
    HarrisEigenvaluesFilter,
    HistogramFilter,
    Image,
    LBPFilter,
    LocalNormalizationFilter,
    MemoryImage,
    PixelProcessingFilter,
    RadialSymmetryFilter,
    RankFilter,
    RGBToHSVFilter,
    SeparableConvolutionFilter,
    SlideImage,
    SobelMagnitudeFilter,
    SobelVectorFilter,
    ThresholdFilter,
    TiffImage,
    UpsampleFilter,
    ValueReplacementFilter,
    VoxelSizeModificationFilter,
    ZarrImage,
    ZStackFilter,
    canonical_chain_expression,
    describe_filters,
    filters,
    is_shareable,
    open_image,
    write_ome_zarr,
    write_pyramidal_tiff,
)


def whole_box(image, level=0):
    """The box of every voxel of image at level."""
    x, y, z = image.get_extent(level)
    return ((0, 0, 0), (x - 1, y - 1, z - 1))
