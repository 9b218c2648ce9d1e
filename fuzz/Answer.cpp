// An HTTP response to an action, framed, decoded and read by both dialects, as a connection does it.

#include <cstddef>
#include <cstdint>
#include <string>

#include "tavronet/upnp/UPnPDialect.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string message(reinterpret_cast<const char*>(data), size);
    for (const auto* dialect : {&tavronet::ClassicDialect(), &tavronet::ModernDialect()}) {
        const std::size_t bodyStart = dialect->FindBody(message, 0);
        if (bodyStart == std::string::npos)
            continue;
        const int announced = dialect->AnnouncedLength(std::string_view(message).substr(0, bodyStart));
        dialect->Complete(message, bodyStart, announced);
        std::string storage;
        const std::string_view body = dialect->DecodeBody(message, bodyStart, announced, storage);
        for (const int status : {200, 500}) {
            tavronet::ActionAnswer answer;
            answer.status = status;
            answer.results = {L"NewExternalIPAddress", L"", L"NewProtocol", L"TCP"};
            dialect->ReadAnswer(answer, body);
        }
    }
    return 0;
}
