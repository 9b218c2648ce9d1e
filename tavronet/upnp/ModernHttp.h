#ifndef TAVRONET_UPNP_MODERNHTTP_H
#define TAVRONET_UPNP_MODERNHTTP_H

#include <cstddef>
#include <string>
#include <string_view>

#include "tavronet/upnp/UPnPDialect.h"

/// Responses as devices frame them: line ends with or without CR, interim responses in front, chunks.
namespace tavronet
{

/// How many bytes of interim (1xx) responses stand in front of the response proper.
std::size_t InterimBytes(std::string_view message);

/// Behind the blank line that ends the header at or behind `from`; npos when it is not there.
std::size_t FindHeaderEnd(std::string_view message, std::size_t from);

/// Finds a header by name, in any case and with blanks before the colon. @return false when it is not there.
bool FindHeaderValue(std::string_view header, std::string_view name, std::string_view& value);

/// The status in a response's first line; 0 without one.
int StatusOf(std::string_view header);

bool IsChunked(std::string_view header);

/// Whether a body that is announced in chunks can be one as far as it has arrived.
bool BeginsWithChunk(std::string_view body);

/// Goes on from chunk to chunk as far as they have arrived. Behind what is no chunk there is none.
/// @param scan fresh for a new body.  @param joined gets the data of the chunks passed; null to look only.
/// @return whether the last chunk is there.
bool JoinChunks(std::string_view body, ChunkScan& scan, std::string* joined);

} // namespace tavronet

#endif
