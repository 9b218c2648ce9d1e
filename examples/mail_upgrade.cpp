// A mail server and its client in one program: plain commands, STARTTLS, then the same connection inside TLS.

#include <tavronet/openssl/OpenSSLProvider.h>
#include <tavronet/tavronet.h>

#include <cstdio>
#include <functional>
#include <string>

class LineConnection : public CTavroProductSocket
{
public:
    std::function<void(const std::string&)> m_OnLine;

private:
    bool ProcessReceive(unsigned char*& buffer, int& length) override
    {
        const std::string text(reinterpret_cast<char*>(buffer), static_cast<std::size_t>(length));
        std::size_t at = 0,
                    end = 0; // once a line has entered TLS, what follows in clear is not to be trusted
        for (; !SSLAcceptPending() && (end = text.find("\r\n", at)) != std::string::npos; at = end + 2) {
            std::printf("%s%s\n", GetSSL() ? "TLS: " : "", text.substr(at, end - at).c_str());
            m_OnLine(text.substr(at, end - at));
        }
        buffer += at;
        length -= static_cast<int>(at);
        return true;
    }
    void NotifySSLAcceptError(const char*, const char*, const char* reason) override { std::puts(reason); }
};

class Listener : public CTavroProductSocket
{
public:
    LineConnection m_Server;

private:
    void OnAccept(int) override { Accept(m_Server); }
};

int main(int count, char** files) // certificate and key of the server, the authority that the client trusts
{
    Listener listener;
    LineConnection client, &server = listener.m_Server;
    bool done = false;
    CTavroProductSocket::Init(OpenSSLProvider());
    server.m_OnLine = [&](const std::string& line) {
        server.Send(line == "QUIT"       ? "221 bye\r\n"
                    : line == "STARTTLS" ? "220 go ahead\r\n"
                                         : "250 fine\r\n");
        if (line == "STARTTLS") // so short an answer has left; a longer one would wait for CanClose()
            server.SetSSLMode(1, true, false, files[1], files[2], L"", "");
    };
    client.m_OnLine = [&](const std::string& line) {
        done = line.starts_with("221");
        if (line.starts_with("220")) {
            client.SetSSLServer(false, true);
            client.SetSSLHostName("tavronet.test"); // the certificate must be for this name
            client.SetSSLMode(1, true, false, L"", L"", files[3], "");
            client.Send("MAIL FROM:<me@example>\r\n"); // waits for the handshake
        } else if (!done) {
            client.Send(client.GetSSL() ? "QUIT\r\n" : "STARTTLS\r\n");
        }
    };

    CStringW address;
    UINT port = 0;
    if (count != 4 || !listener.Create(0, 1, FD_ALL, L"127.0.0.1", 0) || !listener.Listen(5) ||
        !listener.GetSockName(address, port) || !client.Create(0, 1, FD_ALL, L"127.0.0.1", 0))
        return 1;
    client.Connect(address, port);
    client.Send("EHLO example\r\n"); // waits for the connection
    for (const DWORD start = GetTickCount(); !done && ElapsedMs(GetTickCount(), start) < 5000;) {
        MsgWaitForMultipleObjectsEx(0, nullptr, 100, kWakeOnAnyInput, 0);
        DispatchPending();
    }
    return done && client.GetSSL() ? 0 : 1;
}
