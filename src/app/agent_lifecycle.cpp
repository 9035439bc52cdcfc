#include "app/agent_lifecycle.h"

#include "agent/change_notice.h"
#include "agent/data_folder.h"
#include "agent/identity_table.h"
#include "agent/passphrase.h"
#include "agent/settings.h"
#include "app/message_processor.h"
#include "app/window_messages.h"
#include "log/agent_log.h"
#include "pki/cert_key_layer.h"

namespace {

void run_step(void (*step)())
{
    if (step)
        step();
}

void notify_change() { run_on_message_thread(send_change_notice); }

}  // namespace

void agent_load_settings_and_log(const std::string &data_folder, const std::string &log_folder,
                                 bool copy_to_stderr)
{
    // The settings come first: every later step, logging included, sees them.
    agent_data_folder_set(data_folder);
    read_agent_settings();
    agent_log_install(log_folder, copy_to_stderr);
    apply_create_log_setting();
}

int agent_run(const ShellServices &services, const AgentShellSteps &steps)
{
    cert_key_layer_install();
    shell_services_set(services);
    message_processor_start();
    run_on_message_thread(identity_tables_init);
    bool initialised = steps.initialise_passphrase == nullptr || steps.initialise_passphrase();
    if (initialised) {
        agent_log("Key Agent started ===========");
        agent_ready_set(true);
        run_step(steps.show_tray);
        notify_change();

        run_step(steps.run_loop);

        agent_log("Key Agent stopped ===========");
        notify_change();
    }
    agent_ready_set(false);
    run_step(steps.hide_tray);
    run_step(steps.close_connections);
    run_on_message_thread([] {
        remove_temporary_identities();
        forget_agent_passphrase();
    });
    message_processor_stop();
    return initialised ? 0 : 1;
}
