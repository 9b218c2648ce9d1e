/// Contexts that were set up alike share one of OpenSSL. Internal.
#ifndef TAVRONET_OPENSSL_CONTEXTRECIPE_H
#define TAVRONET_OPENSSL_CONTEXTRECIPE_H

#include <openssl/ssl.h>

#include <functional>
#include <string>
#include <vector>

namespace tavronet
{

/// What the provider hands out as a context: the steps by which one is set up.
///
/// Every socket asks for a context of its own and has it read the same files, which takes about as long as a
/// handshake. So a step that is known to succeed, because a context was made by the same steps from the same
/// files, is only noted, and the session is made from that context. From the first step on that is not known
/// they are done for real.
class ContextRecipe
{
public:
    /// @return whether it succeeded.
    using Step = std::function<bool(SSL_CTX*)>;

    explicit ContextRecipe(const SSL_METHOD* method) : m_pMethod(method) {}
    ~ContextRecipe() { SSL_CTX_free(m_pDraft); }
    ContextRecipe(const ContextRecipe&) = delete;
    ContextRecipe& operator=(const ContextRecipe&) = delete;

    /// @param name tells this step from any other: what it does, with what, and the state of its files now.
    /// @return false when it was done and failed; the recipe then makes no more sessions.
    bool Add(const std::string& name, const Step& step);

    /// @return null when there is no context.
    SSL* NewSession();

    // For the step that reads the private key.
    pem_password_cb* passwordCallback = nullptr;
    void* passwordData = nullptr;

private:
    SSL_CTX* Draft();

    const SSL_METHOD* m_pMethod;
    std::string m_Name; // of all steps
    std::vector<Step> m_Steps;
    SSL_CTX* m_pDraft = nullptr; // a reference; all steps are done in it
    bool m_Failed = false;
};

/// The state of a file, for the name of a step that reads it: another after the file was changed or replaced.
std::string FileState(const char* path);

} // namespace tavronet

#endif
