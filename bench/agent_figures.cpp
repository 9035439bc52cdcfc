// Sign requests per second through the agent socket, for RSA-2048
// ("rsa-sha2-256") and ECDSA P-256, with one and with four clients, beside
// the raw single-thread OpenSSL signing rate of the same keys and, when it
// is installed, OpenSSH's ssh-agent holding the same key. All rates are
// measured in this one run; the ratios are what to compare.
//
// usage: bench_sign_socket [seconds per measurement, default 3]

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

double socket_rate(const std::string &socket_path, const TestKey &key, int clients, double seconds)
{
    Bytes request = sign_request(key);
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
                if (reply.empty() || reply[0] != 14) {
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

pid_t spawn(const std::vector<std::string> &args)
{
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

}  // namespace

int main(int argc, char **argv)
{
    double seconds = argc > 1 ? atof(argv[1]) : 3.0;
    std::filesystem::path root = std::filesystem::temp_directory_path() / ("tarnwell-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(root);
    std::filesystem::permissions(root, std::filesystem::perms::owner_all);
    std::string ours = (root / "run" / "agent.sock").string();
    std::string theirs = (root / "ssh-agent.sock").string();

    std::vector<TestKey> keys = {make_rsa(), make_ecdsa()};

    pid_t agent = spawn({TKEYAGENT_PATH, "-D", "-a", ours, "--data-dir", (root / "data").string(), "--log-dir",
                         (root / "log").string(), "--empty-passphrase"});
    pid_t openssh = spawn({"ssh-agent", "-D", "-a", theirs});
    bool ours_up = wait_for(ours) && add_keys(ours, keys);
    bool theirs_up = wait_for(theirs) && add_keys(theirs, keys);
    if (!ours_up)
        fprintf(stderr, "tkeyagent did not accept the benchmark keys\n");

    printf("%-24s %12s %12s %12s %12s %10s %10s %10s\n", "key", "raw/s", "ssh-agent/s", "ours 1c/s", "ours 4c/s",
           "1c/agent", "1c/raw", "4c/raw");
    for (const auto &key : keys) {
        double raw = raw_rate(key, seconds);
        double openssh_rate = theirs_up ? socket_rate(theirs, key, 1, seconds) : -1;
        double one = ours_up ? socket_rate(ours, key, 1, seconds) : -1;
        double four = ours_up ? socket_rate(ours, key, 4, seconds) : -1;
        printf("%-24s %12.0f %12.0f %12.0f %12.0f %10.2f %10.2f %10.2f\n", key.label.c_str(), raw, openssh_rate, one,
               four, openssh_rate > 0 ? one / openssh_rate : 0, one / raw, four / raw);
    }

    kill(agent, SIGTERM);
    kill(openssh, SIGTERM);
    waitpid(agent, nullptr, 0);
    waitpid(openssh, nullptr, 0);
    std::filesystem::remove_all(root);
    for (auto &key : keys)
        EVP_PKEY_free(key.pkey);
    return ours_up ? 0 : 1;
}
