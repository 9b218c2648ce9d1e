#ifndef TAVRONET_UPNP_UPNPHTTPSOCKET_H
#define TAVRONET_UPNP_UPNPHTTPSOCKET_H

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "tavronet/upnp/UPnPSocket.h"

class CUPnPDevice;
class CUPnPObject;

namespace tavronet
{
struct ResponseFrame;
class ResponsePlace;
} // namespace tavronet

/// One HTTP request and its one response, on a connection of its own: connects at once, collects the
/// response, hands it to its object when it is complete, and on close asks its owner for release.
///
/// Owner: the device or service that made it. ReleaseSocket deletes it, also inside its own notifications.
/// During a notification: the object reads the response, which is then freed, and may raise host events; the host
/// may then do anything, including the deletion of this socket, its object and the network.
/// Bounds: a response of more than 1 MiB counts as none, and so does one that takes longer than 60 s. All that
/// have not been read hold 2 MiB together; one beyond 64 KiB that would exceed this counts as none, too. A round of
/// the thread's loop reads one response, or several of 64 KiB together; the others are read in later rounds.
class TAVRONET_API CUPnPHTTPSocket : public CUPnPSocket
{
public:
    /// Connects to `host`:`hostPort`; the outcome arrives by OnConnect. When the object's device was heard in
    /// a datagram, which anybody may send, a target that no gateway has (loopback, multicast, broadcast) is
    /// refused unless it is the datagram's source. Then, and when creation fails, GetErrorState is true and
    /// no notification follows.
    /// @param localAddress numeric, null or empty for any.
    /// @param host numeric address without brackets, or a name.
    /// @param object borrowed: receives the response.
    CUPnPHTTPSocket(const char* localAddress, UINT localPort, const char* host, UINT hostPort,
                    CUPnPObject* object);
    ~CUPnPHTTPSocket() override;

    /// Whether the response has been handed over (once at most).
    bool GetHTMLProcessed() const { return m_bHTMLProcessed; }

    /// Whether the connection was closed before the response was all there, which then counts as none.
    bool GetCutShort() const { return m_CutShort; }

    /// Whether the connection has lived longer than any exchange may take; upkeep then releases it.
    bool Overdue() const;

protected:
    CUPnPObject* GetObjectW() const { return m_pUPnPObject; }

    /// Collects; what follows a complete response is dropped.
    bool ProcessReceive(unsigned char*& data, int& length) override;

    /// Hands over what ProcessReceive found complete.
    void OnReceive(int error) override;

    /// Hands over a response that only the close ends; releases the socket when there is none, or it has been read.
    void OnClose(int error) override;

    /// Called:  when the object has read the response, and nothing of it is held any more.
    /// May:     run foreign code, which may delete this socket.
    /// Base:    does nothing.
    virtual void OnResponseRead();

    /// Returns the socket to its owner, who deletes it before this returns.
    virtual void ReleaseSocket() = 0;

    /// Refuses targets that no gateway has, and gives a link-local one the interface it was heard on.
    BOOL ConnectHelper(const sockaddr_storage* address, int addressLength) override;

    /// Sends a request, or gives the connection up when a text in it that came from the network could end a
    /// line or a word of it. May delete this socket.
    void SendRequest(const std::string& request, std::initializer_list<CString> networkTexts);

private:
    CUPnPDevice* HeardDevice() const;
    bool HeaderArrived(std::string_view message);
    bool Acceptable(std::string_view message) const;
    bool EndsWithTheConnection();
    void ReadInTurn();
    void Read();
    void HandOver();

    CUPnPObject* m_pUPnPObject; // not owned
    bool m_bHeaderParsed = false;
    bool m_bHTMLProcessed = false;
    bool m_CutShort = false;
    bool m_bClosed = false;
    int m_ResponseLength = 0;                          // of a complete one, held until it is its turn
    std::unique_ptr<tavronet::ResponseFrame> m_pFrame; // never null
    std::unique_ptr<tavronet::ResponsePlace> m_pPlace; // never null
    DWORD m_CreatedTick;
};

#endif
