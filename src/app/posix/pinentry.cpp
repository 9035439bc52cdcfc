#include "app/posix/pinentry.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "log/agent_log.h"
#include "platform/posix/fd_io.h"

namespace {

constexpr int PINENTRY_TIMEOUT_SECONDS = 120;

struct Terminal {
    std::string tty, term, display;
};

Terminal &terminal()
{
    static Terminal t;
    return t;
}

std::string pinentry_program()
{
    const char *configured = getenv("TARNWELL_PINENTRY");
    return configured && *configured ? configured : "pinentry";
}

// One running pinentry with pipes to its standard input and output.
class Session {
public:
    Session() : deadline_(std::chrono::steady_clock::now() + std::chrono::seconds(PINENTRY_TIMEOUT_SECONDS)) {}
    ~Session() { finish(); }

    bool start()
    {
        // A socket pair rather than pipes: writing to a pinentry that has
        // already gone is then an error, not a SIGPIPE.
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            return false;
        std::string program = pinentry_program();
        pid_ = fork();
        if (pid_ == 0) {
            dup2(ends[1], STDIN_FILENO);
            dup2(ends[1], STDOUT_FILENO);
            execlp(program.c_str(), program.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        close(ends[1]);
        fd_ = ends[0];
        if (pid_ < 0)
            return false;
        std::string greeting;
        return read_line(&greeting) && greeting.rfind("OK", 0) == 0;
    }

    // Sends a command; true when it ends in OK. Data lines go to `data`.
    bool command(const std::string &line, SecretString *data = nullptr)
    {
        std::string out = line + "\n";
        if (!fd_write_all(fd_, out.data(), out.size()))
            return false;
        for (;;) {
            std::string reply;
            if (!read_line(&reply))
                return false;
            if (reply.rfind("OK", 0) == 0)
                return true;
            if (reply.rfind("ERR", 0) == 0)
                return false;
            if (reply.rfind("D ", 0) == 0 && data) {
                std::string text = assuan_unescape(reply.substr(2));
                data->append(text);
                wipe_memory(text.data(), text.size());
            } else if (reply.rfind("INQUIRE", 0) == 0) {
                fd_write_all(fd_, "CAN\n", 4);
            }
            wipe_memory(reply.data(), reply.size());
        }
    }

    void finish()
    {
        if (fd_ >= 0) {
            fd_write_all(fd_, "BYE\n", 4);
            close(fd_);
            fd_ = -1;
        }
        if (pid_ > 0) {
            // Give it a moment to leave on its own after BYE, then end it.
            for (int i = 0; i < 20; ++i) {
                if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                    pid_ = -1;
                    return;
                }
                usleep(10000);
            }
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    bool read_line(std::string *line)
    {
        line->clear();
        for (;;) {
            auto newline = pending_.find('\n');
            if (newline != std::string::npos) {
                line->assign(pending_, 0, newline);
                wipe_memory(pending_.data(), newline + 1);
                pending_.erase(0, newline + 1);
                return true;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ -
                                                                              std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return false;
            struct pollfd fd = {fd_, POLLIN, 0};
            int ready = poll(&fd, 1, static_cast<int>(left.count()));
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready <= 0)
                return false;
            char chunk[1024];
            ssize_t n = read(fd_, chunk, sizeof chunk);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return false;
            pending_.append(chunk, static_cast<size_t>(n));
            wipe_memory(chunk, sizeof chunk);
        }
    }

    std::chrono::steady_clock::time_point deadline_;
    pid_t pid_ = -1;
    int fd_ = -1;
    SecretString pending_;
};

bool prepare(Session *session, const PinentryDialog &dialog)
{
    if (!session->start()) {
        agent_log("No pinentry program could be started (%s)", pinentry_program().c_str());
        return false;
    }
    const Terminal &t = terminal();
    if (!t.tty.empty())
        session->command("OPTION ttyname=" + assuan_escape(t.tty));
    if (!t.term.empty())
        session->command("OPTION ttytype=" + assuan_escape(t.term));
    if (!t.display.empty())
        session->command("OPTION display=" + assuan_escape(t.display));
    session->command("SETTITLE " + assuan_escape(dialog.title));
    if (!dialog.description.empty())
        session->command("SETDESC " + assuan_escape(dialog.description));
    if (!dialog.prompt.empty())
        session->command("SETPROMPT " + assuan_escape(dialog.prompt));
    if (!dialog.repeat.empty())
        session->command("SETREPEAT " + assuan_escape(dialog.repeat));
    return true;
}

}  // namespace

std::string assuan_escape(const std::string &text)
{
    std::string out;
    for (unsigned char c : text) {
        if (c == '%' || c < 0x20) {
            char hex[4];
            snprintf(hex, sizeof hex, "%%%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string assuan_unescape(const std::string &text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

void pinentry_remember_terminal()
{
    Terminal &t = terminal();
    if (const char *tty = ttyname(STDIN_FILENO))
        t.tty = tty;
    if (const char *term = getenv("TERM"))
        t.term = term;
    if (const char *display = getenv("DISPLAY"))
        t.display = display;
}

std::optional<SecretString> pinentry_get_pin(const PinentryDialog &dialog)
{
    Session session;
    if (!prepare(&session, dialog))
        return std::nullopt;
    SecretString pin;
    if (!session.command("GETPIN", &pin))
        return std::nullopt;
    return pin;
}

bool pinentry_confirm(const PinentryDialog &dialog)
{
    Session session;
    return prepare(&session, dialog) && session.command("CONFIRM");
}
