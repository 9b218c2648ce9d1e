#ifndef TAVRONET_UPNP_TREEBYTES_H
#define TAVRONET_UPNP_TREEBYTES_H

#include <cstddef>

namespace tavronet
{

/// The memory that one described tree keeps, counted in that of all trees of the process. Any thread, each object
/// on one.
class TreeBytes
{
public:
    TreeBytes() = default;
    ~TreeBytes() { Give(m_Bytes); }
    TreeBytes(const TreeBytes&) = delete;
    TreeBytes& operator=(const TreeBytes&) = delete;

    /// Counts `bytes` in, which Give then takes back, also when they do not fit.
    /// @return whether they fit: the tree is an ordinary one, or all trees keep no more than they may together.
    [[nodiscard]] bool Take(std::size_t bytes);
    void Give(std::size_t bytes);

    std::size_t Count() const { return m_Bytes; }

private:
    std::size_t m_Bytes = 0;
};

} // namespace tavronet

#endif
