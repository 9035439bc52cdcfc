#include "agent/passphrase_prompt.h"

#include <atomic>

namespace {
std::atomic<KeyPassphrasePrompt> shell_prompt{nullptr};
}  // namespace

void key_passphrase_prompt_set(KeyPassphrasePrompt prompt) { shell_prompt = prompt; }

bool ask_key_passphrase(const char *prompt, SecretString *answer)
{
    KeyPassphrasePrompt ask = shell_prompt.load();
    return ask != nullptr && ask(prompt, answer);
}
