#include "keys/cert_key_hooks.h"

#include <atomic>

#include "log/log.h"

namespace {
std::atomic<const CertKeyHooks *> installed{nullptr};
}  // namespace

void cert_key_hooks_set(const CertKeyHooks *hooks) { installed = hooks; }

const CertKeyHooks &cert_key_hooks()
{
    const CertKeyHooks *hooks = installed.load();
    if (!hooks)
        fatal("cert_key_hooks: the certificate layer is not installed");
    return *hooks;
}
