#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Misbehaviour.h"
#include "XmlWriter.h"

namespace gateway
{

/// Which types the description shows; any combination is found somewhere.
struct Model
{
    bool version2 = false; // of the root, the WAN devices and the connection services
    bool dslForum = false; // types of another organisation
    bool ppp = false;      // a PPP connection service instead of the IP one
    bool pppFirst = false; // a PPP connection service before the IP one
};

enum class Transfer
{
    Length,
    LengthKeepAlive,
    Close,
    Chunked,
    ChunkedKeepAlive,
    WrongLengthShort,
    WrongLengthLong,
    NoHeader,
};

/// What the gateway tells about itself.
struct Identity
{
    std::string uuid = "7461-0000-0000-0001";
    std::string friendlyName = "Simulated gateway";
    std::string manufacturer = "Tavro";
    std::string server = "Linux UPnP/1.1 tavronet-gateway/1";
    std::string externalAddress = "203.0.113.7";
    bool natEnabled = true;
};

struct SearchOptions
{
    std::uint16_t port = 1900;
    bool enabled = true;
    std::string target; // not empty: answer every search, with this target
    int maxAgeSeconds = 1800;
    std::string cacheControl; // not empty: instead of max-age
    std::string location;     // not empty: instead of the description's URL
    std::string notifyTarget = "urn:schemas-upnp-org:device:WANConnectionDevice:1";
    std::string answerFile; // not empty: its bytes are the answer
    bool scopeInUrl = false;
    bool embeddedUsn = false; // the uuid in answers is that of the device searched for, not that of the root
    int copies = 1;
    int delayMs = 0;
    std::optional<int> byebyeAfterMs, aliveAfterMs, updateAfterMs;
};

struct DescriptionOptions
{
    Model model;
    XmlStyle style;
    int embedding = 2; // embedded devices between the root and the connection service
    std::string path = "/rootDesc.xml";
    std::string file;                    // not empty: its bytes are the description
    std::string controlUrl = "relative"; // or "absolute", or the very text
    std::string urlBase;                 // empty: none; "auto": the gateway's own; or the very text
};

struct AnswerOptions
{
    XmlStyle style;
    bool typedValues = false; // an attribute with the data type on every value
    Transfer transfer = Transfer::Length;
    int chunkBytes = 100;
};

struct TableOptions
{
    std::size_t capacity = 1024;
    int lowestPort = 1; // external ports outside are refused with 606
    int highestPort = 65535;
    bool ownClientOnly = false;       // internal client must be the requester, else 606
    bool samePorts = false;           // internal port must be the external one, else 724
    bool permanentLeasesOnly = false; // else 725
    bool forget = false;              // added, and not there afterwards
    bool alter = false;               // look-ups show the mapping switched off
    bool endless = false;             // every index of the table is answered
};

struct Options
{
    std::vector<std::string> addresses;
    std::uint16_t httpPort = 0;
    bool refuseConnections = false;
    int runForSeconds = 3600;
    bool commands = false;
    std::string log, logRequests;

    Identity identity;
    SearchOptions search;
    DescriptionOptions description;
    AnswerOptions answers;
    TableOptions table;
    Misbehaviour misbehaviour;
};

/// Reads the command line. On --help or a mistake prints what there is to say and sets `exitCode`.
std::optional<Options> ParseOptions(int argc, char** argv, int& exitCode);

} // namespace gateway
