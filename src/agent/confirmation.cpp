#include "agent/confirmation.h"

#include <atomic>

#include "agent/settings.h"

namespace {
std::atomic<KeyOperationConfirmer> confirmer{nullptr};
}  // namespace

void key_operation_confirmer_set(KeyOperationConfirmer value) { confirmer = value; }

bool confirm_key_operation(const char *key_description)
{
    if (!agent_settings().ConfirmKeyOp)
        return true;
    KeyOperationConfirmer ask = confirmer.load();
    return ask != nullptr && ask(key_description);
}
