#ifndef TAVRONET_TAVRONET_H
#define TAVRONET_TAVRONET_H

/// Everything that is public, layer by layer. C programs include tavronet/api/UPnPApi.h alone.

#include "tavronet/platform/AsyncSocket.h"
#include "tavronet/platform/Event.h"
#include "tavronet/platform/Exceptions.h"
#include "tavronet/platform/Export.h"
#include "tavronet/platform/LastError.h"
#include "tavronet/platform/Lifetime.h"
#include "tavronet/platform/MessageQueue.h"
#include "tavronet/platform/String.h"
#include "tavronet/platform/TickCount.h"
#include "tavronet/platform/Types.h"
#include "tavronet/platform/Wait.h"

#include "tavronet/net/AddressRanges.h"
#include "tavronet/net/AddressText.h"
#include "tavronet/net/LocalInterfaces.h"

#include "tavronet/socket/ByteBuffer.h"
#include "tavronet/socket/OpenSSLContract.h"
#include "tavronet/socket/TavroProductSocket.h"
#include "tavronet/socket/TavroSocket.h"
#include "tavronet/socket/ZLibCompression.h"

#include "tavronet/upnp/UPnPDevice.h"
#include "tavronet/upnp/UPnPDeviceSocket.h"
#include "tavronet/upnp/UPnPHTTPSocket.h"
#include "tavronet/upnp/UPnPNetwork.h"
#include "tavronet/upnp/UPnPObject.h"
#include "tavronet/upnp/UPnPPortMap.h"
#include "tavronet/upnp/UPnPSSDPSocket.h"
#include "tavronet/upnp/UPnPService.h"
#include "tavronet/upnp/UPnPServiceSocket.h"
#include "tavronet/upnp/UPnPSocket.h"

#include "tavronet/api/UPnPApi.h"

#endif
