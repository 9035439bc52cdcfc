#include "app/win32/manager_actions.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <functional>

#include "agent/protocol.h"
#include "app/tagent/tagent_commands.h"
#include "app/tagent/tagent_shell.h"
#include "app/window_messages.h"

namespace {

// The agent is found by its window; this names it in tagent's lines.
TagentContext context()
{
    TagentContext c;
    c.agent_socket = "the Tarnwell Key Agent window";
    c.control_socket = c.agent_socket;
    return c;
}

// tagent's commands say why they failed in one line on the standard error;
// the window shows that line. The line goes into a pipe large enough to
// hold it, read once the command is done.
class ErrorCapture {
public:
    ErrorCapture()
    {
        fflush(stderr);
        HANDLE write_end = nullptr;
        if (!CreatePipe(&read_end_, &write_end, nullptr, 65536))
            return;
        int fd = _open_osfhandle(reinterpret_cast<intptr_t>(write_end), _O_WRONLY | _O_BINARY);
        saved_ = _dup(2);
        if (fd < 0 || _dup2(fd, 2) != 0) {
            if (fd >= 0)
                _close(fd);
            else
                CloseHandle(write_end);
            return;
        }
        _close(fd);
        capturing_ = true;
    }
    ~ErrorCapture() { text(); }
    ErrorCapture(const ErrorCapture &) = delete;
    ErrorCapture &operator=(const ErrorCapture &) = delete;

    // Ends the capture; what was written, without "tagent: " and the line end.
    std::string text()
    {
        if (capturing_) {
            fflush(stderr);
            if (saved_ >= 0)
                _dup2(saved_, 2);
            else
                _close(2);
            capturing_ = false;
        }
        if (saved_ >= 0)
            _close(saved_);
        saved_ = -1;
        std::string out;
        if (read_end_) {
            char chunk[512];
            DWORD got = 0;
            while (ReadFile(read_end_, chunk, sizeof chunk, &got, nullptr) && got > 0)
                out.append(chunk, got);
            CloseHandle(read_end_);
            read_end_ = nullptr;
        }
        if (out.rfind("tagent: ", 0) == 0)
            out.erase(0, 8);
        while (!out.empty() && (out.back() == '\n' || out.back() == '\r'))
            out.pop_back();
        return out;
    }

private:
    HANDLE read_end_ = nullptr;
    int saved_ = -1;
    bool capturing_ = false;
};

ManagerOutcome run(const std::function<int(const TagentContext &)> &command, const char *otherwise)
{
    ErrorCapture capture;
    int status = command(context());
    ManagerOutcome outcome;
    outcome.done = status == TAGENT_DONE;
    outcome.message = capture.text();
    if (!outcome.done && outcome.message.empty())
        outcome.message = otherwise;
    return outcome;
}

ManagerOutcome run_args(std::vector<std::string> args, const char *otherwise)
{
    return run([&](const TagentContext &c) { return tagent_run(c, args); }, otherwise);
}

// Sends one request on a fresh connection; the reply's first byte, or -1.
int request_code(const Buffer &body, Buffer *reply)
{
    AgentConnection agent(context().agent_socket);
    if (!agent.connected() || !agent.call(body, reply) || buffer_len(reply) == 0)
        return -1;
    return buffer_get_char(reply);
}

}  // namespace

std::optional<std::vector<IdentityRow>> manager_identities() { return tagent_identity_rows(context()); }

int manager_lock_state()
{
    Buffer body, reply;
    buffer_put_char(&body, SSH_AGENT_ZEM_ISLOCKED);
    int code = request_code(body, &reply);
    return code == SSH_AGENT_ZEM_LOCKED ? 1 : code == SSH_AGENT_ZEM_UNLOCKED ? 0 : -1;
}

ManagerOutcome manager_add_key(const std::string &file)
{
    return run_args({"add", file}, "The key was not added.");
}

ManagerOutcome manager_remove_identity(const IdentityRow &identity)
{
    return run([&](const TagentContext &c) { return tagent_remove_identity(c, identity.blob, identity.name); },
               "The key was not removed.");
}

ManagerOutcome manager_remove_all() { return run_args({"remove", "--all"}, "The keys were not removed."); }

ManagerOutcome manager_lock() { return run_args({"lock"}, "The agent could not be locked."); }

ManagerOutcome manager_unlock(const SecretString &passphrase)
{
    return run([&](const TagentContext &c) { return tagent_unlock_with(c, passphrase); },
               "The agent stays locked.");
}

ManagerOutcome manager_change_passphrase(const SecretString &old_passphrase, const SecretString &new_passphrase,
                                         bool empty)
{
    return run(
        [&](const TagentContext &c) { return tagent_change_passphrase(c, old_passphrase, new_passphrase, empty); },
        "The agent passphrase is unchanged.");
}

ManagerOutcome manager_set(uint32_t message, bool value)
{
    int64_t changed = 0;
    return run(
        [&](const TagentContext &c) { return tagent_window_message(c, message, 0, value ? 1 : 0, "", &changed); },
        "The setting was not changed.");
}

ManagerOutcome manager_reset() { return run_args({"reset", "--yes"}, "The agent data was not reset."); }

void manager_register(uint64_t window, uint32_t command)
{
    Buffer body, reply;
    buffer_put_char(&body, SSH_AGENT_ZEM_REGISTERREFRESH);
    buffer_put_int64(&body, window);
    buffer_put_int(&body, command);
    request_code(body, &reply);
}

void manager_unregister(uint64_t window)
{
    Buffer body, reply;
    buffer_put_char(&body, SSH_AGENT_ZEM_UNREGISTERREFRESH);
    buffer_put_int64(&body, window);
    request_code(body, &reply);
}
