// A document taken apart into lines and elements. The splitter that remembers what it has searched must deliver
// what the one delivers that searches anew for every line.

#include <string>

#include "Input.h"
#include "tavronet/upnp/ProtocolText.h"
#include "tavronet/upnp/UPnPObject.h"

namespace
{

struct TextMembers : CUPnPObject
{
    using CUPnPObject::GetBufferString;
    using CUPnPObject::GetVariable;
};

void ReadElements(const tavronet::DocumentLines& lines, CString line)
{
    CString lowerLine = Widen(lines.LowerLine());
    for (const char* const name : {"controlurl", "udn", "a"}) {
        std::string_view value = "before";
        if (!tavronet::FindElement(lines.Line(), lines.LowerLine(), name, value))
            Expect(value == "before");
        Expect(value.size() <= lines.Line().size() || value == "before");
        Expect(value.empty() || std::string_view("\r\n").find(value.front()) == std::string_view::npos);

        CString text;
        TextMembers::GetVariable(text, name, line, lowerLine);
    }
}

void ReadLines(std::string_view document, bool splitAtClosingTag)
{
    const int length = static_cast<int>(document.size());
    tavronet::DocumentLines lines(document.data(), length, splitAtClosingTag);
    const char* cursor = document.data();
    int remaining = length;
    CString line;
    while (lines.Next()) {
        Expect(TextMembers::GetBufferString(line, cursor, remaining, splitAtClosingTag));
        Expect(line == Widen(lines.RawLine()));
        Expect(cursor == lines.Position() && remaining == lines.Remaining());
        Expect(cursor - document.data() == length - remaining && remaining >= 0);
        Expect(lines.Line().size() == lines.LowerLine().size());
        ReadElements(lines, line);

        const std::string_view before = lines.RawLine();
        lines.Unread();
        Expect(lines.Next() && lines.RawLine().data() == before.data() && cursor == lines.Position());
    }
    Expect(!TextMembers::GetBufferString(line, cursor, remaining, splitAtClosingTag));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const HeldInput held(data, size);
    ReadLines(held.View(), true);
    ReadLines(held.View(), false);
    return 0;
}
