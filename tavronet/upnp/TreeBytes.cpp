#include "tavronet/upnp/TreeBytes.h"

#include <atomic>

#include "tavronet/upnp/Limits.h"

namespace tavronet
{

namespace
{

std::atomic<std::size_t> g_AllTrees = 0;

} // namespace

bool TreeBytes::Take(std::size_t bytes)
{
    m_Bytes += bytes;
    const std::size_t all = g_AllTrees += bytes;
    return m_Bytes <= kOrdinaryTreeBytes || all <= kMaxTreeBytes;
}

void TreeBytes::Give(std::size_t bytes)
{
    m_Bytes -= bytes;
    g_AllTrees -= bytes;
}

} // namespace tavronet
