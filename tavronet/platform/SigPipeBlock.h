/// Code that writes to sockets by itself, kept from ending the process. Internal.
#ifndef TAVRONET_PLATFORM_SIGPIPEBLOCK_H
#define TAVRONET_PLATFORM_SIGPIPEBLOCK_H

namespace tavronet
{

/// While it lives, a write of this thread to a connection that the peer has closed raises no SIGPIPE: the
/// signal is blocked, and one that became pending meanwhile is discarded. Changes no signal disposition and
/// leaves errno alone.
class SigPipeBlock
{
public:
    SigPipeBlock();
    ~SigPipeBlock();
    SigPipeBlock(const SigPipeBlock&) = delete;
    SigPipeBlock& operator=(const SigPipeBlock&) = delete;

private:
    bool m_WasBlocked; // by the host: stays so
    bool m_WasPending; // and is the host's to see
};

} // namespace tavronet

#endif
