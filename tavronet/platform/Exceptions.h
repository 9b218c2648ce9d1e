#ifndef TAVRONET_PLATFORM_EXCEPTIONS_H
#define TAVRONET_PLATFORM_EXCEPTIONS_H

#include "tavronet/platform/Export.h"
#include "tavronet/platform/Types.h"

/// The base of what the library throws. Exceptions are thrown and caught as pointers; whoever ends one calls
/// Delete: `catch (CException* exception) { exception->Delete(); }`.
class TAVRONET_API CException
{
public:
    virtual ~CException();

    CException(const CException&) = delete;
    CException& operator=(const CException&) = delete;

    /// Ends the object. To be called once, by the handler that does not pass the exception on.
    virtual void Delete();

protected:
    constexpr CException() = default;
};

/// Memory is exhausted, or a size is beyond what the library handles.
///
/// One object made in advance serves every throw on every thread, so throwing it allocates nothing of ours.
class TAVRONET_API CMemoryException : public CException
{
public:
    constexpr CMemoryException() = default;
    ~CMemoryException() override;

    /// Does nothing: the object is shared.
    void Delete() override;
};

/// A system service failed in a place that has no result to report it with.
class TAVRONET_API COleException : public CException
{
public:
    /// @param error a code of LastError.h.
    explicit COleException(int error);
    ~COleException() override;

    /// The result code: 0x80070000 with the lower 16 bits of the error; 0 for no error.
    const LONG m_sc;
};

namespace tavronet
{

/// Throws the shared CMemoryException*.
[[noreturn]] void ThrowMemoryException();

/// Throws a COleException* holding the thread's last error.
[[noreturn]] void ThrowOleException();

} // namespace tavronet

#endif
