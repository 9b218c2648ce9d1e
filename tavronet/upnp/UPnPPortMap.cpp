#include "tavronet/upnp/UPnPPortMap.h"

#include "tavronet/platform/TextConversion.h"

CUPnPPortMap::CUPnPPortMap(const char* index, const char* remoteHost, const char* externalPort,
                           const char* protocol, const char* internalPort, const char* internalClient,
                           const char* enabled, const char* description, const char* leaseDuration)
    : m_PortMappingIndex(index),
      m_RemoteHost(remoteHost),
      m_ExternalPort(externalPort),
      m_Protocol(protocol),
      m_InternalPort(internalPort),
      m_InternalClient(internalClient),
      m_Enabled(enabled),
      m_PortMappingDescription(description),
      m_LeaseDuration(leaseDuration)
{
}

CUPnPPortMap::CUPnPPortMap(unsigned int port, const char* protocol, const char* internalClient,
                           const char* description)
    : m_Protocol(protocol),
      m_InternalClient(internalClient),
      m_Enabled(L"1"),
      m_PortMappingDescription(description),
      m_LeaseDuration(L"0")
{
    m_ExternalPort.Format(L"%d", static_cast<int>(port));
    m_InternalPort = m_ExternalPort;
}

CUPnPPortMap::CUPnPPortMap(const CUPnPPortMap&) = default;
CUPnPPortMap& CUPnPPortMap::operator=(const CUPnPPortMap&) = default;
CUPnPPortMap::~CUPnPPortMap() = default;

bool CUPnPPortMap::Enabled() const
{
    return tavronet::ReadInt32(m_Enabled.View()) != 0;
}

unsigned int CUPnPPortMap::ExternalPort() const
{
    return static_cast<unsigned int>(tavronet::ReadInt32(m_ExternalPort.View()));
}

unsigned int CUPnPPortMap::InternalPort() const
{
    return static_cast<unsigned int>(tavronet::ReadInt32(m_InternalPort.View()));
}

DWORD CUPnPPortMap::LeaseDuration() const
{
    return static_cast<DWORD>(tavronet::ReadInt32(m_LeaseDuration.View()));
}
