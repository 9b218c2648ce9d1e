#include "Options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>

namespace gateway
{

namespace
{

const char* const kAbout =
    "A simulated Internet gateway: answers searches, serves a description, keeps a table of port mappings,\n"
    "and misbehaves on request. It sends no multicast; it joins the search group on the given addresses.";

const char* const kFooter =
    "WHERE is all, description, soap (every action) or the name of one action. A fault with :N hits the "
    "first\n"
    "N such requests, otherwise all of them.\n"
    "Signals: TERM ends; USR1 sends ssdp:byebye, USR2 ssdp:alive, by unicast to all who have searched.\n"
    "Lines read with --commands: byebye, alive, update, clear (empties the table), disable (switches all "
    "mappings\n"
    "off), external-ip TEXT, nat 0|1, fault NAME ARGUMENT, well (drops all faults), quit. End of input ends.";

/// The option texts that need a second look after the command line has been read.
struct Texts
{
    std::vector<std::string> description{"classic"};
    std::vector<std::string> soapStyle{"classic"};
    std::string lineEnd = "crlf", transfer = "length";
    bool noSsdp = false;
    std::map<const FaultForm*, std::vector<std::string>> faults;
};

const std::vector<std::pair<std::string, Transfer>> kTransfers = {
    {"length", Transfer::Length},
    {"length-keep-alive", Transfer::LengthKeepAlive},
    {"close", Transfer::Close},
    {"chunked", Transfer::Chunked},
    {"chunked-keep-alive", Transfer::ChunkedKeepAlive},
    {"wrong-length-short", Transfer::WrongLengthShort},
    {"wrong-length-long", Transfer::WrongLengthLong},
    {"no-header", Transfer::NoHeader},
};
const std::vector<std::string> kModelWords = {"version2", "dsl-forum", "ppp", "two-connections"};
const std::vector<std::string> kStyleWords = {"classic", "one-line", "prefixed", "entities", "cdata"};

bool Contains(const std::vector<std::string>& words, const std::string& word)
{
    return std::ranges::find(words, word) != words.end();
}

std::string Joined(const std::vector<std::string>& words)
{
    std::string text = words.front();
    for (std::size_t i = 1; i < words.size(); ++i)
        text += ", " + words[i];
    return text;
}

XmlStyle StyleOf(const std::vector<std::string>& words, const std::string& lineEnd, const std::string& prefix)
{
    XmlStyle style;
    style.oneLine = Contains(words, "one-line");
    style.lineEnd = lineEnd == "lf" ? "\n" : lineEnd == "cr" ? "\r" : "\r\n";
    style.prefix = Contains(words, "prefixed") ? prefix : "";
    style.numericEntities = Contains(words, "entities");
    style.cdata = Contains(words, "cdata");
    return style;
}

void DefineBasics(CLI::App& app, Options& options)
{
    app.add_option("--address", options.addresses, "listen on this address literal (repeatable)")
        ->allow_extra_args(false)
        ->option_text("ADDRESS")
        ->required();
    app.add_option("--http-port", options.httpPort, "port of the description and of control, 0 for any");
    app.add_flag("--refuse-connection", options.refuseConnections, "hold the HTTP port, refuse connections");
    app.add_option("--run-for", options.runForSeconds, "end after this many seconds")
        ->check(CLI::Range(1, 86400));
    app.add_flag("--commands", options.commands, "read commands from standard input, see below");
    app.add_option("--log", options.log, "write one line per event to this file, - for standard output");
    app.add_option("--log-requests", options.logRequests, "write every request byte for byte to this file");
}

void DefineIdentity(CLI::App& app, Identity& identity)
{
    app.add_option("--uuid", identity.uuid, "behind uuid: in answers and description")->group("Identity");
    app.add_option("--friendly-name", identity.friendlyName)->group("Identity");
    app.add_option("--manufacturer", identity.manufacturer)->group("Identity");
    app.add_option("--server", identity.server, "text of the SERVER header")->group("Identity");
    app.add_option("--external-ip", identity.externalAddress, "answer of GetExternalIPAddress")
        ->group("Identity");
    app.add_option("--nat", identity.natEnabled, "answer of GetNATRSIPStatus, 0 or 1")->group("Identity");
}

void DefineSearch(CLI::App& app, SearchOptions& search, Texts& texts)
{
    const std::string group = "Discovery";
    app.add_flag("--no-ssdp", texts.noSsdp, "serve HTTP only")->group(group);
    app.add_option("--ssdp-port", search.port)->group(group);
    app.add_option("--search-target", search.target, "answer every search, with this target")->group(group);
    app.add_option("--max-age", search.maxAgeSeconds)->group(group);
    app.add_option("--cache-control", search.cacheControl, "the whole CACHE-CONTROL text")->group(group);
    app.add_option("--location", search.location, "LOCATION, instead of the description's URL")->group(group);
    app.add_flag("--scope-in-url", search.scopeInUrl, "link-local URLs carry the interface name")
        ->group(group);
    app.add_option("--notify-target", search.notifyTarget, "NT of announcements")->group(group);
    app.add_flag("--embedded-usn", search.embeddedUsn, "USN names the embedded device, as many gateways do")
        ->group(group);
    app.add_option("--answer-file", search.answerFile,
                   "answer searches with the bytes of this file, {location} replaced")
        ->check(CLI::ExistingFile)
        ->group(group);
    app.add_option("--answer-copies", search.copies, "answers per search")
        ->check(CLI::Range(0, 1000))
        ->group(group);
    app.add_option("--answer-delay", search.delayMs, "milliseconds")
        ->check(CLI::Range(0, 60000))
        ->group(group);
    app.add_option("--byebye-after", search.byebyeAfterMs,
                   "ssdp:byebye after milliseconds, by unicast to all who "
                   "have searched")
        ->group(group);
    app.add_option("--alive-after", search.aliveAfterMs, "the same with ssdp:alive")->group(group);
    app.add_option("--update-after", search.updateAfterMs, "the same with ssdp:update")->group(group);
}

void DefineDocuments(CLI::App& app, Options& options, Texts& texts)
{
    const std::string group = "Documents";
    std::vector<std::string> words = kStyleWords;
    words.insert(words.end(), kModelWords.begin(), kModelWords.end());
    app.add_option("--description", texts.description, "form of the description: " + Joined(words))
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember(words))
        ->option_text("WORD[,WORD]...")
        ->group(group);
    app.add_option("--description-path", options.description.path)->group(group);
    app.add_option("--description-file", options.description.file,
                   "serve the bytes of this file, {base} replaced by http://HOST:PORT")
        ->check(CLI::ExistingFile)
        ->group(group);
    app.add_option("--embedding", options.description.embedding, "devices around the connection service")
        ->check(CLI::Range(0, 1000))
        ->group(group);
    app.add_option("--control-url", options.description.controlUrl, "relative, absolute or the very text")
        ->group(group);
    app.add_option("--url-base", options.description.urlBase, "auto (the gateway's own) or the very text")
        ->group(group);
    app.add_option("--line-end", texts.lineEnd)->check(CLI::IsMember({"crlf", "lf", "cr"}))->group(group);

    std::vector<std::string> soapWords = kStyleWords;
    soapWords.emplace_back("typed");
    app.add_option("--soap-style", texts.soapStyle, "form of SOAP answers: " + Joined(soapWords))
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember(soapWords))
        ->option_text("WORD[,WORD]...")
        ->group(group);
    std::vector<std::string> transferNames;
    for (const auto& [name, transfer] : kTransfers)
        transferNames.push_back(name);
    app.add_option("--transfer", texts.transfer, "how answers are framed: " + Joined(transferNames))
        ->check(CLI::IsMember(transferNames))
        ->option_text("NAME")
        ->group(group);
    app.add_option("--chunk-bytes", options.answers.chunkBytes)->check(CLI::Range(1, 1 << 20))->group(group);
}

void DefineTable(CLI::App& app, TableOptions& table)
{
    const std::string group = "Mapping table";
    app.add_option("--capacity", table.capacity, "entries; a further one is refused with 501")
        ->check(CLI::Range(0, 65536))
        ->group(group);
    app.add_option("--lowest-port", table.lowestPort, "external ports below are refused with 606")
        ->group(group);
    app.add_option("--highest-port", table.highestPort, "external ports above are refused with 606")
        ->group(group);
    app.add_flag("--own-client-only", table.ownClientOnly, "606 when the client is not the requester")
        ->group(group);
    app.add_flag("--same-ports", table.samePorts, "724 when the two ports differ")->group(group);
    app.add_flag("--permanent-leases", table.permanentLeasesOnly, "725 for a lease that ends")->group(group);
    app.add_flag("--forget-mappings", table.forget, "accept mappings, know none afterwards")->group(group);
    app.add_flag("--alter-mapping", table.alter, "look-ups show mappings switched off")->group(group);
    app.add_flag("--endless-table", table.endless, "answer every index of the table")->group(group);
}

void DefineFaults(CLI::App& app, Texts& texts)
{
    for (const FaultForm& form : Misbehaviour::Forms())
        app.add_option("--" + std::string(form.name), texts.faults[&form], form.help)
            ->allow_extra_args(false)
            ->option_text(form.syntax)
            ->group("Misbehaviour");
}

void ApplyTexts(const Texts& texts, Options& options)
{
    Model& model = options.description.model;
    model.version2 = Contains(texts.description, "version2");
    model.dslForum = Contains(texts.description, "dsl-forum");
    model.ppp = Contains(texts.description, "ppp");
    model.pppFirst = Contains(texts.description, "two-connections");
    options.description.style = StyleOf(texts.description, texts.lineEnd, "d");
    options.answers.style = StyleOf(texts.soapStyle, texts.lineEnd, "m");
    options.answers.typedValues = Contains(texts.soapStyle, "typed");
    options.answers.transfer =
        std::ranges::find(kTransfers, texts.transfer, &decltype(kTransfers)::value_type::first)->second;
    options.search.enabled = !texts.noSsdp;
    for (const auto& [form, arguments] : texts.faults) {
        for (const std::string& argument : arguments) {
            if (!options.misbehaviour.Add(*form, argument))
                throw CLI::ValidationError("--" + std::string(form->name),
                                           "want " + std::string(form->syntax) + ", not " + argument);
        }
    }
}

} // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& exitCode)
{
    Options options;
    Texts texts;
    CLI::App app(kAbout, "tavronet-gateway");
    app.option_defaults()->always_capture_default();
    app.footer(kFooter);
    DefineBasics(app, options);
    DefineIdentity(app, options.identity);
    DefineSearch(app, options.search, texts);
    DefineDocuments(app, options, texts);
    DefineTable(app, options.table);
    DefineFaults(app, texts);
    try {
        app.parse(argc, argv);
        ApplyTexts(texts, options);
    } catch (const CLI::Error& error) {
        exitCode = app.exit(error);
        return std::nullopt;
    }
    return options;
}

} // namespace gateway
