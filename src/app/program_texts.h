// The words the user sees, by text number. One compiled-in table serves
// every shell; the Windows resource script is made from the same table.
#pragma once

enum ProgramText {
    TEXT_APPLICATION_TITLE = 101,
    TEXT_LOCK_FAILED = 122,
    TEXT_UNLOCK_FAILED = 123,
    TEXT_UNLOCK_DIALOG = 124,
    TEXT_MENU_MANAGER = 128,
    TEXT_MENU_LOCK = 129,
    TEXT_MENU_UNLOCK = 130,
    TEXT_MENU_HELP = 131,
    TEXT_MENU_EXIT = 132,
    TEXT_FIRST_PASSPHRASE_DIALOG = 133,
    TEXT_FIRST_PASSPHRASE_FAILED = 134,
    TEXT_PASSPHRASE_PROMPT = 145,
    TEXT_CONFIRM_KEY_OPERATION = 149,
    TEXT_FATAL_ERROR = 199,
    TEXT_KEY_PASSPHRASE_DIALOG = 219,
    TEXT_KEY_PASSPHRASE_PROMPT = 220,
    TEXT_NO_PASSPHRASE = 221,
    TEXT_FIRST_PASSPHRASE_DESCRIPTION = 222,
    TEXT_UNLOCK_DESCRIPTION = 223,
    TEXT_NO_PASSPHRASE_CONFIRM = 224,
    TEXT_REPEAT_PASSPHRASE = 225,
    TEXT_PASSPHRASES_DIFFER = 226,
};

// The text of `id`; the empty text for a number without one.
const char *program_text(int id);
