#include "ProgressBar.h"

#include <tavronet/platform/TickCount.h>

#include <algorithm>

namespace command
{

namespace
{

constexpr unsigned kCells = 24;

/// What the rest will take when it goes on as it went.
std::string TimeLeft(DWORD elapsedMs, unsigned done, unsigned total)
{
    if (done == 0)
        return "";
    const unsigned long long seconds = (1ULL * elapsedMs * (total - done) / done + 999) / 1000;
    constexpr unsigned kMinutesFrom = 90;
    return seconds < kMinutesFrom ? ", " + std::to_string(seconds) + " s left"
                                  : ", " + std::to_string((seconds + 59) / 60) + " min left";
}

} // namespace

ProgressBar::ProgressBar(const Output& output, const char* doing, unsigned total)
    : m_Line(output), m_Doing(doing), m_Total(total), m_StartTick(GetTickCount())
{
}

void ProgressBar::Show(unsigned done)
{
    if (done == 0)
        m_StartTick = GetTickCount();
    const unsigned cells = static_cast<unsigned>(1ULL * kCells * done / m_Total);
    ShowText(std::string(m_Doing) + " [" + std::string(cells, '#') + std::string(kCells - cells, '.') +
             "] port " + std::to_string(std::min(done + 1, m_Total)) + " of " + std::to_string(m_Total) +
             TimeLeft(ElapsedMs(GetTickCount(), m_StartTick), done, m_Total));
}

void ProgressBar::ShowText(const std::string& text)
{
    if (text == m_Shown)
        return;
    m_Shown = text;
    m_Line.Show(text);
}

} // namespace command
