// tagent.exe under Wine against tkeyagent.exe.

#include "win32/agent_channels.h"

namespace {

// Usage errors start no agent. The key store is written under a
// passphrase: when TARNWELL_STORE_EXPORT names a folder, the Linux build's
// test reads it back from there. After the restart the key signs, watch
// prints each change and lock state, and stop ends the agent.
TEST(TagentExe, AddsListsSignsAndRemovesAKeyThatSurvivesARestart)
{
    WindowsAgent agent;
    EXPECT_EQ(agent.tagent("frobnicate").status, 2);
    std::string help = agent.tagent("--help").out;
    EXPECT_EQ(help.rfind("usage: tagent COMMAND\r\n", 0), 0u) << help;
    EXPECT_EQ(find_agent_window(), nullptr) << "no agent is started for a usage error";

    agent.seed_passphrase("shared words");
    ASSERT_NE(agent.start(), nullptr) << agent.log();
    std::string passphrase = agent.path("passphrase.txt");
    std::ofstream(passphrase, std::ios::binary) << "shared words\n";
    const std::string unlock = "unlock --passphrase-file \"" + passphrase + "\"";
    ASSERT_EQ(agent.tagent(unlock).status, 0);
    std::string key_file = agent.path("id_shared.pem");
    PkeyPtr key(write_pem_key(key_file, "RSA"));
    ToolResult added = agent.tagent("add \"" + key_file + "\"");
    EXPECT_EQ(added.status, 0) << added.out;

    EXPECT_EQ(agent.close(), 0);
    char target[MAX_PATH] = {};
    if (GetEnvironmentVariableA("TARNWELL_STORE_EXPORT", target, sizeof target)) {
        for (const char *name : {"tAgent", "tAgentKeys", "tAgentKeys.pub"})
            EXPECT_TRUE(std::filesystem::copy_file(agent.path(name), std::filesystem::path(target) / name)) << name;
        FILE *file = fopen((std::filesystem::path(target) / "id_shared.pem").string().c_str(), "wb");
        PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        fclose(file);
    }

    HWND window = agent.start();
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(agent.tagent(unlock).status, 0);
    const std::string data = "data that a server asks to have signed";
    WinHandle pipe = agent_pipe_open(window);
    auto listed = identities(pipe.get());
    ASSERT_FALSE(listed.empty()) << agent.log();
    expect_verifies(signature_of(call(pipe.get(), sign_request(listed.begin()->second, data, 2))), key.get(),
                    "rsa-sha2-256", "SHA256", "rsa", text_bytes(data));

    // watch prints each change notice and each change of the lock state,
    // and ends with the agent.
    std::string out = agent.path("watch.out");
    EXPECT_EQ(agent.tagent("lock").status, 0);
    PROCESS_INFORMATION watcher = start_process(program_path("tagent.exe"), L"tagent.exe watch", out);
    EXPECT_TRUE(agent.log_shows("register refresh"));
    std::string expected;
    for (const std::string &command : {unlock, std::string("lock"), unlock, std::string("remove --all")}) {
        EXPECT_EQ(agent.tagent(command).status, 0) << command;
        const char *state = command == "lock" ? "locked\r\n" : command == unlock ? "unlocked\r\n" : "";
        expected += std::string("changed\r\n") + state;
        EXPECT_TRUE(eventually([&] { return read_file_text(out) == expected; })) << read_file_text(out);
    }
    EXPECT_EQ(agent.tagent("stop").status, 0);
    EXPECT_EQ(wait_exit(&watcher), 0);
    EXPECT_EQ(agent.close(), 0);
}

}  // namespace
