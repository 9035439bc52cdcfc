// tagent's shell services on Windows: the agent's pipe through the agent
// client access code, its window messages, and the key passphrase dialog
// from tagent.dll.
#include "app/tagent/tagent_shell.h"

#include <windows.h>

#include <cstdio>

#include "app/tagent/tagent_commands.h"
#include "app/win32/agent_client_access.h"
#include "app/win32/tagent_shell_win32.h"
#include "app/win32/agent_folders.h"
#include "app/win32/agent_window.h"
#include "app/win32/dialogs.h"
#include "app/win32/resource_texts.h"
#include "app/window_messages.h"
#include "platform/platform.h"
#include "platform/win32/text_conversion.h"

struct AgentConnection::Channel {
    WinHandle pipe;
};

const TagentUsageTexts TAGENT_USAGE_TEXTS = {
    "usage: tagent COMMAND",
    "Talks to the user's Tarnwell Key Agent, found by its window and started\n"
    "when none runs. Without a command it opens the manager window.",
    "in a dialog",
    "the user's \"MY\" certificate store",
};

namespace {

AgentClientLimits connection_limits;

}  // namespace

void tagent_connect_to_running_agent_only()
{
    connection_limits.start_agent = false;
    connection_limits.ready_wait_ms = 0;
}

// The agent is started when none runs, as every client of it does.
AgentConnection::AgentConnection(const std::string &) : channel_(std::make_unique<Channel>())
{
    if (HWND agent = agent_window_when_ready(platform_executable_dir(), GetConsoleWindow(), connection_limits))
        channel_->pipe = agent_pipe_open(agent);
}

AgentConnection::~AgentConnection() = default;

bool AgentConnection::connected() const { return static_cast<bool>(channel_->pipe); }

bool AgentConnection::call(const Buffer &body, Buffer *reply)
{
    return connected() && agent_pipe_call(channel_->pipe.get(), body, reply);
}

bool AgentConnection::send_only(const Buffer &body)
{
    Buffer framed;
    buffer_put_buffer_string(&framed, &body);
    DWORD written = 0;
    bool sent = connected() &&
                WriteFile(channel_->pipe.get(), buffer_ptr(&framed), buffer_len(&framed), &written, nullptr) &&
                written == buffer_len(&framed);
    buffer_clear_wipe(&framed);
    return sent;
}

bool control_call(const std::string &, const ControlRequest &request, int64_t *result)
{
    HWND agent = find_agent_window();
    if (!agent)
        return false;
    DWORD_PTR answer = 0;
    LRESULT sent;
    if (request.message == WM_COPYDATA) {
        COPYDATASTRUCT record = {};
        record.dwData = static_cast<ULONG_PTR>(request.wparam);
        record.cbData = static_cast<DWORD>(request.data.size());
        record.lpData = const_cast<char *>(request.data.data());
        sent = SendMessageTimeoutW(agent, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&record), SMTO_ABORTIFHUNG,
                                   60000, &answer);
    } else {
        sent = SendMessageTimeoutW(agent, request.message, static_cast<WPARAM>(request.wparam),
                                   static_cast<LPARAM>(request.lparam), SMTO_ABORTIFHUNG, 60000, &answer);
    }
    if (!sent)
        return false;
    *result = static_cast<int64_t>(answer);
    return true;
}

// Typed into the key passphrase dialog, whose prompt is the question.
std::optional<SecretString> tagent_ask_passphrase(const PassphraseQuestion &question)
{
    resource_library_load();
    SecretString answer;
    if (!ask_key_passphrase(question.description.c_str(), &answer))
        return std::nullopt;
    return answer;
}

std::string tagent_default_data_folder() { return windows_agent_folders().data; }
