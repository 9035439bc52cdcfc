#include "agent/passphrase_prompt.h"

#include "agent/shell_services.h"

bool ask_key_passphrase(const char *prompt, SecretString *answer)
{
    auto ask = shell_services().ask_key_passphrase;
    return ask != nullptr && ask(prompt, answer);
}
