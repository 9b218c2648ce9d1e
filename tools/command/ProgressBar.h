#pragma once

#include "Output.h"

#include <tavronet/platform/Types.h>

#include <string>

namespace command
{

/// How far a piece of work on many ports is: a bar, the port at hand, the time left. On a terminal only.
class ProgressBar
{
public:
    ProgressBar(const Output& output, const char* doing, unsigned total);

    /// So many ports are done; 0 begins to count the time anew.
    void Show(unsigned done);
    /// A line of another kind in its place.
    void ShowText(const std::string& text);
    /// Makes room for a line of output, until it is shown again.
    void Hide() { ShowText(""); }

private:
    const ProgressLine m_Line;
    const char* const m_Doing;
    const unsigned m_Total;
    DWORD m_StartTick;
    std::string m_Shown; // written only when it changes
};

} // namespace command
