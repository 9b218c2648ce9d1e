// The way from a node to its network: what needs both stands here, above both.

#include "tavronet/upnp/UPnPDialect.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPObject.h"

void CUPnPObject::UPnPEvent(int code)
{
    if (CUPnPNetwork* const network = GetUPnPNetwork())
        network->UPnPEvent(code, this);
}

HANDLE CUPnPObject::GetCancelEvent() const
{
    const CUPnPNetwork* const network = GetUPnPNetwork();
    return network != nullptr ? network->GetCancelEvent() : nullptr;
}

namespace tavronet
{

const UPnPDialect& DialectOf(const CUPnPObject& node)
{
    const CUPnPNetwork* const network = node.GetUPnPNetwork();
    return network != nullptr ? network->Dialect() : ClassicDialect();
}

} // namespace tavronet
