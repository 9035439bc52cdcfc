#include "app/tagent/tagent_commands.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>

#include "agent/passphrase.h"
#include "agent/protocol.h"
#include "app/program_texts.h"
#include "app/startup_passphrase.h"
#include "app/tagent/tagent_args.h"
#include "app/tagent/tagent_certs.h"
#include "app/tagent/tagent_keys.h"
#include "app/tagent/tagent_shell.h"
#include "app/window_messages.h"
#include "log/text_compare.h"
#include "pki/cert_key_layer.h"

std::string tagent_usage()
{
    const TagentUsageTexts &shell = TAGENT_USAGE_TEXTS;
    return std::string(shell.synopsis) + "\n\n" + shell.finding +
           "\n"
           "\n"
           "  status                         locked or unlocked, how many identities, and\n"
           "                                 how many stored records could not be read\n"
           "  list                           each identity's name, type and bits, SHA-256\n"
           "                                 fingerprint and comment\n"
           "  add FILE [--name N] [--lifetime S] [--confirm] [--temporary]\n"
           "                                 add a PEM or PKCS#8 private key (its password is\n"
           "                                 asked " +
           shell.asked +
           ") or an unencrypted\n"
           "                                 OpenSSH private key (ssh-add takes encrypted ones)\n"
           "  remove FILE|NAME               remove one identity\n"
           "  add-cert LOCATION ID [--comment TEXT]\n"
           "                                 add a certificate identity, ID its SHA-1 or\n"
           "                                 common name, from LOCATION\n"
           "                                   1 system: " +
           shell.system_store +
           "\n"
           "                                   2 pkcs11: a PKCS#11 token\n"
           "                                   3 tarnwell: the agent's own certificate store\n"
           "  cert import FILE.p12 [--password-file F] [--passphrase-file F]\n"
           "  cert list | cert remove ID     the agent's own certificate store\n"
           "  lock                           lock the agent\n"
           "  unlock [--passphrase-file F]   unlock with the agent passphrase (asked\n"
           "                                 " +
           shell.asked +
           " without F)\n"
           "  remove --all                   remove every identity\n"
           "  export NAME [--comment TEXT]   print a held public key as a SECSH block\n"
           "  set SETTING yes|no             ConfirmKeyOp, AllowAdd, AllowDelete,\n"
           "                                 UseOnlySha1 or CreateLog\n"
           "  passphrase --old-file F --new-file F | passphrase --empty [--old-file F]\n"
           "                                 change the agent passphrase\n"
           "  reset --yes                    destroy all keys and the passphrase; the agent exits\n"
           "  stop                           stop the agent\n"
           "  watch                          print a line for every change and lock change\n"
           "\n"
           "Exit status: 0 done, 1 the agent refused, 2 no agent reachable or a usage error.\n";
}

std::optional<SecretString> tagent_secret(const std::vector<std::string> &args, const char *option,
                                          const std::string &description, const char *when_cancelled)
{
    if (auto file = tagent_option(args, option)) {
        SecretString line;
        std::string message;
        if (read_passphrase_file(*file, &line, &message))
            return line;
        fprintf(stderr, "tagent: %s\n", message.c_str());
        return std::nullopt;
    }
    auto answer = tagent_ask_passphrase({program_text(TEXT_APPLICATION_TITLE), description,
                                         program_text(TEXT_PASSPHRASE_PROMPT), ""});
    if (!answer && when_cancelled)
        fprintf(stderr, "tagent: %s\n", when_cancelled);
    return answer;
}

int tagent_window_message(const TagentContext &c, uint32_t message, uint64_t wparam, uint64_t lparam,
                          const std::string &data, int64_t *result)
{
    ControlRequest request;
    request.message = message;
    request.wparam = wparam;
    request.lparam = lparam;
    request.data = data;
    if (!control_call(c.control_socket, request, result))
        return tagent_unreachable(c.control_socket);
    return TAGENT_DONE;
}

int tagent_unlock_with(const TagentContext &c, const SecretString &passphrase)
{
    AgentConnection agent(c.agent_socket);
    Buffer body, reply;
    buffer_put_char(&body, SSH_AGENTC_UNLOCK);
    buffer_put_string(&body, passphrase.data(), static_cast<uint32_t>(passphrase.size()));
    bool answered = agent.connected() && agent.call(body, &reply);
    buffer_clear_wipe(&body);
    if (!answered)
        return tagent_unreachable(c.agent_socket);
    uint8_t code = buffer_get_char(&reply);
    if (code == SSH_AGENT_SUCCESS || code == SSH_AGENT_SUCCESS_V2)
        return TAGENT_DONE;
    fprintf(stderr, "tagent: wrong passphrase: the agent stays locked\n");
    return TAGENT_REFUSED;
}

int tagent_change_passphrase(const TagentContext &c, const SecretString &old_passphrase,
                             const SecretString &new_passphrase, bool empty)
{
    if (old_passphrase.size() > 255 || new_passphrase.size() > 255)
        return tagent_usage_error("passphrases are at most 255 characters");
    // The copy-data record: old text at 0, new text at 256, flag at 512.
    std::string record(CHANGE_PASSPHRASE_RECORD_SIZE, '\0');
    memcpy(record.data(), old_passphrase.data(), old_passphrase.size());
    memcpy(record.data() + 256, new_passphrase.data(), new_passphrase.size());
    record[512] = empty || new_passphrase.empty() ? 1 : 0;
    int64_t changed = 0;
    int status = tagent_window_message(c, WM_COPYDATA_MESSAGE, COPYDATA_CHANGE_PASSPHRASE, 0, record, &changed);
    wipe_memory(record.data(), record.size());
    if (status != TAGENT_DONE)
        return status;
    if (!changed) {
        fprintf(stderr, "tagent: wrong passphrase: the agent passphrase is unchanged\n");
        return TAGENT_REFUSED;
    }
    return TAGENT_DONE;
}

namespace {

// The passphrase of --passphrase-file F (or `option`), else asked for.
std::optional<SecretString> passphrase_from(const std::vector<std::string> &args, const char *option,
                                            int description)
{
    return tagent_secret(args, option, program_text(description), "no passphrase given");
}

// Sends a one-message request and reports the agent's success code.
int simple_request(const TagentContext &c, const Buffer &body, const char *refused)
{
    AgentConnection agent(c.agent_socket);
    Buffer reply;
    if (!agent.connected() || !agent.call(body, &reply))
        return tagent_unreachable(c.agent_socket);
    uint8_t code = buffer_get_char(&reply);
    if (code == SSH_AGENT_SUCCESS || code == SSH_AGENT_SUCCESS_V2)
        return TAGENT_DONE;
    fprintf(stderr, "tagent: %s\n", refused);
    return TAGENT_REFUSED;
}

int cmd_status(const TagentContext &c, const std::vector<std::string> &)
{
    AgentConnection agent(c.agent_socket);
    Buffer locked_body, locked_reply, list_body, list_reply;
    buffer_put_char(&locked_body, SSH_AGENT_ZEM_ISLOCKED);
    buffer_put_char(&list_body, SSH2_AGENTC_REQUEST_IDENTITIES);
    if (!agent.connected() || !agent.call(locked_body, &locked_reply) || !agent.call(list_body, &list_reply))
        return tagent_unreachable(c.agent_socket);
    uint8_t state = buffer_get_char(&locked_reply);
    uint8_t code = buffer_get_char(&list_reply);
    printf("agent: %s\n", c.agent_socket.c_str());
    printf("state: %s\n", state == SSH_AGENT_ZEM_LOCKED ? "locked" : state == SSH_AGENT_ZEM_UNLOCKED ? "unlocked" : "unknown");
    if (code == SSH2_AGENT_IDENTITIES_ANSWER)
        printf("identities: %u\n", buffer_get_int(&list_reply));
    int64_t unreadable = 0;
    ControlRequest query;
    query.message = WM_QUERY_UNREADABLE_RECORDS;
    if (control_call(c.control_socket, query, &unreadable))
        printf("unreadable stored records: %lld\n", static_cast<long long>(unreadable));
    return TAGENT_DONE;
}

int cmd_lock(const TagentContext &c, const std::vector<std::string> &)
{
    Buffer body;
    buffer_put_char(&body, SSH_AGENTC_LOCK);
    buffer_put_cstring(&body, "");
    return simple_request(c, body, "the agent could not be locked");
}

int cmd_unlock(const TagentContext &c, const std::vector<std::string> &args)
{
    auto passphrase = passphrase_from(args, "--passphrase-file", TEXT_UNLOCK_DESCRIPTION);
    if (!passphrase)
        return TAGENT_REFUSED;
    return tagent_unlock_with(c, *passphrase);
}

int cmd_remove(const TagentContext &c, const std::vector<std::string> &args)
{
    if (args.size() == 2 && args[1] != "--all")
        return tagent_remove(c, args);
    if (args.size() != 2)
        return tagent_usage_error("remove takes a key file, a key name or --all");
    Buffer body;
    buffer_put_char(&body, SSH2_AGENTC_REMOVE_ALL_IDENTITIES);
    return simple_request(c, body, "the agent refused to remove the identities");
}

int cmd_set(const TagentContext &c, const std::vector<std::string> &args)
{
    static const std::map<std::string, uint32_t> settings = {
        {"confirmkeyop", WM_SET_CONFIRM_KEY_OP}, {"allowadd", WM_SET_ALLOW_ADD},
        {"allowdelete", WM_SET_ALLOW_DELETE},   {"useonlysha1", WM_SET_USE_ONLY_SHA1},
        {"createlog", WM_SET_CREATE_LOG}};
    if (args.size() != 3)
        return tagent_usage_error("set takes a setting and yes or no");
    std::string key;
    for (char ch : args[1])
        key += static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    auto setting = settings.find(key);
    if (setting == settings.end())
        return tagent_usage_error("unknown setting");
    if (!equals_ignore_case(args[2].c_str(), "yes") && !equals_ignore_case(args[2].c_str(), "no"))
        return tagent_usage_error("the value is yes or no");
    int64_t changed = 0;
    uint64_t value = equals_ignore_case(args[2].c_str(), "yes") ? 1 : 0;
    int status = tagent_window_message(c, setting->second, 0, value, "", &changed);
    if (status == TAGENT_DONE)
        printf("%s %s\n", args[1].c_str(), changed ? "changed" : "unchanged");
    return status;
}

int cmd_passphrase(const TagentContext &c, const std::vector<std::string> &args)
{
    bool empty = tagent_flag(args, "--empty");
    auto old_passphrase = passphrase_from(args, "--old-file", TEXT_UNLOCK_DESCRIPTION);
    if (!old_passphrase)
        return TAGENT_REFUSED;
    std::optional<SecretString> new_passphrase = SecretString();
    if (!empty)
        new_passphrase = passphrase_from(args, "--new-file", TEXT_FIRST_PASSPHRASE_DESCRIPTION);
    // A passphrase that could not be stored (see agent_passphrase_storable)
    // is refused here, with the reason, and asked for again when it was typed.
    const char *why = nullptr;
    while (new_passphrase && !agent_passphrase_storable(new_passphrase->c_str(), &why)) {
        fprintf(stderr, "tagent: %s\n", why);
        if (tagent_option(args, "--new-file"))
            return TAGENT_REFUSED;
        new_passphrase = tagent_ask_passphrase({program_text(TEXT_APPLICATION_TITLE), why,
                                           program_text(TEXT_PASSPHRASE_PROMPT), ""});
    }
    if (!new_passphrase)
        return TAGENT_REFUSED;
    return tagent_change_passphrase(c, *old_passphrase, *new_passphrase, empty);
}

int cmd_reset(const TagentContext &c, const std::vector<std::string> &args)
{
    if (!tagent_flag(args, "--yes"))
        return tagent_usage_error("reset destroys every key and the passphrase; confirm with --yes");
    int64_t ignored = 0;
    return tagent_window_message(c, WM_RESET_AGENT_DATA, 0, 0, "", &ignored);
}

int cmd_stop(const TagentContext &c, const std::vector<std::string> &)
{
    int64_t ignored = 0;
    return tagent_window_message(c, WM_COMMAND_MESSAGE, MENU_EXIT, 0, "", &ignored);
}

int cmd_watch(const TagentContext &c, const std::vector<std::string> &) { return tagent_watch(c.control_socket); }

}  // namespace

int tagent_run(const TagentContext &context, const std::vector<std::string> &args)
{
    cert_key_layer_install();
    using Command = std::function<int(const TagentContext &, const std::vector<std::string> &)>;
    static const std::map<std::string, Command> commands = {
        {"status", cmd_status}, {"lock", cmd_lock},   {"unlock", cmd_unlock},         {"remove", cmd_remove},
        {"set", cmd_set},       {"reset", cmd_reset}, {"passphrase", cmd_passphrase}, {"stop", cmd_stop},
        {"watch", cmd_watch},   {"list", tagent_list},  {"add", tagent_add},          {"export", tagent_export},
        {"cert", tagent_cert},  {"add-cert", tagent_add_cert},
    };
    auto command = commands.find(args[0]);
    if (command == commands.end())
        return tagent_usage_error("unknown command " + args[0]);
    return command->second(context, args);
}
