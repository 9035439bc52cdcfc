#include "app/program_texts.h"

namespace {

struct Entry {
    int id;
    const char *text;
};

constexpr Entry texts[] = {
    {TEXT_APPLICATION_TITLE, "Tarnwell Key Agent"},
    {TEXT_LOCK_FAILED, "The key agent could not be locked."},
    {TEXT_UNLOCK_FAILED, "Wrong passphrase. The key agent stays locked."},
    {TEXT_UNLOCK_DIALOG, "Unlock Tarnwell Key Agent"},
    {TEXT_MENU_MANAGER, "Open Key Agent Manager"},
    {TEXT_MENU_LOCK, "Lock"},
    {TEXT_MENU_UNLOCK, "Unlock"},
    {TEXT_MENU_HELP, "Help"},
    {TEXT_MENU_EXIT, "Exit"},
    {TEXT_FIRST_PASSPHRASE_DIALOG, "Set the Agent Passphrase"},
    {TEXT_FIRST_PASSPHRASE_FAILED, "The agent passphrase could not be set."},
    {TEXT_PASSPHRASE_PROMPT, "Passphrase:"},
    {TEXT_CONFIRM_KEY_OPERATION, "A remote server asks to sign with the key '%s'.\nAllow it?"},
    {TEXT_FATAL_ERROR, "A fatal error has occurred. Tarnwell Key Agent shuts down."},
    {TEXT_KEY_PASSPHRASE_DIALOG, "Key Passphrase"},
    {TEXT_KEY_PASSPHRASE_PROMPT, "Enter the passphrase for the key"},
    {TEXT_NO_PASSPHRASE, "Use no passphrase"},
    {TEXT_FIRST_PASSPHRASE_DESCRIPTION,
     "Choose the agent passphrase. It protects the keys that the agent keeps and unlocks the agent. "
     "Leave it empty to use no passphrase."},
    {TEXT_UNLOCK_DESCRIPTION, "Enter the agent passphrase to unlock Tarnwell Key Agent."},
    {TEXT_NO_PASSPHRASE_CONFIRM,
     "Use no agent passphrase? The keys that the agent keeps are then stored unencrypted."},
    {TEXT_REPEAT_PASSPHRASE, "Repeat:"},
    {TEXT_PASSPHRASES_DIFFER, "The two passphrases differ."},
};

}  // namespace

const char *program_text(int id)
{
    for (const Entry &entry : texts)
        if (entry.id == id)
            return entry.text;
    return "";
}
