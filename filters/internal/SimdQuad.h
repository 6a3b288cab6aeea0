#pragma once

namespace Nuvek {

/// Four doubles that the compiler keeps in one AVX register, or two SSE registers on processors
/// without AVX2. Every operation on them is the IEEE operation on each of the four lanes.
typedef double Quad __attribute__((vector_size(4 * sizeof(double))));

/// The same, read from or written to any double in memory (aligned to a double, not to the vector).
typedef double UnalignedQuad __attribute__((vector_size(4 * sizeof(double)), aligned(alignof(double)), may_alias));

} // namespace Nuvek
