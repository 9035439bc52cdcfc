#include "agent/shell_services.h"

#include "log/agent_log.h"

namespace {

ShellServices &services_storage()
{
    static ShellServices services;
    return services;
}

}  // namespace

void shell_services_set(const ShellServices &services) { services_storage() = services; }

const ShellServices &shell_services() { return services_storage(); }

void shell_post_quit()
{
    if (auto quit = shell_services().post_quit)
        quit();
}

void shell_redraw_tray()
{
    if (auto redraw = shell_services().redraw_tray)
        redraw();
}

void run_fatal_shutdown()
{
    agent_log("A fatal exception has occurred.  Shutting down now.");
    if (auto shutdown = shell_services().fatal_shutdown)
        shutdown();
}
