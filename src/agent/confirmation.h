// Asking the user before a remote server may sign with a held key.
#pragma once

using KeyOperationConfirmer = bool (*)(const char *key_description);

// The shell's dialog; without one every question is answered No.
void key_operation_confirmer_set(KeyOperationConfirmer confirmer);

// Yes at once while ConfirmKeyOp is off; otherwise the user's answer.
bool confirm_key_operation(const char *key_description);
