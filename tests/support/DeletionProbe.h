#pragma once

#include <nuvek/core/Filter.h>

namespace NuvekTest {

/// Counts its own destruction; passes everything else through to the image it wraps, which it does
/// not own.
class DeletionProbe : public Nuvek::Filter
{
public:
    DeletionProbe(Nuvek::Image* image, int& deletions) : Filter(image, false), deletions(deletions) {}
    ~DeletionProbe() override { ++deletions; }

private:
    int& deletions;
};

} // namespace NuvekTest
