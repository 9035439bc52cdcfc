// Asking the user before a remote server may sign with a held key.
#pragma once

// Yes at once while ConfirmKeyOp is off; otherwise the user's answer (No
// when the shell has no confirmation dialog).
bool confirm_key_operation(const char *key_description);
