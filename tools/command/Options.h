#pragma once

#include <tavronet/platform/Types.h>

#include <optional>
#include <string>

namespace command
{

class Output;

/// What the command line said.
struct Options
{
    int (*run)(const Options& options, const Output& output, HANDLE interrupt) = nullptr;

    bool json = false;
    bool classic = false;
    double timeoutSeconds = 5; // of the search
    std::string localAddress;  // empty: any
    std::string url;           // of a description; empty: search

    // discover
    bool all = false;

    // add, delete and their ranges
    unsigned port = 0;         // the first
    unsigned count = 1;        // of a range
    unsigned internalPort = 0; // 0: the same
    std::string client;        // empty: this machine
    std::string protocol = "TCP";
    std::string description = "tavronet";
    unsigned leaseSeconds = 0;

    // watch
    double watchSeconds = 0; // 0: until interrupted
    double intervalSeconds = 5;

    [[nodiscard]] DWORD TimeoutMs() const { return static_cast<DWORD>(timeoutSeconds * 1000); }
};

/// @return nothing when there is no command to run: help was asked for, or the arguments are wrong (exit code
///         2).
std::optional<Options> ParseOptions(int argc, char** argv, int& exitCode);

} // namespace command
