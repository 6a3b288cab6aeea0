// A program outside the project's tree that builds a chain from an expression through the installed
// libNuvekChains and compares it with the same filters built by hand.
#include <nuvek/Nuvek.h>
#include <nuvek/NuvekChains.h>

#include <cstdio>
#include <cstring>
#include <vector>

int main()
{
    std::vector<double> values(32 * 24);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<double>((i * 37) % 101);
    Nuvek::MemoryImage source(Nuvek::Vector(32, 24, 1), 1, values);

    Nuvek::ChainExpression const expression = Nuvek::parseChainExpression("clamp|gaussian 5 | threshold 50");
    std::unique_ptr<Nuvek::Chain> chain = Nuvek::FilterRegistry::buildChain(expression, &source);
    Nuvek::ClampingFilter clamp(&source, false);
    Nuvek::GaussianBlurFilter blur(&clamp, 5, false);
    Nuvek::ThresholdFilter threshold(&blur, 50.0, 0.0, 1.0, false);

    Nuvek::Box const box(Nuvek::Vector(-2, -2, 0), Nuvek::Vector(33, 25, 0));
    std::vector<double> ours(static_cast<std::size_t>(box.getSize())), theirs(ours.size());
    chain->output->openRegion(ours.data(), 0, box);
    threshold.openRegion(theirs.data(), 0, box);
    bool const ok = Nuvek::toString(expression) == "clamp | gaussian 5 | threshold 50" &&
                    std::memcmp(ours.data(), theirs.data(), ours.size() * sizeof(double)) == 0 &&
                    Nuvek::FilterRegistry::find("gaussian").shareable && chain->shareable;
    std::printf(ok ? "consumer ok\n" : "consumer FAILED\n");
    return ok ? 0 : 1;
}
