#include "app/posix/agent_options.h"

#include <cstdlib>
#include <getopt.h>

const char *const AGENT_USAGE =
    "usage: tkeyagent [-D | -d] [-s | -c] [-a PATH] [--data-dir DIR] [--log-dir DIR]\n"
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
    "  --owner N           window handle of the launching client (logged only)\n"
    "  -h, --help          show this text\n";

bool parse_agent_options(int argc, char **argv, AgentOptions *options, bool *help, std::string *message)
{
    enum { DATA_DIR = 1000, LOG_DIR, OWNER };
    static const struct option long_options[] = {
        {"data-dir", required_argument, nullptr, DATA_DIR},
        {"log-dir", required_argument, nullptr, LOG_DIR},
        {"owner", required_argument, nullptr, OWNER},
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
        case 'h': *help = true; return true;
        default:
            *message = optopt ? std::string("unknown or incomplete option -") + static_cast<char>(optopt)
                              : std::string("unknown option ") + argv[optind - 1];
            return false;
        }
    }
    if (optind < argc) {
        *message = std::string("unexpected argument ") + argv[optind];
        return false;
    }
    return true;
}
