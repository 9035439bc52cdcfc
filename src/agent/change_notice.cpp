#include "agent/change_notice.h"

#include "agent/handlers.h"
#include "agent/reply.h"
#include "agent/shell_services.h"

namespace {

// Used on the message-processing thread only, like the identity tables.
std::vector<RefreshRegistration> &refresh_list()
{
    static std::vector<RefreshRegistration> entries;
    return entries;
}

void reply_window(RequestContext *ctx, uint64_t window)
{
    buffer_put_int(&ctx->output, 8);
    buffer_put_int64(&ctx->output, window);
}

}  // namespace

void send_change_notice()
{
    const ShellServices &shell = shell_services();
    if (shell.notify_manager)
        shell.notify_manager();

    std::vector<RefreshRegistration> &list = refresh_list();
    for (size_t i = 0; i < list.size();) {
        const RefreshRegistration &entry = list[i];
        if (!shell.window_exists || shell.window_exists(entry.window)) {
            if (shell.post_command)
                shell.post_command(entry.window, entry.command);
            ++i;
            continue;
        }
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
        if (i == 0)
            break;
    }
}

void handle_register_refresh(RequestContext *ctx)
{
    uint64_t window = buffer_get_int64(&ctx->request);
    uint32_t command = buffer_get_int(&ctx->request);
    refresh_list().push_back({window, command});
    reply_window(ctx, window);
}

void handle_unregister_refresh(RequestContext *ctx)
{
    uint64_t window = buffer_get_int64(&ctx->request);
    std::vector<RefreshRegistration> &list = refresh_list();
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (it->window == window) {
            list.erase(it);
            break;
        }
    }
    reply_window(ctx, window);
}

std::vector<RefreshRegistration> refresh_registrations() { return refresh_list(); }

void refresh_registrations_clear() { refresh_list().clear(); }
