// Keys held by tkeyagent.exe under Wine, through its pipe: added, used to
// sign (the signature checked with OpenSSL), kept across a restart in the
// key store, removed.
#include <windows.h>

#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <vector>

#include "app/win32/agent_client_access.h"
#include "win32/windows_agent.h"

namespace {

constexpr uint8_t AGENT_SUCCESS = 6, REQUEST_IDENTITIES = 11, IDENTITIES_ANSWER = 12, SIGN_REQUEST = 13,
                  SIGN_RESPONSE = 14, ADD_IDENTITY = 17, REMOVE_IDENTITY = 18;

struct Ed25519Key {
    std::vector<uint8_t> public_key = std::vector<uint8_t>(32), secret = std::vector<uint8_t>(32);
    Ed25519Key()
    {
        EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
        size_t size = 32;
        EVP_PKEY_get_raw_public_key(key, public_key.data(), &size);
        EVP_PKEY_get_raw_private_key(key, secret.data(), &size);
        EVP_PKEY_free(key);
    }
    ~Ed25519Key() { OPENSSL_cleanse(secret.data(), secret.size()); }
    void put_blob(Buffer *b) const
    {
        Buffer blob;
        buffer_put_cstring(&blob, "ssh-ed25519");
        buffer_put_string(&blob, public_key.data(), 32);
        buffer_put_buffer_string(b, &blob);
    }
    bool verifies(const std::vector<uint8_t> &signature, const std::string &data) const
    {
        EVP_PKEY *key = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, public_key.data(), 32);
        EVP_MD_CTX *md = EVP_MD_CTX_new();
        bool ok = EVP_DigestVerifyInit(md, nullptr, nullptr, nullptr, key) == 1 &&
                  EVP_DigestVerify(md, signature.data(), signature.size(),
                                   reinterpret_cast<const uint8_t *>(data.data()), data.size()) == 1;
        EVP_MD_CTX_free(md);
        EVP_PKEY_free(key);
        return ok;
    }
};

class Client {
public:
    explicit Client(HWND agent) : pipe_(agent_pipe_open(agent)) {}
    bool ok() const { return static_cast<bool>(pipe_); }
    bool request(const Buffer &body, uint8_t expected, Buffer *reply)
    {
        return agent_pipe_request(pipe_.get(), body, expected, reply);
    }
    // The number of identities the agent lists.
    int count()
    {
        Buffer body, reply;
        buffer_put_char(&body, REQUEST_IDENTITIES);
        if (!request(body, IDENTITIES_ANSWER, &reply))
            return -1;
        buffer_get_char(&reply);
        return static_cast<int>(buffer_get_int(&reply));
    }

private:
    WinHandle pipe_;
};

TEST(WindowsKeyStore, KeyAddedThroughThePipeSignsAndSurvivesARestart)
{
    WindowsAgent agent;
    agent.seed_passphrase("");
    Ed25519Key key;
    {
        HWND window = agent.start();
        ASSERT_NE(window, nullptr) << agent.log();
        Client client(window);
        ASSERT_TRUE(client.ok());
        Buffer add, reply;
        buffer_put_char(&add, ADD_IDENTITY);
        buffer_put_cstring(&add, "ssh-ed25519");
        buffer_put_string(&add, key.public_key.data(), 32);
        std::vector<uint8_t> secret = key.secret;
        secret.insert(secret.end(), key.public_key.begin(), key.public_key.end());
        buffer_put_string(&add, secret.data(), static_cast<uint32_t>(secret.size()));
        OPENSSL_cleanse(secret.data(), secret.size());
        buffer_put_cstring(&add, "work key");
        ASSERT_TRUE(client.request(add, AGENT_SUCCESS, &reply)) << agent.log();
        EXPECT_EQ(client.count(), 1);

        const std::string data = "session identifier and user auth request";
        Buffer sign;
        buffer_put_char(&sign, SIGN_REQUEST);
        key.put_blob(&sign);
        buffer_put_string(&sign, data.data(), static_cast<uint32_t>(data.size()));
        buffer_put_int(&sign, 0);
        ASSERT_TRUE(client.request(sign, SIGN_RESPONSE, &reply));
        buffer_get_char(&reply);
        Buffer signature;
        SecureBytes blob = buffer_get_string(&reply);
        buffer_append(&signature, blob.data(), static_cast<uint32_t>(blob.size()));
        EXPECT_EQ(buffer_get_string_text(&signature), "ssh-ed25519");
        SecureBytes raw = buffer_get_string(&signature);
        EXPECT_TRUE(key.verifies({raw.begin(), raw.end()}, data));
        EXPECT_FALSE(key.verifies({raw.begin(), raw.end()}, data + "!"));
        EXPECT_EQ(agent.close(), 0);
    }
    EXPECT_TRUE(std::filesystem::exists(agent.path("tAgentKeys")));
    EXPECT_TRUE(std::filesystem::exists(agent.path("tAgentKeys.pub")));
    {
        HWND window = agent.start();
        ASSERT_NE(window, nullptr);
        Client client(window);
        ASSERT_TRUE(client.ok());
        EXPECT_EQ(client.count(), 1) << "the key store was read back";
        Buffer remove, reply;
        buffer_put_char(&remove, REMOVE_IDENTITY);
        key.put_blob(&remove);
        EXPECT_TRUE(client.request(remove, AGENT_SUCCESS, &reply));
        EXPECT_EQ(client.count(), 0);
        EXPECT_EQ(agent.close(), 0);
    }
}

}  // namespace
