#pragma once

#include <string>

#include "Descriptor.h"
#include "EventLog.h"
#include "EventLoop.h"
#include "Gateway.h"

namespace gateway
{

/// What whoever started the gateway tells it while it runs: signals, and lines on standard input.
class Console
{
public:
    Console(EventLoop& loop, EventLog& log, Gateway& gateway);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// Takes TERM, INT, USR1 and USR2 from now on; call it before the ready line.
    void WatchSignals();
    /// Takes command lines from standard input; its end ends the gateway.
    void WatchCommands();

private:
    void TakeSignal();
    void TakeInput();

    EventLoop& m_Loop;
    EventLog& m_Log;
    Gateway& m_Gateway;
    Descriptor m_Signals;
    std::string m_Input;
};

} // namespace gateway
