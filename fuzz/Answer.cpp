// An HTTP response to an action, framed, decoded and read by both dialects, as a connection does it.

#include <cstddef>
#include <cstdint>
#include <string>

#include "tavronet/upnp/UPnPDialect.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string message(reinterpret_cast<const char*>(data), size);
    for (const auto* dialect : {&tavronet::ClassicDialect(), &tavronet::ModernDialect()}) {
        tavronet::ResponseFrame frame;
        if (!dialect->ReadHeader(message, frame) ||
            (!dialect->Complete(message, frame) && dialect->CutShort(message, frame)))
            continue;
        std::string storage;
        const std::string_view body = dialect->DecodeBody(message, frame, storage);
        for (const int status : {200, 500}) {
            tavronet::ActionAnswer answer;
            answer.status = status;
            answer.results = {L"NewExternalIPAddress", L"", L"NewProtocol", L"TCP"};
            dialect->ReadAnswer(answer, body);
        }
    }
    return 0;
}
