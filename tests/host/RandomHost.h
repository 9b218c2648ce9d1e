#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/TestSeams.h"
#include "tests/support/PlainSocket.h"

/// A host that does something by chance wherever its code runs. A step is one thing done.
class RandomHost
{
public:
    explicit RandomHost(unsigned seed) : m_Generator(seed) {}
    virtual ~RandomHost() = default;

    /// Takes so many steps at least, each in a round of the host's loop, and looks at what is left. @return how many
    long Run(long steps)
    {
        while (m_Steps < steps) {
            try {
                Act();
                DispatchRound();
                DispatchRound();
            } catch (int) {
            } catch (CException* exception) {
                exception->Delete();
            }
        }
        m_Settled = true;
        tavronet::ClearFaults();
        tavronet::PumpUntilQuiet();
        ExpectWhole();
        return m_Steps;
    }

    // Choices that the seed repeats, as far as the system repeats its part
    unsigned Below(std::size_t limit) { return limit > 0 ? static_cast<unsigned>(m_Generator() % limit) : 0; }
    bool OneIn(unsigned count) { return !m_Settled && Below(count) == 0; }
    auto& Pick(auto& list) { return list[Below(std::size(list))]; }

protected:
    virtual void Act() = 0; // what the host does of its own accord
    virtual void ExpectWhole() = 0;

    /// Runs `step`, now and then, and not too many of them inside each other.
    void Perhaps(auto step)
    {
        constexpr int kMaxDepth = 5;
        if (m_Settled || m_Depth == kMaxDepth || OneIn(2))
            return;
        const auto leave = [](int* depth) { --*depth; };
        const std::unique_ptr<int, decltype(leave)> entered(&++m_Depth, leave);
        ++m_Steps;
        step();
    }

    /// One of the ways to pump and to leave.
    void PumpOrThrow()
    {
        const auto quit = [](void*) { QuitMessageLoop(0); };
        switch (Below(8)) {
        case 0: throw 7;
        case 1: tavronet::ThrowMemoryException();
        case 2: return DispatchPending();
        case 3:
            return InjectFault(tavronet::FaultPoint::Allocate, INVALID_SOCKET, 8, static_cast<int>(Below(9)));
        case 4:
            PostThreadCall(CurrentThreadQueue(), quit, nullptr);
            RunMessageLoop();
            return PostThreadCall(CurrentThreadQueue(), quit,
                                  nullptr); // what the loop around it may have lost
        default: DispatchRound();
        }
    }

    bool m_Settled = false; // does nothing any more

private:
    std::minstd_rand m_Generator;
    int m_Depth = 0;
    long m_Steps = 0;
};

/// Lets hosts run, each with a seed of its own, until they have taken `steps` steps together, or as many as
/// TAVRONET_HOST_STEPS says. TAVRONET_HOST_SEED is the first seed; the others follow it.
template <typename Host>
void RunHosts(long steps, long stepsOfEach)
{
    const auto asked = [](const char* name, long otherwise) {
        const char* const text = std::getenv(name);
        return text != nullptr ? std::atol(text) : otherwise;
    };
    using Files = std::filesystem::directory_iterator;
    const auto descriptors = [] { return std::ranges::distance(Files("/proc/self/fd")); };
    CurrentThreadQueue();
    const auto living = tavronet::CountLivingObjects();
    const auto open = descriptors();
    long seed = asked("TAVRONET_HOST_SEED", std::random_device()() % 1000000);
    for (long left = asked("TAVRONET_HOST_STEPS", steps); left > 0 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        std::printf("seed %ld, %ld steps left\n", seed, left); // the last one is that of a crash or a hang
        std::fflush(stdout);
        alarm(60);
        left -= Host(static_cast<unsigned>(seed)).Run(stepsOfEach);
        alarm(0);
        EXPECT_EQ(tavronet::CountLivingObjects(), living);
        EXPECT_TRUE(tavronet::PumpUntil([&] { return descriptors() == open; })) << "a look-up may end late";
    }
}
