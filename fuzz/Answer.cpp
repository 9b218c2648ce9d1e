// A response to an action, framed, decoded and read by both dialects, as a connection does it.

#include <string>

#include "Input.h"
#include "tavronet/upnp/UPnPDialect.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const HeldInput held(data, size);
    const std::string_view message = held.View();
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
            Expect(answer.results.size() == 4 && answer.results[0] == L"NewExternalIPAddress");
            Expect(answer.status == status || (status == 200 && answer.status == 500));
        }
    }
    return 0;
}
