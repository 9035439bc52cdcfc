// tagent.exe under Wine against tkeyagent.exe: a PEM key added (its
// password typed into dialog 219), listed, kept across a restart, used to
// sign through the pipe (checked with OpenSSL) and removed.
#include <windows.h>

#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <thread>

#include "app/win32/agent_client_access.h"
#include "win32/dialog_driver.h"
#include "win32/windows_agent.h"

namespace {

constexpr uint8_t REQUEST_IDENTITIES = 11, IDENTITIES_ANSWER = 12, SIGN_REQUEST = 13, SIGN_RESPONSE = 14;
constexpr uint32_t RSA_SHA2_256 = 2;

struct ToolResult {
    long status = -1;
    std::string out, err;
};

// Runs tagent.exe with `arguments`, its output into files of `folder`.
ToolResult run_tagent(const WindowsAgent &agent, const std::string &arguments)
{
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    std::string out_path = agent.path("tagent.out"), err_path = agent.path("tagent.err");
    auto open = [&](const std::string &path) {
        return CreateFileW(utf8_to_wide(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0,
                           nullptr);
    };
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = open(out_path);
    startup.hStdError = open(err_path);
    startup.hStdInput = nullptr;
    std::wstring program = utf8_to_wide(platform_executable_dir() + "tagent.exe");
    std::wstring line = L"tagent.exe " + utf8_to_wide(arguments);
    PROCESS_INFORMATION process = {};
    agent.use_folder();
    ToolResult result;
    if (CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                       &process))
        result.status = WindowsAgent::wait_exit(&process);
    CloseHandle(startup.hStdOutput);
    CloseHandle(startup.hStdError);
    result.out = read_file_text(out_path);
    result.err = read_file_text(err_path);
    std::filesystem::remove(out_path);
    std::filesystem::remove(err_path);
    return result;
}

EVP_PKEY *write_encrypted_rsa_key(const std::string &path, const char *password)
{
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048));
    FILE *file = fopen(path.c_str(), "wb");
    PEM_write_PrivateKey(file, key, EVP_aes_256_cbc(), nullptr, 0, nullptr, const_cast<char *>(password));
    fclose(file);
    return key;
}

bool verifies(EVP_PKEY *key, const SecureBytes &signature, const std::string &data)
{
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    bool ok = EVP_DigestVerifyInit(md, nullptr, EVP_sha256(), nullptr, key) == 1 &&
              EVP_DigestVerify(md, signature.data(), signature.size(), reinterpret_cast<const uint8_t *>(data.data()),
                               data.size()) == 1;
    EVP_MD_CTX_free(md);
    return ok;
}

// Signs `data` with the agent's first identity through a pipe of its own;
// the raw signature, empty on failure.
SecureBytes sign_with_first_identity(HWND agent_window, const std::string &data)
{
    WinHandle pipe = agent_pipe_open(agent_window);
    Buffer list, listed, sign, signed_reply, signature;
    buffer_put_char(&list, REQUEST_IDENTITIES);
    if (!agent_pipe_request(pipe.get(), list, IDENTITIES_ANSWER, &listed))
        return {};
    buffer_get_char(&listed);
    // One RSA key is listed once per signature name.
    if (buffer_get_int(&listed) == 0)
        return {};
    SecureBytes blob = buffer_get_string(&listed);
    buffer_put_char(&sign, SIGN_REQUEST);
    buffer_put_string(&sign, blob.data(), static_cast<uint32_t>(blob.size()));
    buffer_put_string(&sign, data.data(), static_cast<uint32_t>(data.size()));
    buffer_put_int(&sign, RSA_SHA2_256);
    if (!agent_pipe_request(pipe.get(), sign, SIGN_RESPONSE, &signed_reply))
        return {};
    buffer_get_char(&signed_reply);
    SecureBytes bytes = buffer_get_string(&signed_reply);
    buffer_append(&signature, bytes.data(), static_cast<uint32_t>(bytes.size()));
    if (buffer_get_string_text(&signature) != "rsa-sha2-256")
        return {};
    return buffer_get_string(&signature);
}

TEST(TagentExe, AddsListsSignsAndRemovesAKeyThatSurvivesARestart)
{
    WindowsAgent agent;
    agent.seed_passphrase("");
    ASSERT_NE(agent.start(), nullptr) << agent.log();
    std::string key_file = agent.path("id_rsa.pem");
    EVP_PKEY *key = write_encrypted_rsa_key(key_file, "key password");

    // The user types the key's password into the dialog of tagent.exe.
    std::thread user([] {
        HWND dialog = wait_for_dialog(L"Key Passphrase");
        ASSERT_NE(dialog, nullptr);
        type_into(dialog, 126, L"key password");
        press(dialog, IDOK);
    });
    ToolResult added = run_tagent(agent, "add \"" + key_file + "\"");
    user.join();
    EXPECT_EQ(added.status, 0) << added.err;
    EXPECT_NE(added.out.find("Identity added: "), std::string::npos) << added.out;

    ToolResult listed = run_tagent(agent, "list");
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_NE(listed.out.find("RSA 2048  SHA256:"), std::string::npos) << listed.out;

    EXPECT_EQ(agent.close(), 0);
    HWND window = agent.start();
    ASSERT_NE(window, nullptr);
    ToolResult relisted = run_tagent(agent, "list");
    EXPECT_EQ(relisted.out, listed.out) << "the key store was read back";

    const std::string data = "data that a server asks to have signed";
    SecureBytes signature = sign_with_first_identity(window, data);
    ASSERT_FALSE(signature.empty()) << agent.log();
    EXPECT_TRUE(verifies(key, signature, data));
    EXPECT_FALSE(verifies(key, signature, data + "."));

    EXPECT_EQ(run_tagent(agent, "remove --all").status, 0);
    ToolResult empty = run_tagent(agent, "list");
    EXPECT_NE(empty.out.find("The agent has no identities."), std::string::npos) << empty.out;
    EXPECT_EQ(run_tagent(agent, "set AllowAdd no").out, "AllowAdd changed\r\n");
    EXPECT_EQ(run_tagent(agent, "stop").status, 0);
    EXPECT_EQ(agent.close(), 0);
    EVP_PKEY_free(key);
}

TEST(TagentExe, UsageErrorsAndAnUnknownCommandExitTwo)
{
    WindowsAgent agent;
    for (const char *arguments : {"frobnicate", "set AllowAdd maybe", "remove a b"}) {
        ToolResult result = run_tagent(agent, arguments);
        EXPECT_EQ(result.status, 2) << arguments;
        EXPECT_EQ(result.err.rfind("tagent: ", 0), 0u) << result.err;
    }
    EXPECT_EQ(find_agent_window(), nullptr) << "no agent is started for a usage error";
}

}  // namespace
