#include "tavronet/openssl/ContextRecipe.h"

#include <sys/stat.h>

#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>

namespace tavronet
{
namespace
{

constexpr std::size_t kMaxShared = 16; // more kinds of context than a program has; the oldest goes

/// The contexts that were made, under the names of their steps. They stay as long as the process.
class SharedContexts
{
public:
    static SharedContexts& All()
    {
        static SharedContexts* const all = new SharedContexts; // sockets may outlive static objects
        return *all;
    }

    /// Whether some context was made by these steps and perhaps others.
    bool Begins(const std::string& name)
    {
        const std::lock_guard lock(m_Mutex);
        return std::ranges::any_of(m_Contexts,
                                   [&](const auto& entry) { return entry.first.starts_with(name); });
    }
    /// @return a reference, or null.
    SSL_CTX* Find(const std::string& name)
    {
        const std::lock_guard lock(m_Mutex);
        const auto found = std::ranges::find(m_Contexts, name, &Entry::first);
        if (found == m_Contexts.end())
            return nullptr;
        SSL_CTX_up_ref(found->second);
        return found->second;
    }
    void Add(const std::string& name, SSL_CTX* context)
    {
        const std::lock_guard lock(m_Mutex);
        m_Contexts.emplace_back(name, context);
        SSL_CTX_up_ref(context);
        if (m_Contexts.size() <= kMaxShared)
            return;
        SSL_CTX_free(m_Contexts.front().second);
        m_Contexts.pop_front();
    }

private:
    using Entry = std::pair<std::string, SSL_CTX*>;
    std::mutex m_Mutex;
    std::deque<Entry> m_Contexts;
};

SSL_CTX* NewContext(const SSL_METHOD* method)
{
    SSL_CTX* const context = SSL_CTX_new(method);
    if (context == nullptr)
        return nullptr;
    // A write is repeated from where its bytes then stand; an idle session holds no buffers.
    SSL_CTX_set_mode(context, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(context, 0);
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    return context;
}

} // namespace

bool ContextRecipe::Add(const std::string& name, const Step& step)
{
    m_Name += name + '\n';
    m_Steps.push_back(step);
    if (m_Failed)
        return false;
    if (m_pDraft == nullptr && SharedContexts::All().Begins(m_Name))
        return true;
    m_Failed = m_pDraft != nullptr ? !step(m_pDraft) : Draft() == nullptr;
    return !m_Failed;
}

/// @return a context in which all steps are done; null when one has failed.
SSL_CTX* ContextRecipe::Draft()
{
    if (m_pDraft != nullptr)
        return m_pDraft;
    m_pDraft = NewContext(m_pMethod);
    const auto succeeds = [this](const Step& step) { return step(m_pDraft); };
    if (m_pDraft != nullptr && !std::ranges::all_of(m_Steps, succeeds))
        SSL_CTX_free(std::exchange(m_pDraft, nullptr));
    return m_pDraft;
}

SSL* ContextRecipe::NewSession()
{
    if (m_Failed)
        return nullptr;
    SSL_CTX* context = SharedContexts::All().Find(m_Name);
    if (context == nullptr && Draft() != nullptr) {
        SharedContexts::All().Add(m_Name, m_pDraft);
        context = std::exchange(m_pDraft, nullptr); // later steps must not change what others share
    }
    SSL* const session = context != nullptr ? SSL_new(context) : nullptr;
    SSL_CTX_free(context);
    return session;
}

std::string FileState(const char* path)
{
    struct stat state = {};
    if (stat(path, &state) != 0)
        return "none";
    std::string text;
    for (const auto part :
         {static_cast<long long>(state.st_dev), static_cast<long long>(state.st_ino),
          static_cast<long long>(state.st_size), static_cast<long long>(state.st_ctim.tv_sec),
          static_cast<long long>(state.st_ctim.tv_nsec)})
        text += std::to_string(part) + ' ';
    return text;
}

} // namespace tavronet
