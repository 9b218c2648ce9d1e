// The class interface from outside the tree. It must not search: this runs on the machine's own network.
#include <tavronet/tavronet.h>

#include <cstdio>

#include <sys/socket.h> // AF_INET, AF_INET6: the library passes the system's own values

namespace
{

// Deriving needs the virtual functions and the type information of the base, which a C caller never touches.
class Connection : public CTavroSocket
{
public:
    bool m_Closed = false;

    void OnClose(int error) override
    {
        m_Closed = true;
        CTavroSocket::OnClose(error);
    }
};

int Check(bool holds, const char* what)
{
    if (!holds)
        std::fprintf(stderr, "failed: %s\n", what);
    return holds ? 0 : 1;
}

} // namespace

int main(int argumentCount, char**)
{
    int failures = 0;
    failures += Check(AddressFamily("192.0.2.1") == AF_INET, "an IPv4 address is recognised");
    failures += Check(AddressFamily("2001:db8::1") == AF_INET6, "an IPv6 address is recognised");
    failures += Check(UPnPDiscoverComplete() == 3, "the flat interface starts without a network");

    Connection connection;
    failures += Check(dynamic_cast<CTavroSocket*>(&connection) != nullptr,
                      "a derived connection has its base's type");

    const CUPnPPortMap map(8080, "TCP", "192.0.2.2", "consumer");
    failures += Check(map.ExternalPort() == 8080, "a port map keeps its port");

    if (argumentCount > 1) // never by the test: it only has to link
        CUPnPNetwork().Tickle();
    return failures == 0 ? 0 : 1;
}
