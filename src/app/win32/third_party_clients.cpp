#include "app/win32/third_party_clients.h"

#include <utility>

#include "agent/settings.h"
#include "app/message_processor.h"
#include "app/win32/openssh_pipe.h"
#include "app/win32/pageant_window.h"
#include "log/agent_log.h"

void third_party_clients_start()
{
    // The settings belong to the message-processing thread.
    auto enabled = on_message_thread<std::pair<bool, bool>>([] {
        return std::make_pair(agent_settings().OpenSshPipe != 0, agent_settings().Pageant != 0);
    });
    if (enabled.first)
        openssh_pipe_start();
    else
        agent_log("The OpenSSH agent pipe is switched off (OpenSshPipe no).");
    if (enabled.second)
        pageant_window_start();
    else
        agent_log("The Pageant protocol is switched off (Pageant no).");
}

void third_party_clients_stop()
{
    openssh_pipe_stop();
    pageant_window_stop();
}
