#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>

namespace gateway
{

/// A numeric address with a port, IPv4 or IPv6, in the form the system calls take.
class Endpoint
{
public:
    Endpoint();

    /// Reads an address literal ("10.0.0.1", "fd00::1", "fe80::1%eth0"); names are never resolved.
    static std::optional<Endpoint> Parse(const std::string& host, std::uint16_t port);

    /// The local end of a socket.
    static Endpoint LocalOf(int descriptor);

    [[nodiscard]] bool IsIPv6() const { return m_Storage.ss_family == AF_INET6; }
    [[nodiscard]] std::uint16_t Port() const;
    void SetPort(std::uint16_t port);
    void SetScope(unsigned interfaceIndex);

    /// The address alone, with its scope when it has one.
    [[nodiscard]] std::string Host() const;
    /// The address as it stands in a URL: IPv6 in brackets, the scope only on request.
    [[nodiscard]] std::string UrlHost(bool withScope) const;
    /// "10.0.0.1:80" or "[fd00::1]:80".
    [[nodiscard]] std::string Text() const;

    /// Index of the interface that carries this address, 0 when none does.
    [[nodiscard]] unsigned InterfaceIndex() const;

    [[nodiscard]] const sockaddr* Raw() const { return reinterpret_cast<const sockaddr*>(&m_Storage); }
    [[nodiscard]] sockaddr* Raw() { return reinterpret_cast<sockaddr*>(&m_Storage); }
    [[nodiscard]] socklen_t Length() const;
    [[nodiscard]] in_addr IPv4() const;

private:
    sockaddr_storage m_Storage;
};

bool operator==(const Endpoint& left, const Endpoint& right);

} // namespace gateway
