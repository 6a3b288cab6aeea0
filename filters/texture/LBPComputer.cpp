#include <nuvek/filters/texture/LBPComputer.h>

#include <stdexcept>

namespace Nuvek {

LBPComputer::LBPComputer() : uniformTable(256, 0)
{
    for (long long code = 0; code < 256; ++code)
        uniformTable[static_cast<std::size_t>(code)] = getUniformBinaryPattern(code);
}

LBPComputer::~LBPComputer() = default;

long long LBPComputer::getUniformBinaryPattern(long long const& code)
{
    long long transitions = 0;
    long long ones = 0;
    for (int i = 0; i < 8; ++i)
    {
        long long const bit = (code >> i) & 1;
        ones += bit;
        // Seven neighbouring pairs: the pair of bit 7 and bit 0 is not counted.
        if (i < 7 && bit != ((code >> (i + 1)) & 1))
            ++transitions;
    }
    return transitions <= 2 ? ones : 9;
}

long long LBPComputer::computeLBP(double centre, std::vector<double> const& neighbours) const
{
    if (neighbours.size() < 8)
        throw std::runtime_error("A local binary pattern needs eight neighbour values.");
    long long code = 0;
    for (int i = 0; i < 8; ++i)
        if (neighbours[static_cast<std::size_t>(i)] >= centre)
            code |= 1LL << i;
    return code;
}

long long LBPComputer::computeUniformLBP(double centre, std::vector<double> const& neighbours) const
{
    return uniformTable[static_cast<std::size_t>(computeLBP(centre, neighbours))];
}

} // namespace Nuvek
