// A response that arrives a byte at a time, framed by both dialects. A reader that goes on where it stopped must
// find what one finds that gets the same bytes at once.

#include <string>

#include "Input.h"
#include "tavronet/upnp/UPnPDialect.h"

namespace
{

using tavronet::UPnPDialect;

struct Reading
{
    /// @param arrived all that has, of which the reading knows the beginning.
    void Update(const UPnPDialect& dialect, std::string_view arrived)
    {
        hasHeader = hasHeader || dialect.ReadHeader(arrived, frame);
        isComplete = hasHeader && dialect.Complete(arrived, frame);
    }

    tavronet::ResponseFrame frame;
    bool hasHeader = false;
    bool isComplete = false;
};

std::string DecodedBody(const UPnPDialect& dialect, std::string_view message, const Reading& reading)
{
    std::string storage;
    const std::string_view body = dialect.DecodeBody(message, reading.frame, storage);
    Expect(body.size() <= message.size() && body.data()[body.size()] == '\0');
    return std::string(body);
}

void Compare(const UPnPDialect& dialect, std::string_view arrived, Reading& gradual)
{
    const HeldInput held(reinterpret_cast<const std::uint8_t*>(arrived.data()), arrived.size());
    const std::string_view message = held.View();
    Reading whole;
    whole.Update(dialect, message);
    Expect(whole.hasHeader == gradual.hasHeader && whole.isComplete == gradual.isComplete);

    const bool cutShort = dialect.CutShort(message, gradual.frame);
    Expect(cutShort == dialect.CutShort(message, whole.frame));
    Expect(!cutShort || !whole.isComplete);
    if (!whole.hasHeader)
        return;
    Expect(whole.frame.bodyStart == gradual.frame.bodyStart && whole.frame.bodyStart <= message.size());
    Expect(DecodedBody(dialect, message, whole) == DecodedBody(dialect, message, gradual));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const HeldInput held(data, size);
    const std::string_view message = held.View();
    for (const UPnPDialect* dialect : {&tavronet::ClassicDialect(), &tavronet::ModernDialect()}) {
        Reading reading;
        std::size_t arrived = 0;
        reading.Update(*dialect, {});
        while (!reading.isComplete && arrived < size)
            reading.Update(*dialect, message.substr(0, ++arrived));
        Compare(*dialect, message.substr(0, arrived), reading);

        const std::size_t status = dialect->FindStatus(message);
        Expect(status == message.npos || message.at(status) == ' ');
    }
    return 0;
}
