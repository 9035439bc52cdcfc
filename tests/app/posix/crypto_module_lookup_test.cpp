#include <gtest/gtest.h>

#include "support/agent_process.h"

TEST(CryptoModule, AgentFindsTheLibraryBesideItsExecutable)
{
    // tkeyagent has no run path to the build folder: only the lookup beside
    // the executable can find the library.
    AgentProcess agent;
    ASSERT_TRUE(agent.start());
    agent.stop();
    std::string log = agent.log_text();
    EXPECT_NE(log.find("Using Crypto library version 3."), std::string::npos) << log;
    EXPECT_NE(log.find("Crypto module initialization succeeded"), std::string::npos);
    EXPECT_NE(log.find("Setting PKI to use non-FIPS"), std::string::npos);
    EXPECT_NE(log.find("Crypto module cleanup called."), std::string::npos);
}
