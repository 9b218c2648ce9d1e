#ifndef TAVRONET_OPENSSL_OPENSSLPROVIDER_H
#define TAVRONET_OPENSSL_OPENSSLPROVIDER_H

#include "tavronet/platform/Export.h"
#include "tavronet/socket/OpenSSLContract.h"

/// The ready-made SSL provider, made of the system's OpenSSL 3:
/// `CTavroProductSocket::Init(OpenSSLProvider());` before the first socket enters SSL mode.
///
/// Every mode is TLS 1.2 or 1.3, whichever is the highest that the peer has too; modes differ in nothing.
/// Certificates:  the file may hold the whole chain, the own certificate first.
/// Trusted CAs:   once loaded, every peer must show a certificate that they vouch for, client or server.
///                Without them anybody is accepted.
/// Host name:     told to the server (addresses are not); with trusted CAs its certificate must be for it.
/// Ciphers:       suites without authentication or encryption are left out, whatever the list says.
/// Restricted:    when OpenSSL's default properties ask for the FIPS provider.
/// A peer cannot renegotiate, and sessions are not resumed.
/// Contexts:      those set up alike, from files that have not changed, share what they hold, and the last 16
///                kinds are kept: the files are read once. They are for the entries of this table only.
/// No entry raises SIGPIPE or depends on the error queue of the thread.
/// @return a table that lives as long as the process; to change an entry, copy it.
TAVRONET_API COpenSSL* OpenSSLProvider();

#endif
