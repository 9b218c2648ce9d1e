/// Port mapping on Internet gateways through plain functions; usable from C99 and C++.
///
/// One network object per process, made by UPnPDiscoverStartup or UPnPDiscover and ended by UPnPClose, is
/// behind all of them. They have no callback: a host calls UPnPDispatch over and over, in which gateways'
/// answers arrive, and UPnPTickle about every second, and asks.
///
/// Thread: one thread for everything here, the one that started; nothing is locked.
/// During a call: UPnPDiscover (when it waits), UPnPTickle and the functions with a `cancel` argument, except
/// UPnPDeviceIsDescriptionComplete, may dispatch the thread's messages. The host's own handlers run inside
/// them and may call anything, UPnPClose included.
/// Devices: `device` is this machine's own address, in the text form that the library lists it, on the
/// interface through which the gateway answered ("192.168.1.100"); the first gateway found there is meant.
/// The ...ByIndex functions take its place in the list of gateways instead, from 0; the first index behind
/// the last gives UPnPNoDevice.
/// Cancelling: `cancel` is null or a manual-reset event, which CreateEventW(NULL, 1, 0, NULL) makes and any
/// thread signals with SetEvent (tavronet/platform/Event.h); once it is signalled, waits end early and the
/// operation fails. Never closed here.
/// Results: one of UPnPResult. Besides those that a function names, UPnPNoNetwork comes from all but the
/// start-up functions, UPnPSetDialect and UPnPDispatch, UPnPNoDevice from all with a device, and UPnPException from all.
/// Outputs stay as they were unless the result is UPnPSuccess or the function says otherwise. A null output
/// or a size of 0 or less gives UPnPFailed, without traffic.
/// Text: UTF-8, terminated.
#ifndef TAVRONET_API_UPNPAPI_H
#define TAVRONET_API_UPNPAPI_H

#include <stdbool.h>

#include "tavronet/platform/Export.h"
#include "tavronet/platform/Types.h"

#ifdef __cplusplus
extern "C" {
#endif

/// What the functions return.
enum UPnPResult
{
    UPnPSuccess = 0,
    UPnPNotComplete = 1,   ///< discovery has not finished yet
    UPnPNoNetwork = 3,     ///< not started, or closed
    UPnPNetworkExists = 4, ///< started already
    UPnPOutOfMemory = 5,   ///< the network object could not be allocated
    UPnPCancelled = 6,     ///< the cancel event ended the wait; the network object stays
    UPnPNoDevice = 7,      ///< no device has that address or index
    UPnPFailed = 8, ///< the gateway did not answer, cannot map ports, or refused; or an argument is unusable
    UPnPException = 9 ///< the library threw a CException; memory is exhausted
};

/// Chooses how the next start-up speaks with gateways.
/// @param dialect 0 classic: gateways of the first generation (as long as this was never called); 1 modern:
///        gateways as they are deployed today.
/// @return UPnPSuccess; UPnPNetworkExists, changing nothing; UPnPFailed for another value.
TAVRONET_API int UPnPSetDialect(int dialect);

/// Makes the network object and starts searching; answers arrive while the host pumps.
/// @return UPnPSuccess, UPnPNetworkExists, UPnPOutOfMemory.
TAVRONET_API int UPnPDiscoverStartup(void);

/// The host's pump: waits until something is due on this thread, at most `milliseconds`, and dispatches what
/// is due, which may run handlers that the host posted.
/// @param milliseconds 0 does not wait.
/// @return UPnPSuccess, also when nothing was due.
TAVRONET_API int UPnPDispatch(unsigned int milliseconds);

/// UPnPDiscoverStartup, then waits, dispatching, until the discovery period of 10 s is over, whatever was
/// found.
/// @param wait false returns at once.
/// @return the results of UPnPDiscoverStartup; UPnPCancelled; UPnPNoNetwork when a message handler closed the
///         network.
TAVRONET_API int UPnPDiscover(bool wait, HANDLE cancel);

/// Whether the discovery period is over.
/// @return UPnPSuccess when it is, otherwise UPnPNotComplete.
TAVRONET_API int UPnPDiscoverComplete(void);

/// Periodic upkeep: repeats searches, verifies mappings, drops gateways that are gone. May take as long as an
/// exchange with a gateway, 10 s.
TAVRONET_API int UPnPTickle(void);

/// Ends the network object and everything found. Mappings stay on the gateways.
TAVRONET_API int UPnPClose(void);

/// Whether the gateway's description has been read; before that, operations on it fail.
/// @param cancel not used.
TAVRONET_API int UPnPDeviceIsDescriptionComplete(HANDLE cancel, const char* device, bool* complete);
TAVRONET_API int UPnPDeviceIsDescriptionCompleteByIndex(HANDLE cancel, int index, bool* complete);

/// Asks the gateway for its address outside; at most 10 s.
/// @param buffer,size in bytes: filled up with zeros, cut to size - 1.
TAVRONET_API int UPnPGetExternalIPAddress(HANDLE cancel, const char* device, char* buffer, int size);
TAVRONET_API int UPnPGetExternalIPAddressByIndex(HANDLE cancel, int index, char* buffer, int size);

/// Asks whether the gateway translates addresses; at most 10 s.
/// @param enabled false when the gateway did not answer.
TAVRONET_API int UPnPGetDeviceNATEnabled(HANDLE cancel, const char* device, bool* enabled);
TAVRONET_API int UPnPGetDeviceNATEnabledByIndex(HANDLE cancel, int index, bool* enabled);

/// Has the gateway forward `port` to the same port of this machine, until it is deleted; at most 10 s.
/// @param description shown in the gateway's table; null for none.  @param protocol "TCP", "UDP", null for
///         TCP.
/// @return classic dialect: UPnPSuccess when the gateway answered, whatever it said. Modern dialect:
///         UPnPSuccess when it accepted; UPnPFailed also when another exchange with it was under way, since
///         this one is then sent later and its answer not known. In both UPnPGetLastGatewayError tells what
///         the gateway said.
TAVRONET_API int UPnPAddPortMap(HANDLE cancel, const char* device, unsigned int port, const char* description,
                                const char* protocol);

/// Deletes the mapping of `port`; at most 10 s.
/// @param protocol as it was added; null for TCP.
/// @return UPnPSuccess when the gateway answered, whatever it said, or cannot map ports at all.
TAVRONET_API int UPnPDeletePortMap(HANDLE cancel, const char* device, unsigned int port,
                                   const char* protocol);

/// Has the gateway forward `count` consecutive ports to the same ports of this machine, until they are deleted.
/// Looks for free ports first, then adds them: two exchanges a port, each at most 10 s; after a refusal again
/// further up, five times at most.
/// @param port the lowest that is wanted; on success the first that was mapped. Null gives UPnPFailed.
/// @param description of each mapping; the first %d in it becomes the position in the range, from 1, and %%
/// a
///        percent sign. Other integer conversions of printf work too; everything else is copied.
/// @param protocol "TCP", "UDP", null for TCP. Only TCP mappings count as taken when free ports are looked for.
/// @return UPnPSuccess when all of them are mapped, in both dialects. UPnPFailed otherwise: ports that were
///         mapped before an answer failed to come stay mapped, refused ranges are removed.
TAVRONET_API int UPnPAddPortMappingRange(HANDLE cancel, const char* device, unsigned int* port,
                                         unsigned int count, const char* description, const char* protocol);

/// Deletes the mappings of `count` consecutive ports; every one is tried, each for at most 10 s.
/// @return UPnPSuccess when the gateway answered each time, whatever it said, or cannot map ports at all;
///         UPnPFailed when an answer is missing, and for a range that goes beyond port 65535, of which the
///         part up to there is deleted.
TAVRONET_API int UPnPDeletePortMappingRange(HANDLE cancel, const char* device, unsigned int port,
                                            unsigned int count, const char* protocol);

/// What the gateway said to the last operation that it answered. No traffic.
/// @param httpStatus 200 when it accepted, another when it refused, 0 when it has never answered.
/// @param upnpCode the reason of the refusal (606 not authorised, 718 in use by another ...), 0 without one.
/// @param text,size the reason in the gateway's words: filled up with zeros, cut to size - 1 bytes.
TAVRONET_API int UPnPGetLastGatewayError(const char* device, int* httpStatus, int* upnpCode, char* text,
                                         int size);
TAVRONET_API int UPnPGetLastGatewayErrorByIndex(int index, int* httpStatus, int* upnpCode, char* text,
                                                int size);

/// Texts of the gateway's description, empty until it has been read. No traffic.
/// @param buffer,size in bytes: filled up with zeros, cut to size - 1 bytes at a whole character.
TAVRONET_API int UPnPGetDeviceFriendlyName(const char* device, char* buffer, int size);
TAVRONET_API int UPnPGetDeviceFriendlyNameByIndex(int index, char* buffer, int size);
TAVRONET_API int UPnPGetDeviceManufacturer(const char* device, char* buffer, int size);
TAVRONET_API int UPnPGetDeviceManufacturerByIndex(int index, char* buffer, int size);
TAVRONET_API int UPnPGetDeviceManufacturerURL(const char* device, char* buffer, int size);
TAVRONET_API int UPnPGetDeviceManufacturerURLByIndex(int index, char* buffer, int size);
TAVRONET_API int UPnPGetDeviceModelDescription(const char* device, char* buffer, int size);
TAVRONET_API int UPnPGetDeviceModelDescriptionByIndex(int index, char* buffer, int size);
TAVRONET_API int UPnPGetDeviceModelName(const char* device, char* buffer, int size);
TAVRONET_API int UPnPGetDeviceModelNameByIndex(int index, char* buffer, int size);

#ifdef __cplusplus
}
#endif

#endif
