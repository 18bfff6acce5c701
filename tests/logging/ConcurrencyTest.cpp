#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "logging/FileDestination.h"
#include "logging/LogCenter.h"
#include "platform/DispatchQueue.h"
#include "support/TestEnvironment.h"

namespace morvane::logging {
namespace {

// Many threads log at once into two destinations that share one file. Every line must arrive
// whole, exactly once per destination, and in each thread's order within a destination.
TEST(Concurrency, ManyThreadsLoseNoLineAndInterleaveNone) {
    morvane::test::TempHome home;
    const auto file = home.root() / "shared.log";
    constexpr int kThreads = 8;
    constexpr int kLines = 300;
    // Long lines make a torn or interleaved write show up as a mangled line.
    const std::string filler(300, 'x');

    std::vector<std::shared_ptr<FileDestination>> destinations;
    for (const char* name : {"A", "B"}) {
        auto destination = std::make_shared<FileDestination>(file);
        destination->setFormat(std::string(name) + " $M");
        ASSERT_TRUE(LogCenter::addDestination(destination));
        destinations.push_back(destination);
    }

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &filler] {
            for (int i = 0; i < kLines; ++i) {
                LogCenter::info("t" + std::to_string(t) + " " + std::to_string(i) + " " + filler);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const auto& destination : destinations) {
        destination->queue()->waitUntilIdle();
    }
    LogCenter::removeAllDestinations();

    std::istringstream lines(morvane::test::readFile(file));
    std::map<std::string, int> nextIndex;  // "A t3" -> next line expected from thread 3 via A
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        ++count;
        std::istringstream fields(line);
        std::string destination, thread, rest;
        int index = -1;
        fields >> destination >> thread >> index >> rest;
        ASSERT_TRUE(destination == "A" || destination == "B") << line.substr(0, 40);
        ASSERT_EQ(rest, filler) << line.substr(0, 40);
        ASSERT_TRUE(fields.eof()) << line.substr(0, 40);
        int& expected = nextIndex[destination + " " + thread];
        ASSERT_EQ(index, expected) << "out of order: " << line.substr(0, 40);
        ++expected;
    }
    EXPECT_EQ(count, 2 * kThreads * kLines);
    EXPECT_EQ(nextIndex.size(), 2u * kThreads);
}

}  // namespace
}  // namespace morvane::logging
