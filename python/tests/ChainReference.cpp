// Computes a chain over level-0 values given in a raw file, in C++ alone, for the Python tests to
// compare the bindings with:
//   nuvek_chain_reference EXPRESSION INPUT X Y Z CHANNELS LEVEL MINX MINY MINZ MAXX MAXY MAXZ OUTPUT
// INPUT holds X*Y*Z*CHANNELS doubles in region-buffer layout; OUTPUT receives the region of the box
// at LEVEL, channels*box size doubles, in the same layout.
#include <nuvek/NuvekChains.h>
#include <nuvek/core/MemoryImage.h>

#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    if (argc != 15)
    {
        std::fprintf(stderr, "usage: nuvek_chain_reference EXPRESSION INPUT X Y Z CHANNELS LEVEL MINX MINY MINZ "
                             "MAXX MAXY MAXZ OUTPUT\n");
        return 2;
    }
    try
    {
        auto number = [argv](int index) { return std::stoll(argv[index]); };
        Nuvek::Vector const extent(number(3), number(4), number(5));
        long long const channels = number(6);
        long long const level = number(7);
        Nuvek::Box const box(Nuvek::Vector(number(8), number(9), number(10)),
                             Nuvek::Vector(number(11), number(12), number(13)));

        std::vector<double> values(static_cast<std::size_t>(extent.prod() * channels));
        std::ifstream input(argv[2], std::ios::binary);
        input.read(reinterpret_cast<char*>(values.data()),
                   static_cast<std::streamsize>(values.size() * sizeof(double)));
        if (!input)
            throw std::runtime_error(std::string("cannot read ") + argv[2]);

        Nuvek::MemoryImage source(extent, channels, std::move(values));
        auto chain = Nuvek::FilterRegistry::buildChain(Nuvek::parseChainExpression(argv[1]), &source);
        std::vector<double> out(static_cast<std::size_t>(box.getSize() * chain->output->getNumChannels()));
        chain->output->openRegion(out.data(), level, box);

        std::ofstream output(argv[14], std::ios::binary);
        output.write(reinterpret_cast<char const*>(out.data()),
                     static_cast<std::streamsize>(out.size() * sizeof(double)));
        if (!output)
            throw std::runtime_error(std::string("cannot write ") + argv[14]);
        return 0;
    }
    catch (std::exception const& error)
    {
        std::fprintf(stderr, "nuvek_chain_reference: %s\n", error.what());
        return 1;
    }
}
