#include "Options.h"

#include "Commands.h"
#include "HostNetwork.h"

#include <CLI/CLI.hpp>
#include <tavronet/net/AddressText.h>

#include <cstdio>

namespace command
{

namespace
{

constexpr int kUsageError = 2;

const char* const kAbout =
    "Finds the Internet gateway of the local network and has it forward ports to this machine.";

const char* const kFooter =
    "Examples:\n"
    "  tavronet add 8080                        forward TCP port 8080 to this machine\n"
    "  tavronet add 5060 --protocol udp         forward UDP port 5060\n"
    "  tavronet add-range 6000 10               forward ten TCP ports, from 6000 or above\n"
    "  tavronet list                            what the gateway forwards\n"
    "  tavronet doctor                          why is no gateway found?\n"
    "`tavronet --help` shows the options that every command has, `tavronet COMMAND --help` those of one.\n"
    "\n"
    "Exit codes: 0 done, 2 wrong arguments, 6 interrupted, 7 no gateway, 8 the gateway refused or did not "
    "answer,\n"
    "9 memory is exhausted.";

std::string CheckAddress(const std::string& text)
{
    return !text.empty() && AddressFamily(text.c_str()) != 0 ? "" : "not a numeric address: " + text;
}

// Without the range in the help, where it would push everything aside.
template <typename Number>
CLI::Validator InRange(Number lowest, Number highest)
{
    return CLI::Range(lowest, highest).description("");
}

std::string CheckURL(const std::string& text)
{
    return ParseHttpURL(text) ? "" : "not a URL like http://192.168.1.1:5000/rootDesc.xml: " + text;
}

void DefineCommon(CLI::App& app, Options& options)
{
    app.add_flag("--json", options.json, "print JSON on the standard output");
    app.add_option("--timeout", options.timeoutSeconds, "how long to look for a gateway (5)")
        ->check(InRange(0.1, 3600.0))
        ->type_name("SECONDS");
    app.add_option("--interface", options.localAddress,
                   "only gateways reached from this address of this machine")
        ->check(CheckAddress)
        ->type_name("ADDRESS");
    app.add_option("--url", options.url, "do not search: read this description of a gateway")
        ->check(CheckURL)
        ->type_name("URL");
    app.add_flag("--classic", options.classic, "expect a gateway of the first generation: a tag a line");
}

CLI::App* DefineCommand(CLI::App& app, Options& options, const char* name, const char* help,
                        decltype(Options::run) run)
{
    CLI::App* const sub = app.add_subcommand(name, help);
    sub->fallthrough(); // the common options may stand behind the command
    sub->callback([&options, run] { options.run = run; });
    return sub;
}

void DefineMapping(CLI::App& sub, Options& options)
{
    sub.add_option("port", options.port, "port of the gateway, 1 to 65535")
        ->required()
        ->check(InRange(1, 65535))
        ->type_name("");
    sub.add_option("--protocol", options.protocol, "(tcp)")
        ->transform(CLI::IsMember({"TCP", "UDP"}, CLI::ignore_case).description(""))
        ->type_name("tcp|udp");
}

void DefineRange(CLI::App& sub, Options& options)
{
    DefineMapping(sub, options);
    sub.add_option("count", options.count, "how many ports, from there on")
        ->required()
        ->check(InRange(1, 65535))
        ->type_name("");
}

void DefineAddRange(CLI::App& sub, Options& options)
{
    DefineRange(sub, options);
    sub.add_option("--description", options.description,
                   "for the gateway's table, %d for the position in the range (tavronet)")
        ->type_name("TEXT");
}

void DefineAdd(CLI::App& sub, Options& options)
{
    DefineMapping(sub, options);
    sub.add_option("--description", options.description, "for the gateway's table (tavronet)")
        ->type_name("TEXT");
    sub.add_option("--internal-port", options.internalPort, "port of this machine (the same)")
        ->check(InRange(1, 65535))
        ->type_name("PORT");
    sub.add_option("--client", options.client, "forward to this address instead of this machine")
        ->check(CheckAddress)
        ->type_name("ADDRESS");
    sub.add_option("--lease", options.leaseSeconds,
                   "the gateway drops the mapping after this time (0: never)")
        ->type_name("SECONDS");
}

void DefineCommands(CLI::App& app, Options& options)
{
    app.require_subcommand(1);
    DefineCommand(app, options, "discover", "list the gateways that answer", RunDiscover)
        ->add_flag("--all", options.all, "listen until the time is over");
    DefineCommand(app, options, "status", "external address and state of a gateway", RunStatus);
    DefineCommand(app, options, "list", "the port mappings of a gateway", RunList);
    DefineAdd(*DefineCommand(app, options, "add", "map a port to this machine", RunAdd), options);
    DefineAddRange(
        *DefineCommand(app, options, "add-range", "map consecutive ports, where they are free", RunAddRange),
        options);
    DefineMapping(*DefineCommand(app, options, "delete", "delete a mapping", RunDelete), options);
    DefineRange(
        *DefineCommand(app, options, "delete-range", "delete mappings of consecutive ports", RunDeleteRange),
        options);
    CLI::App* const watch = DefineCommand(
        app, options, "watch",
        "show gateways and mappings come and go, and that they are still there, until interrupted", RunWatch);
    watch->add_option("--for", options.watchSeconds, "end after this time")
        ->check(InRange(0.1, 1e6))
        ->type_name("SECONDS");
    watch->add_option("--interval", options.intervalSeconds, "time between looks at the mappings (5)")
        ->check(InRange(0.1, 86400.0))
        ->type_name("SECONDS");
    DefineCommand(app, options, "doctor", "find out why no gateway is found", RunDoctor);
}

} // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& exitCode)
{
    Options options;
    CLI::App app(kAbout, "tavronet");
    app.footer(kFooter);
    app.set_version_flag("--version", "tavronet " TAVRONET_VERSION);
    DefineCommon(app, options);
    DefineCommands(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) { // help, version
        exitCode = app.exit(done);
        return std::nullopt;
    } catch (const CLI::RequiredError& error) {
        if (const auto unknown = app.remaining(); !unknown.empty())
            std::fprintf(stderr, "tavronet: no such command: %s\n", unknown[0].c_str());
        app.exit(error);
        exitCode = kUsageError;
        return std::nullopt;
    } catch (const CLI::Error& error) {
        app.exit(error);
        exitCode = kUsageError;
        return std::nullopt;
    }
    return options;
}

} // namespace command
