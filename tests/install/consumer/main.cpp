// A program outside the project's tree that uses the installed headers and libraries, with an image
// of its own that has only the required operations.
#include <nuvek/Nuvek.h>

#include <cstdio>
#include <vector>

namespace {

class Ramp : public Nuvek::Image
{
public:
    Nuvek::Vector getExtent(long long level) const override { return Nuvek::Vector(8 >> level, 8 >> level, 1); }
    long long getNumChannels() const override { return 1; }
    long long getNumLevels() const override { return 3; }
    Nuvek::ValueRange<double> getValueRange() const override { return Nuvek::ValueRange<double>(0, 7); }
    Nuvek::Vector getVoxelSize(long long) const override { return Nuvek::Vector(1, 1, 1); }
    void openRegion(double* out, long long, Nuvek::Box const& box) override
    {
        for (long long i = 0; i < box.getSize(); ++i)
        {
            long long const x = box.min.x + i % box.getExtent().x;
            long long const y = box.min.y + i / box.getExtent().x % box.getExtent().y;
            out[i] = (x >= 0 && x < 8 && y >= 0 && y < 8) ? static_cast<double>(x) : -1.0;
        }
    }
    std::string getChannelName(long long) override { return "ramp"; }
    std::uint64_t getHash() override { return 1; }
};

} // namespace

int main()
{
    Ramp ramp;
    Nuvek::ClampingFilter clamp(&ramp, false);
    Nuvek::ThresholdFilter threshold(&clamp, 4.0, 0.0, 1.0, false);
    std::vector<double> out(12);
    threshold.openRegion(out.data(), 0, Nuvek::Box(Nuvek::Vector(-2, 0, 0), Nuvek::Vector(9, 0, 0)));
    bool const ok = out == std::vector<double>{0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1} &&
                    Nuvek::MemoryImage(Nuvek::Vector(4, 4, 1), 1).getNumLevels() == 3;
    std::printf(ok ? "consumer ok\n" : "consumer FAILED\n");
    return ok ? 0 : 1;
}
