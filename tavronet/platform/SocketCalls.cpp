#include "tavronet/platform/SocketCalls.h"

#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <new>
#include <string>
#include <string_view>

#include "tavronet/platform/LastError.h"
#include "tavronet/platform/TextConversion.h"

namespace
{

// The descriptor behind a handle; -1, which every call refuses, for what never was one.
int Descriptor(SOCKET handle)
{
    return handle <= INT_MAX ? static_cast<int>(handle) : -1;
}

int Checked(int result)
{
    if (result != 0)
        tavronet::SetLastErrorFromErrno();
    return result;
}

int CodeOfHostLookup(int result)
{
    switch (result) {
    case TRY_AGAIN: return WSATRY_AGAIN;
    case NO_RECOVERY: return WSANO_RECOVERY;
    default: return WSAHOST_NOT_FOUND;
    }
}

bool IsNumberOutsidePorts(const char* service)
{
    if (service == nullptr)
        return false;
    std::string_view digits(service);
    const bool isSigned = digits.starts_with('-') || digits.starts_with('+');
    digits.remove_prefix(isSigned ? 1 : 0);
    const bool isNumber = !digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos;
    if (!isNumber)
        return false;
    const int port = tavronet::ReadInt32(service);
    return port < 0 || port > 65535;
}

template <typename Call>
int QueryName(Call call, SOCKET handle, sockaddr* address, int* addressLength)
{
    socklen_t length = static_cast<socklen_t>(*addressLength);
    const int result = Checked(call(Descriptor(handle), address, &length));
    if (result == 0)
        *addressLength = static_cast<int>(length);
    return result;
}

bool Grow(std::string& buffer)
{
    try {
        buffer.resize(buffer.size() * 2 + 1024);
        return true;
    } catch (const std::bad_alloc&) {
        WSASetLastError(WSA_NOT_ENOUGH_MEMORY);
        return false;
    }
}

} // namespace

int platform::ResolverError(int result)
{
    switch (result) {
    case 0: return 0;
    case EAI_AGAIN: return WSATRY_AGAIN;
    case EAI_FAIL: return WSANO_RECOVERY;
    case EAI_FAMILY: return WSAEAFNOSUPPORT;
    case EAI_SOCKTYPE: return WSAESOCKTNOSUPPORT;
    case EAI_SERVICE: return WSATYPE_NOT_FOUND;
    case EAI_BADFLAGS: return WSAEINVAL;
    case EAI_MEMORY: return WSA_NOT_ENOUGH_MEMORY;
    case EAI_SYSTEM: return tavronet::LastErrorFromErrno(errno);
    default: // unknown, not numeric, or of the other family
        return WSAHOST_NOT_FOUND;
    }
}
int platform::getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** result)
{
    if (host != nullptr && *host == '\0')
        host = nullptr;
    if (IsNumberOutsidePorts(service))
        return WSATYPE_NOT_FOUND;
    if (hints == nullptr || hints->ai_socktype == SOCK_STREAM)
        return ResolverError(::getaddrinfo(host, service, hints, result));

    addrinfo anyProtocol = *hints;
    anyProtocol.ai_protocol = 0;
    return ResolverError(::getaddrinfo(host, service, &anyProtocol, result));
}

void platform::freeaddrinfo(addrinfo* result)
{
    if (result != nullptr)
        ::freeaddrinfo(result);
}

int platform::getnameinfo(const sockaddr* address, int addressLength, char* host, int hostSize, char* service,
                          int serviceSize, int flags)
{
    // The system prints local addresses of files as the machine's name.
    const bool isInternet =
        addressLength > 0 && (address->sa_family == AF_INET || address->sa_family == AF_INET6);
    if (!isInternet)
        return WSAEAFNOSUPPORT;
    const auto unsignedSize = [](int size) { return static_cast<socklen_t>(size < 0 ? 0 : size); };
    return ResolverError(::getnameinfo(address, unsignedSize(addressLength), host, unsignedSize(hostSize),
                                       service, unsignedSize(serviceSize), flags));
}

int platform::bind(SOCKET handle, const sockaddr* address, int addressLength)
{
    return Checked(::bind(Descriptor(handle), address, static_cast<socklen_t>(addressLength)));
}

int platform::listen(SOCKET handle, int backlog)
{
    return Checked(::listen(Descriptor(handle), backlog));
}

int platform::setsockopt(SOCKET handle, int level, int option, const void* value, int length)
{
    return Checked(::setsockopt(Descriptor(handle), level, option, value, static_cast<socklen_t>(length)));
}

int platform::getsockopt(SOCKET handle, int level, int option, void* value, int* length)
{
    socklen_t size = static_cast<socklen_t>(*length);
    const int result = Checked(::getsockopt(Descriptor(handle), level, option, value, &size));
    if (result == 0)
        *length = static_cast<int>(size);
    return result;
}

int platform::getsockname(SOCKET handle, sockaddr* address, int* addressLength)
{
    return QueryName(::getsockname, handle, address, addressLength);
}

int platform::getpeername(SOCKET handle, sockaddr* address, int* addressLength)
{
    return QueryName(::getpeername, handle, address, addressLength);
}

int platform::gethostname(char* name, int size)
{
    return Checked(::gethostname(name, static_cast<std::size_t>(size < 0 ? 0 : size)));
}

const hostent* platform::gethostbyname(const char* name)
{
    // The system's plain call shares one result among all threads.
    constexpr std::size_t largestBuffer = 1024 * 1024;
    thread_local std::string buffer;
    thread_local hostent entry;

    hostent* found = nullptr;
    int hostError = NO_RECOVERY;
    int status = ERANGE;
    buffer.clear();
    while (status == ERANGE && buffer.size() < largestBuffer) {
        if (!Grow(buffer))
            return nullptr;
        status = ::gethostbyname_r(name, &entry, buffer.data(), buffer.size(), &found, &hostError);
    }
    if (found == nullptr)
        WSASetLastError(CodeOfHostLookup(hostError));
    return found;
}

DWORD platform::inet_addr(const char* text)
{
    return text == nullptr ? INADDR_NONE : ::inet_addr(text);
}

bool platform::WaitingBytes(SOCKET handle, UINT& count)
{
    int waiting = 0; // the system writes 32 bits
    if (Checked(::ioctl(Descriptor(handle), FIONREAD, &waiting)) != 0)
        return false;
    count = static_cast<UINT>(waiting);
    return true;
}
