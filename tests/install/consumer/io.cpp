// A program outside the project's tree that writes and reads a TIFF through the installed libNuvekIO.
#include <nuvek/Nuvek.h>
#include <nuvek/NuvekIO.h>

#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    std::string const path = argv[1];
    std::vector<double> values(64 * 48 * 3);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<double>(i % 251);
    Nuvek::MemoryImage image(Nuvek::Vector(64, 48, 1), 3, values);
    image.setValueRange(Nuvek::ValueRange<double>(0.0, 255.0));
    Nuvek::PyramidalTiffOptions options;
    options.tileSize = 16;
    bool const written = Nuvek::writePyramidalTiff(image, path, options);

    Nuvek::TiffImage file(path);
    Nuvek::ThresholdFilter threshold(&file, 100.0, 0.0, 1.0, false);
    Nuvek::Box const box(file.getExtent(0));
    std::vector<double> out(static_cast<std::size_t>(box.getSize() * 3));
    threshold.openRegion(out.data(), 0, box);
    bool ok = written && file.getNumLevels() == 3 && file.getChannelName(2) == "Blue";
    for (std::size_t i = 0; i < values.size(); ++i)
        ok = ok && out[i] == (values[i] >= 100.0 ? 1.0 : 0.0);
    Nuvek::SlideImage slide(path);
    ok = ok && slide.getExtent(0).x == 64;
    std::printf(ok ? "consumer ok\n" : "consumer FAILED\n");
    return ok ? 0 : 1;
}
