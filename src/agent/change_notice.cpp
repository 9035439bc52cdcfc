#include "agent/change_notice.h"

#include <mutex>

#include "agent/handlers.h"
#include "agent/reply.h"

namespace {

// The message-processing thread registers and unregisters; the change
// notice also runs on the shell's thread (start-up, local lock), so the
// list has a lock of its own.
struct RefreshList {
    std::mutex lock;
    std::vector<RefreshRegistration> entries;
};

RefreshList &refresh_list()
{
    static RefreshList list;
    return list;
}

ChangeNoticeHooks &hooks_storage()
{
    static ChangeNoticeHooks hooks;
    return hooks;
}

void reply_window(RequestContext *ctx, uint64_t window)
{
    buffer_put_int(&ctx->output, 8);
    buffer_put_int64(&ctx->output, window);
}

}  // namespace

void change_notice_hooks_set(const ChangeNoticeHooks &hooks) { hooks_storage() = hooks; }

void send_change_notice()
{
    const ChangeNoticeHooks &hooks = hooks_storage();
    if (hooks.notify_manager)
        hooks.notify_manager();

    RefreshList &list = refresh_list();
    std::lock_guard<std::mutex> guard(list.lock);
    for (size_t i = 0; i < list.entries.size();) {
        const RefreshRegistration &entry = list.entries[i];
        if (!hooks.window_exists || hooks.window_exists(entry.window)) {
            if (hooks.post_command)
                hooks.post_command(entry.window, entry.command);
            ++i;
            continue;
        }
        list.entries.erase(list.entries.begin() + static_cast<std::ptrdiff_t>(i));
        if (i == 0)
            break;
    }
}

void handle_register_refresh(RequestContext *ctx)
{
    uint64_t window = buffer_get_int64(&ctx->request);
    uint32_t command = buffer_get_int(&ctx->request);
    {
        RefreshList &list = refresh_list();
        std::lock_guard<std::mutex> guard(list.lock);
        list.entries.push_back({window, command});
    }
    reply_window(ctx, window);
}

void handle_unregister_refresh(RequestContext *ctx)
{
    uint64_t window = buffer_get_int64(&ctx->request);
    {
        RefreshList &list = refresh_list();
        std::lock_guard<std::mutex> guard(list.lock);
        for (auto it = list.entries.begin(); it != list.entries.end(); ++it) {
            if (it->window == window) {
                list.entries.erase(it);
                break;
            }
        }
    }
    reply_window(ctx, window);
}

std::vector<RefreshRegistration> refresh_registrations()
{
    RefreshList &list = refresh_list();
    std::lock_guard<std::mutex> guard(list.lock);
    return list.entries;
}

void refresh_registrations_clear()
{
    RefreshList &list = refresh_list();
    std::lock_guard<std::mutex> guard(list.lock);
    list.entries.clear();
}
