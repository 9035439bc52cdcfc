#include "app/posix/agent_daemon.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "agent/handlers.h"
#include "app/agent_lifecycle.h"
#include "app/client_connection.h"
#include "app/message_processor.h"
#include "app/posix/agent_server.h"
#include "app/posix/control_channel.h"
#include "app/posix/control_client.h"
#include "app/tagent/control_protocol.h"
#include "app/posix/folders.h"
#include "app/posix/pinentry.h"
#include "app/posix/single_instance.h"
#include "app/posix/first_passphrase_prompt.h"
#include "app/posix/unix_socket.h"
#include "app/program_texts.h"
#include "app/startup_passphrase.h"
#include "app/window_messages.h"
#include "log/agent_log.h"
#include "log/log.h"

namespace {

int stop_pipe[2] = {-1, -1};

void request_stop()
{
    char byte = 1;
    ssize_t ignored = write(stop_pipe[1], &byte, 1);
    (void)ignored;
}

void on_stop_signal(int) { request_stop(); }

bool ask_unlock_passphrase(SecretString *passphrase)
{
    auto pin = pinentry_get_pin({program_text(TEXT_APPLICATION_TITLE), program_text(TEXT_UNLOCK_DESCRIPTION),
                                 program_text(TEXT_PASSPHRASE_PROMPT), ""});
    if (!pin)
        return false;
    *passphrase = std::move(*pin);
    return true;
}

// The confirmation message box, as a pinentry CONFIRM.
bool confirm_through_pinentry(const char *key_description)
{
    char text[1024];
    snprintf(text, sizeof text, program_text(TEXT_CONFIRM_KEY_OPERATION), key_description);
    return pinentry_confirm({program_text(TEXT_APPLICATION_TITLE), text, "", ""});
}

// The key passphrase prompt: the text with the key's name in quotes.
bool ask_key_passphrase_through_pinentry(const char *prompt, SecretString *answer)
{
    auto pin = pinentry_get_pin({program_text(TEXT_KEY_PASSPHRASE_DIALOG), prompt,
                                 program_text(TEXT_PASSPHRASE_PROMPT), ""});
    if (!pin)
        return false;
    *answer = std::move(*pin);
    return true;
}

// There is no message box here: the text goes to the log, and the command
// that caused it reports its own failure.
void log_error_text(int text_id) { agent_log("%s", program_text(text_id)); }

// The fatal shutdown: the message box's text goes to the log, then the agent
// stops as for SIGTERM.
void fatal_stop()
{
    log_error_text(TEXT_FATAL_ERROR);
    request_stop();
}

// The tray icon's counterpart: watchers learn the lock state. Runs on the
// message-processing thread, or hands the look over to it.
void announce_lock_state()
{
    bool locked = on_message_thread<bool>([] { return agent_is_locked(); });
    control_channel_broadcast(locked ? "locked" : "unlocked");
}

// The manager window's counterpart: watchers learn of every change notice.
void announce_change() { control_channel_broadcast("changed"); }

// A refresh registration names a watch subscriber; its command is one line.
void post_subscriber_command(uint64_t subscriber, uint32_t command)
{
    control_channel_send(subscriber, "command " + std::to_string(command));
}

void install_signal_handlers()
{
    signal(SIGPIPE, SIG_IGN);
    struct sigaction action = {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

// The process holds private keys: no core files, no ptrace by other
// processes of the user.
void disable_core_dumps()
{
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
#ifdef PR_SET_DUMPABLE
    prctl(PR_SET_DUMPABLE, 0);
#endif
}

char shell_style(char requested)
{
    if (requested)
        return requested;
    const char *shell = getenv("SHELL");
    size_t n = shell ? strlen(shell) : 0;
    return n >= 3 && strcmp(shell + n - 3, "csh") == 0 ? 'c' : 's';
}

void print_shell_lines(char style, const std::string &socket, pid_t pid)
{
    if (shell_style(style) == 'c')
        printf("setenv SSH_AUTH_SOCK %s;\nsetenv SSH_AGENT_PID %d;\n", socket.c_str(), static_cast<int>(pid));
    else
        printf("SSH_AUTH_SOCK=%s; export SSH_AUTH_SOCK;\nSSH_AGENT_PID=%d; export SSH_AGENT_PID;\n", socket.c_str(),
               static_cast<int>(pid));
    printf("echo Agent pid %d;\n", static_cast<int>(pid));
    fflush(stdout);
}

struct Runtime {
    AgentFolders folders;
    InstanceLock lock;
    int listen_fd = -1;
    int control_fd = -1;
    StartupPassphrase startup;
};

Runtime runtime;

// Also registered as a fatal clean-up, so that a fatal error leaves no
// socket or lock file behind.
void remove_runtime_files(void *)
{
    if (runtime.listen_fd >= 0) {
        close(runtime.listen_fd);
        runtime.listen_fd = -1;
        unlink(runtime.folders.agent_socket.c_str());
    }
    if (runtime.control_fd >= 0) {
        close(runtime.control_fd);
        runtime.control_fd = -1;
        unlink(runtime.folders.control_socket.c_str());
    }
    instance_lock_release(&runtime.lock);
}

void detach_from_terminal()
{
    setsid();
    int null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null_fd >= 0) {
        dup2(null_fd, STDIN_FILENO);
        dup2(null_fd, STDOUT_FILENO);
        dup2(null_fd, STDERR_FILENO);
        if (null_fd > STDERR_FILENO)
            close(null_fd);
    }
    if (chdir("/") != 0) {
        // Staying in the start folder is harmless.
    }
}

void main_loop()
{
    struct pollfd fds[3] = {{runtime.listen_fd, POLLIN, 0}, {stop_pipe[0], POLLIN, 0}, {runtime.control_fd, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 3, -1) < 0) {
            if (errno == EINTR)
                continue;
            agent_log("poll failed: %s", strerror(errno));
            return;
        }
        if (fds[1].revents)
            return;
        if (fds[0].revents & POLLIN)
            agent_server_accept(runtime.listen_fd);
        if (fds[2].revents & POLLIN)
            control_channel_accept(runtime.control_fd);
    }
}

bool apply_startup_passphrase()
{
    run_on_message_thread([] { startup_passphrase_apply(&runtime.startup); });
    return true;
}

// No request reaches the agent's state after this: the sockets are closed,
// every connection has ended or is cut off.
void close_connections()
{
    control_channel_close_all();
    close(runtime.listen_fd);
    runtime.listen_fd = -1;
    unlink(runtime.folders.agent_socket.c_str());
    close_client_connections();
}

ShellServices posix_services()
{
    ShellServices services;
    services.post_quit = request_stop;
    services.redraw_tray = announce_lock_state;
    services.ask_unlock_passphrase = ask_unlock_passphrase;
    services.ask_key_passphrase = ask_key_passphrase_through_pinentry;
    services.confirm_key_operation = confirm_through_pinentry;
    services.show_error = log_error_text;
    services.notify_manager = announce_change;
    services.window_exists = control_channel_subscriber_alive;
    services.post_command = post_subscriber_command;
    services.fatal_shutdown = fatal_stop;
    return services;
}

}  // namespace

int run_agent(const AgentOptions &options)
{
    pinentry_remember_terminal();  // prompts go to this terminal, also once detached
    runtime.folders = agent_folders(options.socket_path, options.data_dir, options.log_dir);
    for (const std::string *folder : {&runtime.folders.runtime, &runtime.folders.data, &runtime.folders.log}) {
        std::string problem = ensure_private_folder(*folder);
        if (!problem.empty()) {
            fprintf(stderr, "tkeyagent: %s\n", problem.c_str());
            return 1;
        }
    }
    agent_load_settings_and_log(runtime.folders.data, runtime.folders.log, options.debug);
    disable_core_dumps();

    std::string message;
    if (!instance_lock_acquire(&runtime.lock, runtime.folders.lock_file, &message)) {
        if (!message.empty()) {
            fprintf(stderr, "tkeyagent: %s\n", message.c_str());
            return 1;
        }
        agent_log("Key Agent already running. Exit.");
        print_shell_lines(options.shell_style, runtime.folders.agent_socket,
                          instance_lock_holder(runtime.folders.lock_file));
        return 0;
    }
    StartupChoice choice{options.start_over, options.empty_passphrase, options.passphrase_file};
    if (!startup_passphrase_prepare(choice, ask_first_passphrase_through_pinentry, &runtime.startup, &message)) {
        fprintf(stderr, "tkeyagent: %s\n", message.c_str());
        instance_lock_release(&runtime.lock);
        return 1;
    }
    if (!runtime.startup.notice.empty() && !options.debug)
        fprintf(stderr, "tkeyagent: %s\n", runtime.startup.notice.c_str());
    runtime.listen_fd = unix_socket_listen(runtime.folders.agent_socket, &message);
    if (runtime.listen_fd >= 0)
        runtime.control_fd = unix_socket_listen(runtime.folders.control_socket, &message);
    if (runtime.listen_fd < 0 || runtime.control_fd < 0) {
        fprintf(stderr, "tkeyagent: %s\n", message.c_str());
        remove_runtime_files(nullptr);
        return 1;
    }
    if (pipe2(stop_pipe, O_CLOEXEC) != 0) {
        fprintf(stderr, "tkeyagent: cannot create a pipe: %s\n", strerror(errno));
        remove_runtime_files(nullptr);
        return 1;
    }

    if (!options.foreground) {
        fflush(stdout);
        pid_t child = fork();
        if (child < 0) {
            fprintf(stderr, "tkeyagent: cannot fork: %s\n", strerror(errno));
            remove_runtime_files(nullptr);
            return 1;
        }
        if (child > 0) {
            print_shell_lines(options.shell_style, runtime.folders.agent_socket, child);
            _exit(0);
        }
        instance_lock_write_pid(&runtime.lock, getpid());
        detach_from_terminal();
    } else {
        print_shell_lines(options.shell_style, runtime.folders.agent_socket, getpid());
    }

    install_signal_handlers();
    fatal_add_cleanup(remove_runtime_files, nullptr);
    if (options.owner)
        agent_log("Started for owner window %lld", options.owner);

    AgentShellSteps steps;
    steps.initialise_passphrase = apply_startup_passphrase;
    steps.run_loop = main_loop;
    steps.close_connections = close_connections;
    int status = agent_run(posix_services(), steps);
    fatal_remove_cleanup(remove_runtime_files, nullptr);
    remove_runtime_files(nullptr);
    return status;
}

int stop_running_agent(const AgentOptions &options)
{
    AgentFolders folders = agent_folders(options.socket_path, options.data_dir, options.log_dir);
    pid_t pid = instance_lock_holder(folders.lock_file);
    ControlRequest request;
    request.message = WM_COMMAND_MESSAGE;
    request.wparam = MENU_EXIT;
    if (pid <= 0 || !control_send(folders.control_socket, request)) {
        fprintf(stderr, "tkeyagent: no agent is running for %s\n", folders.agent_socket.c_str());
        return 2;
    }
    printf("unset SSH_AUTH_SOCK;\nunset SSH_AGENT_PID;\necho Agent pid %d killed;\n", static_cast<int>(pid));
    return 0;
}
