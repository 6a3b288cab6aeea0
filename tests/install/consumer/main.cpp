// A program outside the project's tree that uses the installed headers and libraries.
#include <nuvek/Nuvek.h>

#include <cstdio>
#include <vector>

namespace {

// An application's own image: only the eight required operations.
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
        double* value = out;
        for (long long z = box.min.z; z <= box.max.z; ++z)
            for (long long y = box.min.y; y <= box.max.y; ++y)
                for (long long x = box.min.x; x <= box.max.x; ++x)
                    *value++ = (x >= 0 && x < 8 && y >= 0 && y < 8) ? static_cast<double>(x) : -1.0;
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
    Nuvek::Box const box(Nuvek::Vector(-2, 0, 0), Nuvek::Vector(9, 0, 0));
    std::vector<double> out(static_cast<std::size_t>(box.getSize()));
    threshold.openRegion(out.data(), 0, box);
    std::vector<double> const expected = {0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1};

    Nuvek::MemoryImage memory(Nuvek::Vector(4, 4, 1), 1);
    bool const ok = out == expected && memory.getNumLevels() == 3;
    std::printf(ok ? "consumer ok\n" : "consumer FAILED\n");
    return ok ? 0 : 1;
}
