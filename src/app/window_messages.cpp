#include "app/window_messages.h"

#include <atomic>

#include "agent/handlers.h"
#include "agent/key_store.h"
#include "agent/local_lock.h"
#include "agent/passphrase.h"
#include "agent/settings.h"
#include "agent/shell_services.h"
#include "app/message_processor.h"
#include "app/program_texts.h"
#include "keys/secure_memory.h"
#include "log/agent_log.h"

namespace {

std::atomic<bool> ready{false};

void show_error(int text_id)
{
    if (auto show = shell_services().show_error)
        show(text_id);
}

bool locked_now()
{
    return on_message_thread<bool>([] { return agent_is_locked(); });
}

void menu_lock()
{
    bool locked = on_message_thread<bool>([] {
        agent_local_lock();
        return agent_is_locked();
    });
    if (!locked)
        show_error(TEXT_LOCK_FAILED);
    shell_redraw_tray();
}

// The unlock dialog runs here, on the shell's thread; only the unlock itself
// runs on the message-processing thread.
void menu_unlock()
{
    bool locked = on_message_thread<bool>([] {
        if (agent_settings().AttemptEmpty)
            agent_local_unlock("");
        return agent_is_locked();
    });
    auto ask = shell_services().ask_unlock_passphrase;
    if (locked && ask) {
        SecretString passphrase;
        if (ask(&passphrase)) {
            run_on_message_thread([&] { agent_local_unlock(passphrase.c_str()); });
            if (locked_now())
                show_error(TEXT_UNLOCK_FAILED);
        }
    }
    shell_redraw_tray();
}

int64_t menu_command(uint32_t command)
{
    switch (command) {
    case MENU_LOCK: menu_lock(); return 0;
    case MENU_UNLOCK: menu_unlock(); return 0;
    case MENU_EXIT: shell_post_quit(); return 0;
    default: return 0;
    }
}

int64_t set_setting(int (*setter)(uint32_t), uint32_t value)
{
    return on_message_thread<int64_t>([=] { return setter(value); });
}

// The copy-data record: old passphrase at 0, new one at 256 (both
// zero-terminated), and at 512 the flag that marks the new one as empty.
int64_t change_passphrase(const std::string &record)
{
    if (record.size() < CHANGE_PASSPHRASE_RECORD_SIZE)
        return 0;
    SecretString old_passphrase(record.c_str());
    SecretString new_passphrase(record.c_str() + 256);
    uint32_t empty_flag = static_cast<uint8_t>(record[512]) | static_cast<uint8_t>(record[513]) << 8 |
                          static_cast<uint8_t>(record[514]) << 16 | static_cast<uint32_t>(static_cast<uint8_t>(record[515])) << 24;
    return on_message_thread<int64_t>([&] {
        return change_agent_passphrase(old_passphrase.c_str(), new_passphrase.c_str(), empty_flag ? 1 : 0);
    });
}

}  // namespace

void agent_ready_set(bool value) { ready = value; }
bool agent_ready() { return ready; }

int64_t agent_window_message(uint32_t message, uint64_t wparam, uint64_t lparam, const std::string &data)
{
    uint32_t value = static_cast<uint32_t>(lparam);  // the settings' new value
    switch (message) {
    case WM_CREATE_MESSAGE: return 0;
    case WM_COPYDATA_MESSAGE: return wparam == COPYDATA_CHANGE_PASSPHRASE ? change_passphrase(data) : 0;
    case WM_RESET_AGENT_DATA: run_on_message_thread(reset_agent_data); return 0;
    case WM_SET_CONFIRM_KEY_OP: return set_setting(set_confirm_key_op, value);
    case WM_SET_ALLOW_ADD: return set_setting(set_allow_add, value);
    case WM_SET_ALLOW_DELETE: return set_setting(set_allow_delete, value);
    case WM_SET_USE_ONLY_SHA1: return set_setting(set_use_only_sha1, value);
    case WM_SET_CREATE_LOG: return set_setting(set_create_log, value);
    case WM_DESTROY_MESSAGE:
    case WM_CLOSE_MESSAGE: shell_post_quit(); return 1;
    case WM_COMMAND_MESSAGE: return menu_command(static_cast<uint32_t>(wparam & 0xffff));
    case WM_REDRAW_TRAY_ICON: shell_redraw_tray(); return 0;
    case WM_QUERY_UNREADABLE_RECORDS:
        return on_message_thread<int64_t>([] { return static_cast<int64_t>(key_store_unreadable_count()); });
    case WM_QUERY_READY:
        agent_log("Key agent %s ready to create pipe connections.", agent_ready() ? "is" : "is NOT");
        return agent_ready() ? 1 : 0;
    default: return 0;
    }
}
