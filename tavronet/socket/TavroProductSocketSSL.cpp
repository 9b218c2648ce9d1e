// SSL mode of the connection class.

#include "tavronet/platform/LastError.h"
#include "tavronet/socket/TavroProductSocket.h"

/// What a socket that has entered SSL mode holds.
struct CTavroProductSocket::SSLState
{
    void* session = nullptr; // of the provider
    CStringA password;       // of the private key
};

COpenSSL* CTavroProductSocket::m_pOpenSSL = nullptr;

bool CTavroProductSocket::HasSSLSession() const
{
    return m_pSSLState != nullptr && m_pSSLState->session != nullptr;
}

void CTavroProductSocket::StopSSLMode()
{
    if (m_nSSLMode == 0 && !HasSSLSession())
        m_bExitSSLModeWhenDone = false; // there is nothing to leave
}

void CTavroProductSocket::ReleaseSSL()
{
    delete m_pSSLState;
    m_pSSLState = nullptr;
    m_nSSLMode = 0;
    m_bSSLAcceptPending = false;
}

void CTavroProductSocket::SSLAccept() {}

int CTavroProductSocket::SSLReceive(unsigned char*, int, int)
{
    WSASetLastError(WSAENOTCONN);
    return SOCKET_ERROR;
}

int CTavroProductSocket::SSLSend(unsigned char*, int, int)
{
    WSASetLastError(WSAENOTCONN);
    return SOCKET_ERROR;
}

int CTavroProductSocket::SSLLastError()
{
    return WSAGetLastError();
}
