#include <cstdio>

#include "Console.h"
#include "EventLog.h"
#include "EventLoop.h"
#include "Gateway.h"
#include "Options.h"

namespace
{

bool OpenLogs(gateway::EventLog& log, const gateway::Options& options)
{
    return (options.log.empty() || log.OpenEvents(options.log)) &&
           (options.logRequests.empty() || log.OpenRequests(options.logRequests));
}

void PrintReady(const gateway::Gateway& gateway)
{
    std::fputs("tavronet-gateway ready", stdout);
    for (const std::string& url : gateway.Urls())
        std::printf(" %s", url.c_str());
    std::fputs("\n", stdout);
    std::fflush(stdout);
}

void StartTimers(gateway::EventLoop& loop, gateway::Gateway& gateway, const gateway::Options& options)
{
    const auto announceAfter = [&](std::optional<int> ms, const char* subtype) {
        if (ms)
            loop.After(std::chrono::milliseconds(*ms), [&gateway, subtype] { gateway.Announce(subtype); });
    };
    announceAfter(options.search.byebyeAfterMs, "ssdp:byebye");
    announceAfter(options.search.aliveAfterMs, "ssdp:alive");
    announceAfter(options.search.updateAfterMs, "ssdp:update");
    loop.After(std::chrono::seconds(options.runForSeconds), [&loop] { loop.Stop(); });
}

} // namespace

int main(int argc, char** argv)
{
    int exitCode = 0;
    auto options = gateway::ParseOptions(argc, argv, exitCode);
    if (!options)
        return exitCode;

    gateway::EventLoop loop;
    gateway::EventLog log;
    if (!OpenLogs(log, *options)) {
        std::perror("tavronet-gateway: cannot write the log");
        return 1;
    }
    gateway::Gateway gateway(loop, log, *options);
    gateway::Console console(loop, log, gateway);
    console.WatchSignals();
    if (const std::string error = gateway.Open(); !error.empty()) {
        std::fprintf(stderr, "tavronet-gateway: %s\n", error.c_str());
        return 1;
    }
    if (options->commands)
        console.WatchCommands();
    StartTimers(loop, gateway, *options);
    PrintReady(gateway);
    loop.Run();
    return 0;
}
