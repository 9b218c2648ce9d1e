#include "tavronet/upnp/UPnPPortMap.h"

#include <cwchar>
#include <string>
#include <utility>

#include "tavronet/platform/TextConversion.h"

CUPnPPortMap::CUPnPPortMap(const char* index, const char* remoteHost, const char* externalPort,
                           const char* protocol, const char* internalPort, const char* internalClient,
                           const char* enabled, const char* description, const char* leaseDuration)
{
    Pack({CStringW(index), CStringW(remoteHost), CStringW(externalPort), CStringW(protocol),
          CStringW(internalPort), CStringW(internalClient), CStringW(enabled), CStringW(description),
          CStringW(leaseDuration)});
}

CUPnPPortMap::CUPnPPortMap(unsigned int port, const char* protocol, const char* internalClient,
                           const char* description)
{
    CStringW number;
    number.Format(L"%d", static_cast<int>(port));
    Pack({CStringW(), CStringW(), number, CStringW(protocol), number, CStringW(internalClient),
          CStringW(L"1"), CStringW(description), CStringW(L"0")});
}

CUPnPPortMap::CUPnPPortMap(const CUPnPPortMap& other) : m_Added(other.m_Added), m_Deleted(other.m_Deleted)
{
    Pack(other.Unpacked());
}

CUPnPPortMap& CUPnPPortMap::operator=(const CUPnPPortMap& other)
{
    Pack(other.Unpacked());
    m_Added = other.m_Added;
    m_Deleted = other.m_Deleted;
    return *this;
}

CUPnPPortMap::~CUPnPPortMap() = default;

const wchar_t* CUPnPPortMap::TextAt(int which) const
{
    const wchar_t* text = m_pTexts.get();
    for (; which > 0; --which)
        text += std::wcslen(text) + 1;
    return text;
}

std::size_t CUPnPPortMap::TextLength() const
{
    const wchar_t* const last = TextAt(LeaseText);
    return static_cast<std::size_t>(last - m_pTexts.get()) + std::wcslen(last) - LeaseText;
}

void CUPnPPortMap::SetText(int which, const char* text)
{
    Texts texts = Unpacked();
    texts[static_cast<std::size_t>(which)] = CStringW(text);
    Pack(texts);
}

CUPnPPortMap::Texts CUPnPPortMap::Unpacked() const
{
    Texts texts;
    for (int which = 0; which < TextCount; ++which)
        texts[static_cast<std::size_t>(which)] = TextAt(which);
    return texts;
}

void CUPnPPortMap::Pack(const Texts& texts)
{
    std::wstring packed;
    for (const CStringW& text : texts)
        (packed += text.GetString()) += L'\0';
    auto array = std::make_unique<wchar_t[]>(packed.size());
    packed.copy(array.get(), packed.size());
    m_pTexts = std::move(array);
}

bool CUPnPPortMap::Enabled() const
{
    return tavronet::ReadInt32(GetEnabled()) != 0;
}

unsigned int CUPnPPortMap::ExternalPort() const
{
    return static_cast<unsigned int>(tavronet::ReadInt32(GetExternalPort()));
}

unsigned int CUPnPPortMap::InternalPort() const
{
    return static_cast<unsigned int>(tavronet::ReadInt32(GetInternalPort()));
}

DWORD CUPnPPortMap::LeaseDuration() const
{
    return static_cast<DWORD>(tavronet::ReadInt32(GetLeaseDuration()));
}
