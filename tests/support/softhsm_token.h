// A SoftHSM2 token for the tests: its own configuration and token folder,
// initialised with softhsm2-util, filled with pkcs11-tool and
// softhsm2-util, and removed (folder and environment) afterwards.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/tool_run.h"

constexpr const char *SOFTHSM_MODULE = "/usr/lib/softhsm/libsofthsm2.so";
constexpr const char *TOKEN_LABEL = "agent test";
constexpr const char *TOKEN_PIN = "1234";

class SoftHsmToken {
public:
    SoftHsmToken()
    {
        std::filesystem::create_directories(tokens());
        std::ofstream(dir.path("softhsm2.conf"))
            << "directories.tokendir = " << tokens() << "\nobjectstore.backend = file\nlog.level = ERROR\n";
        setenv("SOFTHSM2_CONF", dir.path("softhsm2.conf").c_str(), 1);
        run(std::string("softhsm2-util --init-token --free --label '") + TOKEN_LABEL + "' --pin " + TOKEN_PIN +
            " --so-pin 5678");
    }
    ~SoftHsmToken() { unsetenv("SOFTHSM2_CONF"); }

    // The private key (PKCS#8 PEM) and certificate of a leaf, under one id.
    void put(const std::string &leaf_base, const std::string &id)
    {
        run("softhsm2-util --import " + leaf_base + ".key --token '" + TOKEN_LABEL + "' --label key" + id +
            " --id " + id + " --pin " + TOKEN_PIN);
        run("openssl x509 -in " + leaf_base + ".crt -outform DER -out " + leaf_base + ".der");
        run(tool() + "--write-object " + leaf_base + ".der --type cert --id " + id + " --label cert" + id);
    }
    void delete_private_key(const std::string &id) { run(tool() + "--delete-object --type privkey --id " + id); }

    // Takes the token away and puts it back (its files move aside).
    void take_out() { std::filesystem::rename(tokens(), dir.path("away")); }
    void put_back() { std::filesystem::rename(dir.path("away"), tokens()); }

    std::string tokens() const { return dir.path("tokens"); }
    TempFolder dir;

private:
    static std::string tool()
    {
        return std::string("pkcs11-tool --module ") + SOFTHSM_MODULE + " --token-label '" + TOKEN_LABEL +
               "' --login --pin " + TOKEN_PIN + " ";
    }
    static void run(const std::string &command)
    {
        ToolResult r = run_tool(command);
        ASSERT_EQ(r.status, 0) << command << "\n" << r.output;
    }
};
