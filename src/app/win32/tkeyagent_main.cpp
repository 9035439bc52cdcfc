// tkeyagent.exe: the agent as a Windows desktop program with a hidden window.
#include <windows.h>
#include <winsock2.h>

#include <fcntl.h>
#include <cstdlib>

#include "app/agent_lifecycle.h"
#include "app/client_connection.h"
#include "app/win32/agent_folders.h"
#include "app/win32/agent_window.h"
#include "app/win32/command_line.h"
#include "app/win32/resource_texts.h"
#include "app/win32/startup_passphrase.h"
#include "app/win32/system_cert_provider.h"
#include "app/win32/third_party_clients.h"
#include "app/win32/tray_icon.h"
#include "app/win32/windows_services.h"
#include "log/agent_log.h"

namespace {

int64_t owner_window = 0;

bool initialise_passphrase() { return windows_startup_passphrase(owner_window); }

void hide_shell_windows()
{
    tray_icon_remove();
    close_manager_window();
}

void run_message_loop()
{
    MSG message;
    for (;;) {
        BOOL got = GetMessageW(&message, nullptr, 0, 0);
        if (got == 0)
            return;
        if (got < 0) {
            agent_log("GetMessage failed");
            return;
        }
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
}

// The OpenSSH agent pipe and the Pageant window are open while the loop runs.
void serve_until_stopped()
{
    third_party_clients_start();
    run_message_loop();
    third_party_clients_stop();
}

}  // namespace

int WINAPI wWinMain(HINSTANCE instance, HINSTANCE, PWSTR, int)
{
    // The whole command line: launchers give the program's path separately
    // and only the number as the command line.
    owner_window = command_line_number(GetCommandLineW());

    // Logging needs the folders and the settings first, so that even the
    // refusal of a second instance reaches the log file.
    WindowsFolders folders = windows_agent_folders();
    if (!create_private_folder(folders.data) || !create_private_folder(folders.log))
        return 1;
    agent_load_settings_and_log(folders.data, folders.log, false);

    if (find_agent_window()) {
        agent_log("Key Agent already running. Exit.");
        return 0;
    }
    if (!register_agent_window_class(instance)) {
        agent_log("Key Agent failed to register class. Exit.");
        return 0;
    }
    HWND window = create_agent_window(instance);
    if (!window) {
        agent_log("Key Agent failed to create window. Exit.");
        return 0;
    }
    _fmode = _O_BINARY;  // files opened without a mode are binary
    WSADATA sockets;
    bool sockets_started = WSAStartup(MAKEWORD(2, 0), &sockets) == 0;
    resource_library_load();

    system_cert_provider_install();
    windows_services_attach(GetCurrentThreadId(), window);
    tray_icon_attach(window);
    AgentShellSteps steps;
    steps.initialise_passphrase = initialise_passphrase;
    steps.show_tray = tray_icon_add;
    steps.run_loop = serve_until_stopped;
    steps.hide_tray = hide_shell_windows;
    steps.close_connections = close_client_connections;
    agent_run(windows_shell_services(), steps);

    resource_library_unload();
    if (sockets_started)
        WSACleanup();
    return 0;
}
