// Every figure of the agent's performance aims, measured in one run, with
// the ratios that are what to compare (absolute rates move with the load
// on the machine):
// - empty-list round trips with 1 and 8 clients, ours beside OpenSSH's
//   ssh-agent on the same kind of socket;
// - sign requests for RSA-2048 ("rsa-sha2-256") and ECDSA P-256 with 1 and
//   4 clients, beside ssh-agent holding the same keys and the raw
//   single-thread OpenSSL rate;
// - the time of adding the 1000th ECDSA key (request to reply), and of a
//   start with 1000 stored keys until the first signature.
//
// usage: bench_agent [seconds per measurement, default 3] [stored keys, default 1000]

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include "keys/buffer.h"
#include "keys/key.h"
#include "keys/key_blob.h"
#include "keys/private_key_material.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

void put_u32(Bytes &b, uint32_t v)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        b.push_back(static_cast<uint8_t>(v >> shift));
}
void put_string(Bytes &b, const void *data, size_t n)
{
    put_u32(b, static_cast<uint32_t>(n));
    b.insert(b.end(), static_cast<const uint8_t *>(data), static_cast<const uint8_t *>(data) + n);
}
Bytes framed(const Bytes &body)
{
    Bytes out;
    put_u32(out, static_cast<uint32_t>(body.size()));
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

struct TestKey {
    std::string label;
    EVP_PKEY *pkey;
    Bytes public_blob;
    Bytes add_request;  // SSH2_AGENTC_ADD_IDENTITY body
    uint32_t sign_flags;
    const EVP_MD *md;
};

// The public blob and the add request of `pkey`, as OpenSSH's ssh-add
// would send it.
TestKey make_key(const char *label, EVP_PKEY *pkey, int type, int nid, uint32_t flags)
{
    TestKey k{label, pkey, {}, {}, flags, EVP_sha256()};
    KeyPtr key = key_new(type);
    EVP_PKEY_up_ref(pkey);
    key->pkey.reset(pkey);
    key->ecdsa_nid = nid;
    SecureBytes blob;
    uint32_t len = key_to_blob(key.get(), &blob, nullptr, key_blob_type_name(key.get()));
    k.public_blob.assign(blob.begin(), blob.begin() + len);
    Buffer add;
    buffer_put_char(&add, 17);
    private_key_put_agent_fields(pkey, &add);
    buffer_put_cstring(&add, label);
    k.add_request.assign(buffer_ptr(&add), buffer_ptr(&add) + buffer_len(&add));
    return k;
}

TestKey make_rsa()
{
    return make_key("RSA-2048 rsa-sha2-256", EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048)),
                    KEY_RSA, -1, 2);
}

TestKey make_ecdsa()
{
    return make_key("ECDSA P-256", EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), KEY_ECDSA, KEY_NID_P256, 0);
}

class Client {
public:
    explicit Client(const std::string &path)
    {
        fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        ok_ = connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    }
    ~Client() { close(fd_); }
    bool ok() const { return ok_; }
    // Sends one request and returns the reply body (empty on failure).
    Bytes call(const Bytes &request)
    {
        if (send(fd_, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
            return {};
        uint8_t header[4];
        if (!read_exact(header, 4))
            return {};
        uint32_t n = get_u32(header);
        Bytes body(n);
        if (!read_exact(body.data(), n))
            return {};
        return body;
    }

private:
    bool read_exact(uint8_t *p, size_t n)
    {
        while (n) {
            ssize_t r = recv(fd_, p, n, 0);
            if (r <= 0)
                return false;
            p += r;
            n -= static_cast<size_t>(r);
        }
        return true;
    }
    int fd_;
    bool ok_;
};

Bytes sign_request(const TestKey &key)
{
    Bytes body{13};
    put_string(body, key.public_blob.data(), key.public_blob.size());
    Bytes data(64, 0x5a);
    put_string(body, data.data(), data.size());
    put_u32(body, key.sign_flags);
    return framed(body);
}

// Round trips per second of `request` through `clients` connections at
// once; -1 when a reply was not of `expect`.
double socket_rate(const std::string &socket_path, const Bytes &request, uint8_t expect, int clients, double seconds)
{
    std::atomic<long> done{0};
    std::atomic<bool> failed{false};
    auto until = Clock::now() + std::chrono::duration<double>(seconds);
    std::vector<std::thread> threads;
    auto start = Clock::now();
    for (int c = 0; c < clients; ++c)
        threads.emplace_back([&] {
            Client client(socket_path);
            while (Clock::now() < until) {
                Bytes reply = client.call(request);
                if (reply.empty() || reply[0] != expect) {
                    failed = true;
                    return;
                }
                ++done;
            }
        });
    for (auto &t : threads)
        t.join();
    double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    return failed ? -1 : done / elapsed;
}

double raw_rate(const TestKey &key, double seconds)
{
    Bytes data(64, 0x5a);
    uint8_t sig[1024];
    long count = 0;
    auto start = Clock::now();
    auto until = start + std::chrono::duration<double>(seconds);
    while (Clock::now() < until) {
        EVP_MD_CTX *ctx = EVP_MD_CTX_new();
        size_t len = sizeof sig;
        EVP_DigestSignInit(ctx, nullptr, key.md, nullptr, key.pkey);
        EVP_DigestSign(ctx, sig, &len, data.data(), data.size());
        EVP_MD_CTX_free(ctx);
        ++count;
    }
    return count / std::chrono::duration<double>(Clock::now() - start).count();
}

// The machine is shared, so its load changes while a run goes on: rates
// that are compared are measured in turns, in short slices, and each is the
// mean over its slices. A failed measurement (-1) stays -1.
std::vector<double> interleaved(const std::vector<std::function<double(double)>> &measures, double seconds)
{
    constexpr int SLICES = 6;
    std::vector<double> sums(measures.size(), 0);
    for (int slice = 0; slice < SLICES; ++slice)
        for (size_t i = 0; i < measures.size(); ++i) {
            double rate = sums[i] < 0 ? -1 : measures[i](seconds / SLICES);
            sums[i] = rate < 0 ? -1 : sums[i] + rate;
        }
    for (double &sum : sums)
        sum = sum < 0 ? -1 : sum / SLICES;
    return sums;
}

pid_t spawn(const std::vector<std::string> &args)
{
    fflush(stdout);  // or the child's freopen writes the parent's buffer again
    pid_t pid = fork();
    if (pid == 0) {
        freopen("/dev/null", "w", stdout);
        freopen("/dev/null", "w", stderr);
        std::vector<char *> argv;
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

bool wait_for(const std::string &path)
{
    for (int i = 0; i < 200; ++i) {
        if (std::filesystem::exists(path))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

bool add_keys(const std::string &socket_path, const std::vector<TestKey> &keys)
{
    Client client(socket_path);
    for (const auto &key : keys) {
        Bytes reply = client.call(framed(key.add_request));
        if (reply.empty() || reply[0] != 6)
            return false;
    }
    return true;
}

double ratio(double a, double b) { return a > 0 && b > 0 ? a / b : 0; }

std::vector<std::string> agent_args(const std::filesystem::path &root, const std::string &socket_path)
{
    return {TKEYAGENT_PATH, "-D", "-a", socket_path, "--data-dir", (root / "data").string(), "--log-dir",
            (root / "log").string()};
}

void stop(pid_t pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

// Fills a fresh agent with `count` ECDSA keys and returns how long the add
// of the last one took, request to reply, in milliseconds (-1 on failure);
// `*first_ms` gets the first add's time. The agent is stopped; its store stays.
double time_adds(const std::filesystem::path &root, int count, std::vector<TestKey> *keys, double *first_ms)
{
    std::string path = (root / "run" / "agent.sock").string();
    std::vector<std::string> args = agent_args(root, path);
    args.push_back("--empty-passphrase");
    pid_t agent = spawn(args);
    double last_ms = -1;
    if (wait_for(path)) {
        Client client(path);
        for (int i = 0; i < count; ++i) {
            keys->push_back(make_ecdsa());
            auto start = Clock::now();
            Bytes reply = client.call(framed(keys->back().add_request));
            double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
            if (reply.empty() || reply[0] != 6)
                break;
            if (i == 0)
                *first_ms = ms;
            if (i == count - 1)
                last_ms = ms;
        }
    }
    stop(agent);
    return last_ms;
}

// Starts the agent on the store that time_adds left and returns the
// milliseconds until it signs with the last stored key (-1 on failure).
double time_start(const std::filesystem::path &root, const TestKey &key)
{
    std::string path = (root / "run" / "agent.sock").string();
    Bytes request = sign_request(key);
    auto start = Clock::now();
    pid_t agent = spawn(agent_args(root, path));
    double ms = -1;
    while (ms < 0 && Clock::now() - start < std::chrono::seconds(30)) {
        if (std::filesystem::exists(path)) {
            Client client(path);
            if (client.ok()) {
                Bytes reply = client.call(request);
                if (!reply.empty() && reply[0] == 14) {
                    ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
                    break;
                }
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    stop(agent);
    return ms;
}

}  // namespace

int main(int argc, char **argv)
{
    double seconds = argc > 1 ? atof(argv[1]) : 3.0;
    int stored = argc > 2 ? atoi(argv[2]) : 1000;
    std::filesystem::path root = std::filesystem::temp_directory_path() / ("tarnwell-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(root);
    std::filesystem::permissions(root, std::filesystem::perms::owner_all);
    std::string ours = (root / "run" / "agent.sock").string();
    std::string theirs = (root / "ssh-agent.sock").string();

    std::vector<TestKey> keys = {make_rsa(), make_ecdsa()};

    std::vector<std::string> args = agent_args(root, ours);
    args.push_back("--empty-passphrase");
    pid_t agent = spawn(args);
    pid_t openssh = spawn({"ssh-agent", "-D", "-a", theirs});
    bool ours_up = wait_for(ours);
    bool theirs_up = wait_for(theirs);
    if (!ours_up)
        fprintf(stderr, "tkeyagent did not start\n");

    // The empty list first, while neither agent holds a key.
    Bytes list = framed(Bytes{11});
    printf("%-28s %12s %12s %10s %10s\n", "empty list", "ssh-agent/s", "ours/s", "ours/agent", "aim");
    for (int clients : {1, 8}) {
        std::vector<double> rates = interleaved(
            {[&](double s) { return theirs_up ? socket_rate(theirs, list, 12, clients, s) : -1; },
             [&](double s) { return ours_up ? socket_rate(ours, list, 12, clients, s) : -1; }},
            seconds);
        double openssh_rate = rates[0], rate = rates[1];
        printf("%-28s %12.0f %12.0f %10.2f %10s\n", (std::to_string(clients) + " client(s)").c_str(), openssh_rate,
               rate, ratio(rate, openssh_rate), clients == 1 ? ">= 1.2" : ">= 1.0");
    }

    ours_up = ours_up && add_keys(ours, keys);
    theirs_up = theirs_up && add_keys(theirs, keys);
    if (!ours_up)
        fprintf(stderr, "tkeyagent did not accept the benchmark keys\n");
    printf("\n%-28s %12s %12s %12s %12s %10s %10s\n", "signs", "raw/s", "ssh-agent/s", "ours 1c/s", "ours 4c/s",
           "1c/agent", "4c/raw");
    for (const auto &key : keys) {
        Bytes request = sign_request(key);
        std::vector<double> rates = interleaved(
            {[&](double s) { return raw_rate(key, s); },
             [&](double s) { return theirs_up ? socket_rate(theirs, request, 14, 1, s) : -1; },
             [&](double s) { return ours_up ? socket_rate(ours, request, 14, 1, s) : -1; },
             [&](double s) { return ours_up ? socket_rate(ours, request, 14, 4, s) : -1; }},
            seconds);
        double raw = rates[0], openssh_rate = rates[1], one = rates[2], four = rates[3];
        printf("%-28s %12.0f %12.0f %12.0f %12.0f %10.2f %10.2f\n", key.label.c_str(), raw, openssh_rate, one, four,
               ratio(one, openssh_rate), ratio(four, raw));
    }
    printf("%-28s %12s %12s %12s %12s %10s %10s\n", "aim (RSA / ECDSA)", "", "", "", "", ">= 2 / 3", ">= 0.9 / 0.5");
    stop(agent);
    stop(openssh);

    std::vector<TestKey> many;
    double first_ms = -1;
    std::filesystem::path store = root / "store";
    double last_ms = time_adds(store, stored, &many, &first_ms);
    double start_ms = last_ms >= 0 ? time_start(store, many.back()) : -1;
    printf("\n%-40s %10.1f ms (the first: %.1f ms)   aim <= 10 ms\n",
           ("adding ECDSA key number " + std::to_string(stored)).c_str(), last_ms, first_ms);
    printf("%-40s %10.1f ms   aim <= 500 ms\n",
           ("start to signing, " + std::to_string(stored) + " stored keys").c_str(), start_ms);

    std::filesystem::remove_all(root);
    for (auto &key : keys)
        EVP_PKEY_free(key.pkey);
    for (auto &key : many)
        EVP_PKEY_free(key.pkey);
    return ours_up && last_ms >= 0 && start_ms >= 0 ? 0 : 1;
}
