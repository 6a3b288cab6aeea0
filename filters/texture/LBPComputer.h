#pragma once

#include <vector>

namespace Nuvek {

/// \brief Local binary pattern codes of a centre value and its eight neighbours, and their
/// rotation-invariant uniform classes 0 .. 9.
///
/// Bit i of a code is set when neighbour i is greater than or equal to the centre (a NaN on either
/// side leaves the bit clear); neighbour 0 is the least significant bit. A code whose eight bits
/// change at most twice between neighbouring bits b0 b1 ... b7 (the pair b7, b0 is not counted) is
/// uniform and its class is its number of set bits, 0 .. 8; every other code is class 9. These are
/// exactly the codes with at most two circular transitions.
///
/// The classes of all 256 codes are tabulated at construction; the object is read-only afterwards and
/// may be used from several threads at once.
class LBPComputer
{
public:
    LBPComputer();
    virtual ~LBPComputer();

    /// The class of the low eight bits of code, computed directly.
    static long long getUniformBinaryPattern(long long const& code);

    /// The 8-bit code; reads the first eight neighbours and throws std::runtime_error when there are
    /// fewer.
    long long computeLBP(double centre, std::vector<double> const& neighbours) const;

    /// The class of the code, from the table.
    virtual long long computeUniformLBP(double centre, std::vector<double> const& neighbours) const;

private:
    std::vector<long long> uniformTable;
};

} // namespace Nuvek
