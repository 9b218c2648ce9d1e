#ifndef TAVRONET_UPNP_UPNPSERVICE_H
#define TAVRONET_UPNP_UPNPSERVICE_H

#include <cstdarg>
#include <list>
#include <vector>

#include "tavronet/upnp/UPnPObject.h"

class CUPnPDevice;
class CUPnPServiceSocket;

/// A service of a gateway: what its description says, where it is controlled, and the one action in flight.
///
/// One action is in flight at a time, on a connection of its own; actions issued meanwhile wait in order. A
/// blocking action counts as in flight until its Command has returned.
/// Thread: the thread of the network.
/// During a blocking Command: everything due on the thread is delivered, host messages included. The host may
/// destroy the service, its device or the network there; Command then returns false.
class TAVRONET_API CUPnPService : public CUPnPObject
{
public:
    explicit CUPnPService(CUPnPDevice* parent = nullptr);
    ~CUPnPService() override;

    /// Reads one service block of a description, then raises UPnPEventServiceDescribed.
    /// @param position,remaining advanced past what was read before the event.
    void BuildService(const char*& position, int& remaining);

    /// Sends an action: text pairs (argument name, value), ended by a null pointer (nullptr, not 0).
    /// @param wait true: returns when the answer has been read, at the latest after 10000 ms.
    /// @param cancel null or a manual-reset event that ends the wait as a failure; not closed.
    /// @return true: the answer was read (blocking), the connection is under way (not blocking), or the action
    ///         waits behind another one; it is then sent later and reports nothing. The content of the answer
    ///         is in GetResponseCode and the other getters below.
    ///         false: no connection, no answer in time, cancelled, connection lost, or 1024 actions wait; the
    ///         getters keep what the previous answer left.
    bool Command(bool wait, HANDLE cancel, const char* action, ...);

    /// The same with the arguments in a va_list; a null one means no arguments.
    bool Command(bool wait, HANDLE cancel, const char* action, va_list arguments);

    /// Reads an answer: status, then the fault texts, or the values of the arguments that were sent.
    /// @param response the whole answer, zero-terminated.  @param body behind its header, zero-terminated.
    void CommandResponse(const char* response, int responseLength, const char* body, int bodyLength);

    /// The value of the argument at `index`: as answered, or as sent where the answer has none.
    /// @return never null; empty for an index out of range. Valid until the next answer.
    const wchar_t* GetCommandParameterResult(int index) const;

    /// Forgets the waiting actions; the one in flight goes on.
    void ReleaseCommandQueue();

    /// Deletes the connection; an action in flight on it ends unanswered.
    /// @param next true: starts the oldest waiting action, unless a blocking Command has yet to return.
    void ReleaseUPnPServiceSocket(bool next);

    /// Releases a connection that has been idle for 30000 ms or has lived too long. @return true.
    bool Tickle() override;

    const CString& GetServiceID() const { return m_ServiceID; }
    const CString& GetControlURL() const { return m_ControlURL; }
    const CString& GetEventSubURL() const { return m_EventSubURL; }
    const CString& GetSCPDURL() const { return m_SCPDURL; }

    /// The HTTP status of the last answer; 200 is success, any other a fault. 0 before the first.
    int GetResponseCode() const { return m_ResponseCode; }
    const CString& GetErrorCode() const { return m_ErrorCode; }
    const CString& GetErrorDescription() const { return m_ErrorDescription; }

    /// The last answer as name, value, name, value ...
    const std::vector<CString>& GetCommandResults() const { return m_CommandResults; }

    /// The current action and its arguments.
    const CString& GetCommand() const { return m_Command; }
    const std::vector<CString>& GetCommandParams() const { return m_CommandParams; }

    const CString& GetHost() const { return m_Host; }
    UINT GetHostPort() const { return m_HostPort; }
    const CString& GetHostPath() const { return m_HostPath; }

    /// Counts the answers read. A Command that returned true without a change of this number was only queued.
    UINT GetAnswerSerial() const { return m_AnswerSerial; }

protected:
    /// Reads the answer that `socket` has collected.
    void ProcessHTML(CUPnPHTTPSocket* socket, const char* response, int responseLength, const char* body,
                     int bodyLength) override;

    CUPnPDevice* GetParent() const;

private:
    friend class tavronet::DescriptionBuilder; // fills in what the description says

    struct BlockingCall;
    struct QueuedCommand
    {
        CString action;
        std::vector<CString> arguments;
    };

    bool IsInFlight() const;
    bool Enqueue(CString action, std::vector<CString> arguments);
    bool Send();
    bool SendAndWait(HANDLE cancel);
    bool OpenConnection();
    void WakeBlockingCall(bool answered);
    void StartQueuedCommand();

    // from the description
    CString m_ServiceID;
    CString m_ControlURL;
    CString m_EventSubURL;
    CString m_SCPDURL;
    CString m_Host; // IPv6 addresses without brackets
    UINT m_HostPort = 0;
    CString m_HostPath;

    // the action in flight
    CUPnPServiceSocket* m_pServiceSocket = nullptr; // owned, deleted by ReleaseUPnPServiceSocket
    BlockingCall* m_pBlockingCall = nullptr;        // the frame that waits for it, not owned
    CString m_Command;
    std::vector<CString> m_CommandParams;
    std::list<QueuedCommand> m_QueuedCommands; // oldest first; takes no memory while there are none

    // the last answer
    int m_ResponseCode = 0;
    UINT m_AnswerSerial = 0;
    CString m_ErrorCode;
    CString m_ErrorDescription;
    std::vector<CString> m_CommandResults;
};

#endif
