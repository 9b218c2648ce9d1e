#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/TestSeams.h"
#include "tests/support/PlainSocket.h"

/// A host that does something by chance wherever its code runs. A step is one thing done.
class RandomHost
{
public:
    explicit RandomHost(unsigned seed) : m_Generator(seed) {}
    long Steps() const { return m_Steps; }

    // Choices that the seed repeats, as far as the system repeats its part
    unsigned Below(std::size_t limit) { return limit > 0 ? static_cast<unsigned>(m_Generator() % limit) : 0; }
    bool OneIn(unsigned count) { return !m_Settled && Below(count) == 0; }
    template <typename List>
    auto& Pick(List& list)
    {
        return list[Below(std::size(list))];
    }

protected:
    bool Settled() const { return m_Settled; }

    /// Takes steps, each in a round of the host's loop, until there are enough.
    template <typename Step>
    void TakeSteps(long count, Step step)
    {
        const auto round = [&] {
            step();
            DispatchRound();
            DispatchRound();
        };
        while (Steps() < count) {
            try {
                round();
            } catch (int) {
            } catch (CException* exception) {
                exception->Delete();
            }
        }
        m_Settled = true;
        tavronet::ClearFaults();
        tavronet::PumpUntilQuiet();
    }

    /// Runs `step`, now and then, and not too many of them inside each other.
    template <typename Step>
    void Perhaps(Step step)
    {
        constexpr int kMaxDepth = 5;
        if (m_Settled || m_Depth == kMaxDepth || OneIn(2))
            return;
        struct Deeper
        {
            int& depth;
            ~Deeper() { --depth; }
        } const deeper{++m_Depth};
        ++m_Steps;
        step();
    }

    /// One of the ways to pump and to leave.
    void PumpOrThrow()
    {
        const auto postQuit = [] {
            PostThreadCall(
                CurrentThreadQueue(), [](void*) { QuitMessageLoop(0); }, nullptr);
        };
        switch (Below(8)) {
        case 0: throw 7;
        case 1: tavronet::ThrowMemoryException();
        case 2: return DispatchPending();
        case 3:
            return InjectFault(tavronet::FaultPoint::Allocate, INVALID_SOCKET, 8, static_cast<int>(Below(9)));
        case 4:
            postQuit();
            RunMessageLoop();
            return postQuit(); // for the loop around it, whose quitting it may have taken
        default: DispatchRound();
        }
    }

private:
    std::minstd_rand m_Generator;
    int m_Depth = 0;
    long m_Steps = 0;
    bool m_Settled = false;
};

/// Makes hosts, each with a seed of its own, and lets each run, until all of them have taken `steps` steps, or as
/// many as TAVRONET_HOST_STEPS says. TAVRONET_HOST_SEED is the first seed; the others follow it.
template <typename Host>
void RunHosts(long steps)
{
    const auto asked = [](const char* name, long otherwise) {
        const char* const text = std::getenv(name);
        return text != nullptr ? std::atol(text) : otherwise;
    };
    const auto openDescriptors = [] {
        using Entries = std::filesystem::directory_iterator;
        return std::distance(Entries("/proc/self/fd"), Entries());
    };
    steps = asked("TAVRONET_HOST_STEPS", steps);
    auto seed = static_cast<unsigned>(asked("TAVRONET_HOST_SEED", std::random_device()() % 1000000));
    CurrentThreadQueue();
    const auto living = tavronet::CountLivingObjects();
    const auto open = openDescriptors();
    for (long taken = 0; taken < steps && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::printf("seed %u after %ld steps\n", seed, taken); // the last one is that of a crash or a hang
        std::fflush(stdout);
        alarm(60);
        {
            Host host(seed);
            host.Run();
            taken += host.Steps();
        }
        alarm(0);
        EXPECT_EQ(tavronet::CountLivingObjects(), living);
        EXPECT_EQ(openDescriptors(), open);
    }
}
