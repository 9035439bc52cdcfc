// tagent's shell services on POSIX: prompts through pinentry, the watch
// subscription on control.sock. The agent connection and control_call are
// in agent_client.cpp and control_client.cpp.
#include "app/tagent/tagent_shell.h"

#include <cstdio>
#include <unistd.h>

#include "app/posix/control_client.h"
#include "app/posix/folders.h"
#include "app/posix/pinentry.h"
#include "app/tagent/tagent_args.h"
#include "app/tagent/tagent_commands.h"

const TagentUsageTexts TAGENT_USAGE_TEXTS = {
    "usage: tagent [-a PATH] COMMAND",
    "Talks to the running Tarnwell Key Agent (the socket from -a, else\n"
    "$SSH_AUTH_SOCK, else the default runtime folder).",
    "through pinentry",
    "the user's NSS database",
};

std::optional<SecretString> tagent_ask_passphrase(const PassphraseQuestion &question)
{
    return pinentry_get_pin({question.title, question.description, question.prompt, question.repeat});
}

std::string tagent_default_data_folder() { return agent_folders("", "", "").data; }

int tagent_watch(const std::string &control_address)
{
    ControlRequest request;
    request.message = CONTROL_WATCH;
    int64_t subscriber = 0;
    int fd = control_open(control_address, request, &subscriber);
    if (fd < 0)
        return tagent_unreachable(control_address);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    char chunk[256];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0)
        fwrite(chunk, 1, static_cast<size_t>(n), stdout);
    close(fd);
    return TAGENT_DONE;
}
