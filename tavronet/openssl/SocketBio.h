/// A socket I/O object for OpenSSL whose writes raise no signal and whose reads run ahead. Internal.
#ifndef TAVRONET_OPENSSL_SOCKETBIO_H
#define TAVRONET_OPENSSL_SOCKETBIO_H

struct bio_st;

namespace tavronet
{

/// @param closesHandle whether freeing the object closes the handle.  @return null when memory is exhausted.
bio_st* NewSocketBio(int handle, int closesHandle);

/// Command of BIO_ctrl: from now on what is written to such an object goes nowhere.
inline constexpr int kDropWrites = 0x5461;

} // namespace tavronet

#endif
