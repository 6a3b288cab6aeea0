// A program outside the project's tree that builds a chain from an expression through the installed
// libNuvekChains and opens a region of it.
#include <nuvek/Nuvek.h>
#include <nuvek/NuvekChains.h>

#include <algorithm>
#include <cstdio>
#include <vector>

int main()
{
    std::vector<double> values(32 * 24);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<double>((i * 37) % 101);
    Nuvek::MemoryImage source(Nuvek::Vector(32, 24, 1), 1, values);

    Nuvek::ChainExpression const expression = Nuvek::parseChainExpression("clamp|gaussian 5 | threshold 50");
    std::unique_ptr<Nuvek::Chain> chain = Nuvek::FilterRegistry::buildChain(expression, &source);
    std::vector<double> out(32 * 24, -1.0);
    chain->output->openRegion(out.data(), 0, Nuvek::Box(Nuvek::Vector(32, 24, 1)));
    bool const ok = Nuvek::toString(expression) == "clamp | gaussian 5 | threshold 50" &&
                    std::all_of(out.begin(), out.end(), [](double v) { return v == 0.0 || v == 1.0; }) &&
                    Nuvek::FilterRegistry::find("gaussian").shareable && chain->shareable;
    std::printf(ok ? "consumer ok\n" : "consumer FAILED\n");
    return ok ? 0 : 1;
}
