#include <nuvek/core/Filter.h>
#include <nuvek/core/Lock.h>
#include <nuvek/core/LockGuard.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

using Nuvek::Box;
using Nuvek::Vector;

namespace {

// An application's own image: only the eight pure operations, each with a distinctive answer.
class PlainImage : public Nuvek::Image
{
public:
    explicit PlainImage(int* deletions = nullptr) : deletions(deletions) {}
    ~PlainImage() override
    {
        if (deletions != nullptr)
            ++*deletions;
    }

    Vector getExtent(long long level) const override { return Vector(10 >> level, 20 >> level, 3); }
    long long getNumChannels() const override { return 2; }
    long long getNumLevels() const override { return 4; }
    Nuvek::ValueRange<double> getValueRange() const override { return Nuvek::ValueRange<double>(-1.5, 7.0); }
    Vector getVoxelSize(long long level) const override { return Vector(100 << level, 100 << level, 500); }
    void openRegion(double* out, long long level, Box const& box) override
    {
        for (long long i = 0; i < box.getSize() * getNumChannels(); ++i)
            out[i] = static_cast<double>(level * 1000 + i);
    }
    std::string getChannelName(long long index) override { return "plain " + std::to_string(index); }
    std::uint64_t getHash() override { return hash; }

    std::uint64_t hash = 41;

private:
    int* deletions;
};

// A filter that changes nothing: everything it answers is the base's forwarding.
class PassFilter : public Nuvek::Filter
{
public:
    PassFilter(Nuvek::Image* input, bool ownsInput) : Nuvek::Filter(input, ownsInput) {}
};

} // namespace

TEST(Image, DefaultsOfTheOptionalOperations)
{
    PlainImage image;
    EXPECT_EQ(image.getURL(), "");
    EXPECT_EQ(image.getTileExtent(), Vector(256, 256, 1));
    EXPECT_EQ(image.getSliceName(3), "");
    EXPECT_EQ(image.getId(), "");
    EXPECT_EQ(image.getGroupId(), "");
    EXPECT_EQ(image.getViewableRepresentation(), &image);
}

TEST(Filter, ForwardsEveryOperationToItsInput)
{
    PlainImage image;
    PassFilter filter(&image, false);
    EXPECT_EQ(filter.getExtent(1), Vector(5, 10, 3));
    EXPECT_EQ(filter.getNumChannels(), 2);
    EXPECT_EQ(filter.getNumLevels(), 4);
    EXPECT_EQ(filter.getValueRange().min, -1.5);
    EXPECT_EQ(filter.getValueRange().max, 7.0);
    EXPECT_EQ(filter.getVoxelSize(2), Vector(400, 400, 500));
    EXPECT_EQ(filter.getTileExtent(), Vector(256, 256, 1));
    EXPECT_EQ(filter.getChannelName(1), "plain 1");
    EXPECT_EQ(filter.getViewableRepresentation(), &image);

    Box const box(Vector(-1, -1, 0), Vector(0, 0, 0));
    std::vector<double> values(8);
    filter.openRegion(values.data(), 2, box);
    EXPECT_EQ(values[0], 2000.0);
    EXPECT_EQ(values[7], 2007.0);
}

TEST(Filter, HashFollowsTheInputStamp)
{
    PlainImage image;
    PassFilter inner(&image, false);
    PassFilter outer(&inner, false);
    std::uint64_t const first = outer.getHash();
    EXPECT_EQ(outer.getHash(), first);
    image.hash = 99;
    EXPECT_NE(outer.getHash(), first);
    std::uint64_t const second = outer.getHash();
    EXPECT_EQ(outer.getHash(), second);
}

TEST(Filter, DeletesItsInputOnlyWhenItOwnsIt)
{
    int deletions = 0;
    {
        PlainImage kept(&deletions);
        PassFilter filter(&kept, false);
    }
    EXPECT_EQ(deletions, 1); // only kept's own destructor
    deletions = 0;
    {
        PassFilter outer(new PassFilter(new PlainImage(&deletions), true), true);
    }
    EXPECT_EQ(deletions, 1);
}

TEST(Filter, NullInputIsRejected)
{
    try
    {
        PassFilter filter(nullptr, true);
        FAIL() << "a filter without input was built";
    }
    catch (std::runtime_error const& error)
    {
        EXPECT_STREQ(error.what(), "Cannot instantiate a filter without an input image.");
    }
}

TEST(LockGuard, SerialisesWorkOnOneLock)
{
    Nuvek::Lock lock;
    long long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&]() {
            for (int i = 0; i < 20000; ++i)
            {
                Nuvek::LockGuard guard(lock);
                ++counter;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 80000);
}
