#include "app/posix/agent_options.h"

#include <cstdlib>
#include <getopt.h>

const char *const AGENT_USAGE =
    "usage: tkeyagent [-D | -d] [-s | -c] [-a PATH] [--data-dir DIR] [--log-dir DIR]\n"
    "                 [--passphrase-file FILE | --empty-passphrase] [--start-over]\n"
    "                 [--owner N]\n"
    "       tkeyagent -k [-a PATH]\n"
    "\n"
    "Tarnwell Key Agent: holds SSH private keys and answers SSH clients on a\n"
    "Unix socket (SSH_AUTH_SOCK).\n"
    "\n"
    "  -D                  stay in the foreground\n"
    "  -d                  stay in the foreground and copy every log line to stderr\n"
    "  -s, -c              print Bourne (-s) or C shell (-c) lines for SSH_AUTH_SOCK\n"
    "  -a PATH             agent socket (default $XDG_RUNTIME_DIR/tarnwell/agent.sock,\n"
    "                      else /tmp/tarnwell-UID/agent.sock)\n"
    "  -k                  stop the running agent\n"
    "  --data-dir DIR      settings and key store (default $XDG_DATA_HOME/tarnwell,\n"
    "                      else ~/.local/share/tarnwell; env TARNWELL_DATA_DIR)\n"
    "  --log-dir DIR       tAgentLog.txt and kvllog.ini (default $XDG_STATE_HOME/tarnwell,\n"
    "                      else ~/.local/state/tarnwell; env TARNWELL_LOG_DIR)\n"
    "  --passphrase-file FILE\n"
    "                      the agent passphrase is the first line of FILE: the first\n"
    "                      run (no passphrase stored yet) sets it, later runs unlock\n"
    "                      with it (a wrong one leaves the agent locked)\n"
    "  --empty-passphrase  first run only: no agent passphrase; also switches the\n"
    "                      setting AttemptEmpty on, so later runs start unlocked\n"
    "  --start-over        only when tAgent is missing or damaged while a key store\n"
    "                      exists: renames tAgentKeys and tAgentKeys.pub aside (with\n"
    "                      a time stamp, never deleted) and starts as a first run\n"
    "  --owner N           window handle of the launching client (logged only)\n"
    "  -h, --help          show this text\n"
    "\n"
    "A first run takes --passphrase-file or --empty-passphrase, else asks through\n"
    "pinentry ($TARNWELL_PINENTRY, else pinentry on the PATH); an empty entry,\n"
    "confirmed, means no passphrase. Later runs start locked unless AttemptEmpty\n"
    "or --passphrase-file unlocks them. When tAgent is missing or damaged but a key\n"
    "store exists, the agent keeps the store, says so in its log and starts locked:\n"
    "the old passphrase unlocks it (and is stored again), or --start-over sets the\n"
    "store aside.\n";

bool parse_agent_options(int argc, char **argv, AgentOptions *options, bool *help, std::string *message)
{
    enum { DATA_DIR = 1000, LOG_DIR, OWNER, PASSPHRASE_FILE, EMPTY_PASSPHRASE, START_OVER };
    static const struct option long_options[] = {
        {"data-dir", required_argument, nullptr, DATA_DIR},
        {"log-dir", required_argument, nullptr, LOG_DIR},
        {"owner", required_argument, nullptr, OWNER},
        {"passphrase-file", required_argument, nullptr, PASSPHRASE_FILE},
        {"empty-passphrase", no_argument, nullptr, EMPTY_PASSPHRASE},
        {"start-over", no_argument, nullptr, START_OVER},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    *help = false;
    optind = 1;
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, "Ddscka:h", long_options, nullptr)) != -1) {
        switch (c) {
        case 'D': options->foreground = true; break;
        case 'd': options->foreground = options->debug = true; break;
        case 's':
        case 'c': options->shell_style = static_cast<char>(c); break;
        case 'k': options->kill = true; break;
        case 'a': options->socket_path = optarg; break;
        case DATA_DIR: options->data_dir = optarg; break;
        case LOG_DIR: options->log_dir = optarg; break;
        case OWNER: options->owner = strtoll(optarg, nullptr, 10); break;
        case PASSPHRASE_FILE: options->passphrase_file = optarg; break;
        case EMPTY_PASSPHRASE: options->empty_passphrase = true; break;
        case START_OVER: options->start_over = true; break;
        case 'h': *help = true; return true;
        default:
            *message = optopt ? std::string("unknown or incomplete option -") + static_cast<char>(optopt)
                              : std::string("unknown option ") + argv[optind - 1];
            return false;
        }
    }
    if (!options->passphrase_file.empty() && options->empty_passphrase) {
        *message = "--passphrase-file and --empty-passphrase exclude each other";
        return false;
    }
    if (optind < argc) {
        *message = std::string("unexpected argument ") + argv[optind];
        return false;
    }
    return true;
}
