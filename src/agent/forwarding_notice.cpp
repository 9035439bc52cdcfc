#include "agent/forwarding_notice.h"

#include <atomic>
#include <list>
#include <mutex>

#include "agent/handlers.h"
#include "agent/reply.h"
#include "crypto/signature_types.h"
#include "log/agent_log.h"
#include "pki/agent_enum.h"

namespace {

// Appended by the message-processing thread, removed by a connection's own
// thread when it ends and read by listing: one lock guards the list.
struct NoticeList {
    std::mutex lock;
    std::list<ForwardingNotice> notices;
};

NoticeList &notice_list()
{
    static NoticeList list;
    return list;
}

std::atomic<uint64_t> dialog_owner{0};

// A connection keeps its first notice; later ones are not recorded.
void record_notice(const ForwardingNotice &notice)
{
    NoticeList &list = notice_list();
    std::lock_guard<std::mutex> guard(list.lock);
    for (const ForwardingNotice &existing : list.notices)
        if (existing.connection == notice.connection)
            return;
    list.notices.push_back(notice);
}

}  // namespace

uint32_t forwarding_list_mode(uint32_t enum_setting, uint32_t sent_list_mode)
{
    switch (enum_setting & 0xf00) {
    case AGENT_ENUM_SETTING_QMAR: return 6;
    case AGENT_ENUM_SETTING_OPENSSH: return 0;
    case AGENT_ENUM_SETTING_PKIX: return 8;
    case AGENT_ENUM_SETTING_SUNSSH: return 9;
    case AGENT_ENUM_SETTING_OPENVMS: return 7;
    default: return sent_list_mode;
    }
}

void handle_forwarding_notice(RequestContext *ctx, int vendor)
{
    std::string host = buffer_get_string_text(&ctx->request);
    std::string address = buffer_get_string_text(&ctx->request);
    uint32_t port = buffer_get_int(&ctx->request);
    if (vendor) {
        set_x509rsa_sigtype(static_cast<int>(buffer_get_int(&ctx->request)));
        set_x509dsa_sigtype(static_cast<int>(buffer_get_int(&ctx->request)));
        ForwardingNotice notice;
        notice.enum_setting = buffer_get_int(&ctx->request);
        agent_enum_set(notice.enum_setting);
        notice.client_window = buffer_get_int64(&ctx->request);
        agent_dialog_owner_set(notice.client_window);
        notice.connection = ctx->connection;
        notice.list_mode = forwarding_list_mode(notice.enum_setting, buffer_get_int(&ctx->request));
        record_notice(notice);
    }
    agent_log("Agent forwarding notice: %s (%s) port %d", host.c_str(), address.c_str(), static_cast<int>(port));
    ctx->forwarding_chain++;
    agent_log("Forwarding chain length: %d", ctx->forwarding_chain);
    if (vendor)
        reply_status(ctx, true);
}

void forwarding_notice_connection_closed(uint64_t connection)
{
    NoticeList &list = notice_list();
    std::lock_guard<std::mutex> guard(list.lock);
    list.notices.remove_if([connection](const ForwardingNotice &n) { return n.connection == connection; });
}

std::optional<ForwardingNotice> forwarding_notice_for_connection(uint64_t connection)
{
    NoticeList &list = notice_list();
    std::lock_guard<std::mutex> guard(list.lock);
    for (const ForwardingNotice &notice : list.notices)
        if (notice.connection == connection)
            return notice;
    return std::nullopt;
}

uint64_t agent_dialog_owner() { return dialog_owner; }
void agent_dialog_owner_set(uint64_t window) { dialog_owner = window; }

size_t forwarding_notice_count()
{
    NoticeList &list = notice_list();
    std::lock_guard<std::mutex> guard(list.lock);
    return list.notices.size();
}
