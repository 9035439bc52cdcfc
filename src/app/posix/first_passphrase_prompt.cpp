#include "app/posix/first_passphrase_prompt.h"

#include <optional>

#include "agent/passphrase.h"
#include "app/posix/pinentry.h"
#include "app/program_texts.h"
#include "log/log.h"

bool ask_first_passphrase_through_pinentry(StartupPassphrase *startup)
{
    std::string description = program_text(TEXT_FIRST_PASSPHRASE_DESCRIPTION);
    std::optional<SecretString> pin;
    for (;;) {
        pin = pinentry_get_pin({program_text(TEXT_FIRST_PASSPHRASE_DIALOG), description,
                                program_text(TEXT_PASSPHRASE_PROMPT), program_text(TEXT_REPEAT_PASSPHRASE)});
        const char *why = nullptr;
        if (!pin || agent_passphrase_storable(pin->c_str(), &why))
            break;
        error("%s", why);
        description = std::string(why) + ".";
    }
    if (!pin)
        return false;
    if (pin->empty())
        return startup->empty_choice = pinentry_confirm({program_text(TEXT_FIRST_PASSPHRASE_DIALOG),
                                                         program_text(TEXT_NO_PASSPHRASE_CONFIRM), "", ""});
    startup->text = std::move(*pin);
    return true;
}
