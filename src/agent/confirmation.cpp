#include "agent/confirmation.h"

#include "agent/settings.h"
#include "agent/shell_services.h"

bool confirm_key_operation(const char *key_description)
{
    if (!agent_settings().ConfirmKeyOp)
        return true;
    auto ask = shell_services().confirm_key_operation;
    return ask != nullptr && ask(key_description);
}
