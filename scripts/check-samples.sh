#!/usr/bin/env bash
# Checks the readers against independent ones on a folder of image files from elsewhere (scanners,
# microscopes, other software): for every file, `nuvek info` (reader, levels, channels, slices,
# voxel size) and an exact read of every level with `nuvek run --chain clamp --type float32`,
# compared voxel for voxel with OpenSlide's Python binding (slides) or tifffile (everything else).
# Prints one table row per file; exits 1 when any read differs or fails. Not part of the test suite.
#   scripts/check-samples.sh FOLDER        (NUVEK=path/to/nuvek to use another build of the tool)
set -euo pipefail
cd "$(dirname "$0")/.."
folder="${1:?usage: scripts/check-samples.sh FOLDER}"
nuvek="${NUVEK:-build/tools/nuvek/nuvek}"
if [ ! -x "$nuvek" ]; then
    bash scripts/install-deps.sh
    cmake -S . -B build -DPython3_EXECUTABLE=/usr/bin/python3 >/dev/null
    cmake --build build -j "$(nproc)" --target nuvek >/dev/null
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 - "$nuvek" "$folder" "$work" <<'PYTHON'
import math, os, re, subprocess, sys
import numpy as np
import tifffile

nuvek, folder, work = sys.argv[1:4]

def info(path):
    result = subprocess.run([nuvek, "info", path], capture_output=True, text=True)
    if result.returncode != 0:
        return None, result.stderr.strip()
    return result.stdout, ""

def field(text, name):
    match = re.search(r"^%s:\s*(.*)$" % name, text, re.M)
    return match.group(1).strip() if match else "?"

def run_level(path, level):
    """The tool's level as (channels, z, y, x) float32, read back from its output file."""
    out = os.path.join(work, "out.tif")
    if os.path.exists(out):
        os.remove(out)
    result = subprocess.run([nuvek, "run", path, out, "--chain", "clamp", "--type", "float32",
                             "--compression", "none", "--level", str(level), "--quiet"],
                            capture_output=True, text=True)
    if result.returncode != 0:
        raise RuntimeError(result.stderr.strip())
    with tifffile.TiffFile(out) as tiff:
        slices = []
        for page in tiff.pages:
            if page.subfiletype & 1:
                continue
            data = page.asarray()
            if data.ndim == 2:
                data = data[:, :, None]
            slices.append(np.moveaxis(data, 2, 0))
    return np.stack(slices, axis=1)

def openslide_level(path, level):
    import openslide
    slide = openslide.OpenSlide(path)
    wanted = 2.0 ** level
    k = min(range(slide.level_count), key=lambda i: abs(slide.level_downsamples[i] / wanted - 1))
    width, height = slide.level_dimensions[k]
    rgba = np.asarray(slide.read_region((0, 0), k, (width, height)))
    reference = np.moveaxis(rgba[:, :, :3].astype(np.float32), 2, 0)[:, None]
    # Only opaque voxels have one right answer; the others are unpremultiplied by both in their way.
    opaque = np.broadcast_to((rgba[:, :, 3] == 255)[None, None], reference.shape)
    return reference, opaque

def tifffile_level0(path):
    with tifffile.TiffFile(path) as tiff:
        series = tiff.series[0]
        data = series.asarray()
        axes = series.axes
    # To (T, Z, C, S, Y, X), then the first time point, channels and samples as channels.
    for axis in "TZCSYX":
        if axis not in axes:
            data = data[..., None]
            axes += axis
    other = [a for a in axes if a not in "TZCSYX"]
    for a in other:
        data = np.take(data, 0, axis=axes.index(a))
        axes = axes.replace(a, "")
    data = np.transpose(data, [axes.index(a) for a in "TZCSYX"])[0]
    z, c, s, y, x = data.shape
    data = np.transpose(data, (1, 2, 0, 3, 4)).reshape(c * s, z, y, x)
    return data.astype(np.float64), np.ones(data.shape, dtype=bool)

rows = []
failed = False
for name in sorted(os.listdir(folder)):
    path = os.path.join(folder, name)
    if not os.path.isfile(path) or name.lower().endswith((".md", ".txt")):
        continue
    text, error = info(path)
    if text is None:
        rows.append((name, "refused: " + error, "", "", "", "", "", "", ""))
        failed = True
        continue
    reader = field(text, "Reader")
    levels = int(field(text, "Levels"))
    level0 = re.search(r"level 0\s+(\d+) x (\d+) x (\d+) voxels, voxel size (.*)$", text, re.M)
    slices = level0.group(3)
    size = level0.group(4)
    channels = field(text, "Channels")
    value_range = field(text, "Value range")
    slide = reader.startswith("SlideImage")
    checked = []
    for level in (range(levels) if slide else [0]):
        try:
            mine = run_level(path, level).astype(np.float64)
            reference, mask = openslide_level(path, level) if slide else tifffile_level0(path)
            reference = reference.astype(np.float64)
            if mine.shape != reference.shape:
                checked.append("L%d shape %s vs %s" % (level, mine.shape, reference.shape))
                failed = True
                continue
            # float32 output: the reference as float32 too.
            difference = np.abs(mine - reference.astype(np.float32).astype(np.float64))[mask]
            wrong = int(np.count_nonzero(difference))
            checked.append("L%d %s" % (level, "exact" if wrong == 0 else "%d differ (max %g)" % (wrong, difference.max())))
            failed = failed or wrong != 0
        except Exception as exception:
            checked.append("L%d failed: %s" % (level, exception))
            failed = True
    rows.append((name, reader, str(levels), channels, slices, size, value_range, ", ".join(checked),
                 "openslide" if slide else "tifffile"))

header = ("file", "reader", "levels", "channels", "slices", "voxel size (level 0)", "value range",
          "clamp read vs reference", "reference")
print("| " + " | ".join(header) + " |")
print("|" + "---|" * len(header))
for row in rows:
    print("| " + " | ".join(row) + " |")
sys.exit(1 if failed else 0)
PYTHON
