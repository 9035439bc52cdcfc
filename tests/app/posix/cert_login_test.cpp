// OpenSSH's ssh logs into a private sshd with the public keys of
// certificates offered as keys, one from each location: a SoftHSM2 token,
// the agent's own store and the NSS database. All come back after a restart.
#include <gtest/gtest.h>

#include "support/agent_process.h"
#include "support/requests.h"
#include "support/softhsm_token.h"
#include "support/sshd_server.h"
#include "support/test_pki.h"

TEST(CertLogin, CertificatesOfEveryLocationLogInAsKeys)
{
    if (!SshdServer::available())
        GTEST_SKIP() << "sshd is not installed";
    TestPki pki;
    std::string token_leaf = pki.leaf("token-user", "RSA:2048"), store_leaf = pki.leaf("store-user", "EC:P-256"),
                nss_leaf = pki.leaf("nss-user", "EC:P-384");
    SoftHsmToken token;
    token.put(token_leaf, "0a");
    pki.ok("mkdir nssdb && certutil -N -d sql:nssdb --empty-password && pk12util -i nss-user.p12 -d sql:nssdb -W p12pass");

    AgentProcess agent({"--empty-passphrase"});
    std::string pinlog = (agent.root() / "pinentry.log").string();
    agent.set_env({"SOFTHSM2_CONF=" + token.dir.path("softhsm2.conf"), std::string("TARNWELL_PKCS11_MODULE=") + SOFTHSM_MODULE,
                   "TARNWELL_PINENTRY=" + std::string(TARNWELL_SOURCE_DIR) + "/tests/support/scripted_pinentry.sh",
                   "TARNWELL_NSS_DB=" + pki.path("nssdb"), std::string("PINENTRY_PIN=") + TOKEN_PIN, "PINENTRY_LOG=" + pinlog});
    ASSERT_TRUE(agent.start()) << agent.log_text();

    pki.write("p12pass.txt", "p12pass\n");
    pki.write("empty.txt", "\n");
    ProgramRun imported = run_program(agent, {TAGENT_PATH, "cert", "import", store_leaf + ".p12", "--password-file",
                                              pki.path("p12pass.txt"), "--passphrase-file", pki.path("empty.txt"),
                                              "--data-dir", agent.data_dir()});
    ASSERT_EQ(imported.status, 0) << imported.output;
    ProgramRun listed = run_program(agent, {TAGENT_PATH, "cert", "list", "--data-dir", agent.data_dir()});
    EXPECT_TRUE(has(listed.output, "identity store-user")) << listed.output;
    EXPECT_TRUE(has(listed.output, "ca       Test Root")) << listed.output;
    for (auto [location, id] : {std::pair{"3", "store-user"}, {"pkcs11", "token-user"}, {"system", "nss-user"}}) {
        ProgramRun added = run_tagent(agent, {"add-cert", location, id});
        EXPECT_EQ(added.status, 0) << added.output << agent.log_text();
    }
    EXPECT_EQ(run_tagent(agent, {"add-cert", "3", "nobody"}).status, 1);

    // authorized_keys: the certificates' public keys as OpenSSH lines.
    std::string authorized;
    for (const std::string &leaf : {token_leaf, store_leaf, nss_leaf}) {
        pki.ok("openssl x509 -pubkey -noout -in " + leaf + ".crt > " + leaf + ".spki && ssh-keygen -i -m PKCS8 -f " +
               leaf + ".spki > " + leaf + ".pub");
        authorized += read_file_text(leaf + ".pub");
    }
    SshdServer sshd(agent.root() / "sshd");
    ASSERT_TRUE(sshd.start(authorized)) << sshd.log();

    for (int run_number = 0; run_number < 2; ++run_number) {
        SCOPED_TRACE(run_number == 0 ? "first run" : "after a restart");
        // The vendor forwarding notice's mode 2: certificates offered as keys only.
        EXPECT_EQ(AgentClient(agent.socket_path()).request(vendor_notice("test", 2)), hex_bytes("0000000106"));
        for (auto [leaf, word] : {std::pair{token_leaf, "token-ok"}, {token_leaf, "token-again"},
                                  {store_leaf, "store-ok"}, {nss_leaf, "nss-ok"}}) {
            ProgramRun out = run_program(
                agent, sshd.ssh_args({"-o", "IdentitiesOnly=yes", "-o", "IdentityFile=" + leaf + ".pub"}, "echo " + std::string(word)));
            EXPECT_EQ(out.status, 0) << out.output << sshd.log() << agent.log_text();
            EXPECT_TRUE(has(out.output, word));
        }
        agent.stop();
        ASSERT_TRUE(agent.start()) << agent.log_text();
    }
    std::string log = agent.log_text();
    EXPECT_TRUE(has(log, "Look up key (certs as keys)."));
    EXPECT_TRUE(has(log, "(as type: rsa-sha2-512,  hash: SHA512)")) << log;
    EXPECT_TRUE(has(log, "(as type: ecdsa-sha2-nistp256,  hash: SHA256)")) << log;
    // The PIN was asked once per agent run.
    std::string asked = read_file_text(pinlog);
    EXPECT_EQ(count_of(asked, "GETPIN"), 2u) << asked;
}
