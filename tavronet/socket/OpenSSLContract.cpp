#include "tavronet/socket/OpenSSLContract.h"

#include "tavronet/platform/TextConversion.h"

int COpenSSL::SSL_CTX_load_verify_locations(ssl_ctx_st* context, const wchar_t* file,
                                            const wchar_t* directory) const
{
    return Call<int, ssl_ctx_st*, const char*, const char*>(m_pSSL_CTX_load_verify_locations, context,
                                                            tavronet::NarrowText(file),
                                                            tavronet::NarrowText(directory));
}
