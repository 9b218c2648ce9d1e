// The ready-made SSL provider from outside the tree, by its own library.
#include <tavronet/openssl/OpenSSLProvider.h>

int main()
{
    const COpenSSL& ssl = *OpenSSLProvider();
    ssl_ctx_st* const context = ssl.SSL_CTX_new(ssl.SSL_method());
    // A member that is no part of the header: the library of the connections is there too.
    const bool refused = ssl.SSL_CTX_load_verify_locations(context, L"no such file", nullptr) == 0;
    ssl.SSL_CTX_free(context);
    return ssl.m_bLoaded && context != nullptr && refused ? 0 : 1;
}
