// The library in a GLib main loop: a datagram to itself over loopback, then a wait that GLib ends.

#include <glib-unix.h>
#include <tavronet/tavronet.h>

#include <cstdio>
#include <string>

namespace
{

class Greeter : public CTavroSocket
{
public:
    explicit Greeter(GMainLoop* loop) : m_Loop(loop) { Create(0, 2, FD_ALL, L"127.0.0.1", 0); }

    std::string m_Received;

private:
    void OnSend(int error) override // the socket takes data
    {
        CTavroSocket::OnSend(error);
        CStringW address;
        UINT port = 0;
        if (m_Received.empty() && GetSockName(address, port))
            SendTo("hello", 5, port, address, 0);
    }

    void OnReceive(int) override
    {
        char text[16];
        CStringW address;
        UINT port = 0;
        const int length = ReceiveFrom(text, sizeof text, address, port, 0);
        m_Received.assign(text, length > 0 ? static_cast<std::size_t>(length) : 0);
        g_main_loop_quit(m_Loop);
    }

    GMainLoop* m_Loop;
};

gboolean Dispatch(gint, GIOCondition, gpointer)
{
    DispatchRound(); // sockets, posted calls; the descriptor stays readable while more is due
    return G_SOURCE_CONTINUE;
}

gboolean Signal(gpointer event)
{
    SetEvent(event);
    return G_SOURCE_REMOVE;
}

} // namespace

int main()
{
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(QueueDescriptor(), G_IO_IN, Dispatch, nullptr);
    Greeter greeter(loop);
    g_main_loop_run(loop);

    // Operations on a gateway wait in place; with this hook GLib's own timers and sources run meanwhile.
    SetWaitHook([](void*) { g_main_context_iteration(nullptr, FALSE); }, nullptr);
    HANDLE event = CreateEventW(nullptr, 1, 0, nullptr);
    g_timeout_add(20, Signal, event);
    DWORD outcome;
    while ((outcome = MsgWaitForMultipleObjectsEx(1, &event, 5000, kWakeOnAnyInput, 0)) == WAIT_OBJECT_0 + 1)
        DispatchPending();
    const bool ticked = outcome == WAIT_OBJECT_0;
    CloseHandle(event);
    SetWaitHook(nullptr, nullptr);
    g_main_loop_unref(loop);
    std::printf("received \"%s\", GLib ran inside the wait: %s\n", greeter.m_Received.c_str(),
                ticked ? "yes" : "no");
    return greeter.m_Received == "hello" && ticked ? 0 : 1;
}
