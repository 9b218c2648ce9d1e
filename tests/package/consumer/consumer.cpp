// The class interface from outside the tree. It must not search: this runs on the machine's own network.
#include <tavronet/tavronet.h>

#include <sys/socket.h> // AF_INET6: the library passes the system's own values

// Deriving needs the virtual functions and the type information of the base, which a C caller never touches.
class Connection : public CTavroSocket
{
public:
    void OnClose(int error) override { CTavroSocket::OnClose(error); }
};

int main(int argumentCount, char**)
{
    if (argumentCount > 1) // never by the test: it only has to link
        CUPnPNetwork().Tickle();

    Connection connection;
    const CUPnPPortMap map(8080, "TCP", "192.0.2.2", "consumer");
    const bool works = !connection.GetConnected() && map.ExternalPort() == 8080 &&
                       AddressFamily("2001:db8::1") == AF_INET6 && UPnPDiscoverComplete() == UPnPNoNetwork;
    return works ? 0 : 1;
}
