#include "tavronet/upnp/UPnPService.h"

#include <string_view>
#include <utility>

#include "tavronet/platform/TextConversion.h"
#include "tavronet/upnp/Limits.h"
#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDialect.h"

CUPnPService::CUPnPService(CUPnPDevice* parent) : CUPnPObject(parent) {}

CUPnPDevice* CUPnPService::GetParent() const
{
    return static_cast<CUPnPDevice*>(CUPnPObject::GetParent());
}

void CUPnPService::ProcessHTML(CUPnPHTTPSocket*, const char* response, int responseLength, const char* body,
                               int bodyLength)
{
    CommandResponse(response, responseLength, body, bodyLength);
}

void CUPnPService::CommandResponse(const char* response, int responseLength, const char* body, int bodyLength)
{
    m_ErrorCode.Empty();
    m_ErrorDescription.Empty();
    ++m_AnswerSerial;

    const tavronet::UPnPDialect& dialect = tavronet::DialectOf(*this);
    const std::string_view text(response, static_cast<std::size_t>(responseLength));
    const std::size_t beforeStatus = dialect.FindStatus(text);
    if (beforeStatus != std::string_view::npos) {
        tavronet::ActionAnswer answer{
            tavronet::ReadInt32(text.substr(beforeStatus)), m_CommandParams, {}, {}};
        dialect.ReadAnswer(answer, {body, static_cast<std::size_t>(bodyLength)});
        m_ResponseCode = answer.status;
        m_CommandResults = std::move(answer.results);
        m_ErrorCode = std::move(answer.errorCode);
        m_ErrorDescription = std::move(answer.errorDescription);
    }
    const bool answered = true;
    WakeBlockingCall(answered);
}

const wchar_t* CUPnPService::GetCommandParameterResult(int index) const
{
    const std::size_t pairs = m_CommandResults.size() / 2;
    if (index < 0 || static_cast<std::size_t>(index) >= pairs)
        return L"";
    return m_CommandResults[2 * static_cast<std::size_t>(index) + 1];
}

bool CUPnPService::Enqueue(CString action, std::vector<CString> arguments)
{
    if (m_QueuedCommands.size() >= tavronet::kMaxQueuedActions)
        return false;
    m_QueuedCommands.push_back({std::move(action), std::move(arguments)});
    return true;
}

void CUPnPService::ReleaseCommandQueue()
{
    m_QueuedCommands.clear();
}
