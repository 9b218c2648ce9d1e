// The library in a libuv loop: a connection to itself over loopback.

#include <tavronet/tavronet.h>
#include <uv.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>

namespace
{

/// Sends back what it gets.
class Echo : public CTavroSocket
{
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        Send(buffer, length, 0);
        length = 0;
        return true; // all consumed
    }
};

class Server : public CTavroSocket
{
public:
    Server()
    {
        Create(0, 1, FD_ALL, L"127.0.0.1", 0);
        listen(static_cast<int>(m_hSocket), 1);
    }

private:
    void OnAccept(int) override { Accept(m_Echo); }

    Echo m_Echo;
};

class Client : public CTavroSocket
{
public:
    std::string m_Received;

private:
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        m_Received.append(reinterpret_cast<char*>(buffer), static_cast<std::size_t>(length));
        length = 0;
        if (m_Received.size() >= std::strlen("hello"))
            uv_stop(uv_default_loop());
        return true;
    }
};

} // namespace

int main()
{
    uv_poll_t queue;
    uv_poll_init(uv_default_loop(), &queue, QueueDescriptor());
    uv_poll_start(&queue, UV_READABLE, [](uv_poll_t*, int, int) { DispatchRound(); });

    Server server;
    CStringW address;
    UINT port = 0;
    server.GetSockName(address, port);
    Client client;
    client.Create(0, 1, FD_ALL, nullptr, 0);
    client.Connect(address, port);
    client.Send("hello"); // goes out when the connection stands
    uv_run(uv_default_loop(), UV_RUN_DEFAULT);

    // uv_run must not be entered twice: an operation on a gateway, begun in a callback, holds up its timers.
    uv_close(reinterpret_cast<uv_handle_t*>(&queue), nullptr);
    uv_run(uv_default_loop(), UV_RUN_DEFAULT);
    std::printf("received \"%s\"\n", client.m_Received.c_str());
    return client.m_Received == "hello" ? 0 : 1;
}
