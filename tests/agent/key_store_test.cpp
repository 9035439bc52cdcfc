#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "agent/key_store.h"
#include "agent/key_store_files.h"
#include "crypto/private_key_pem.h"
#include "keys/key_material.h"
#include "support/agent_state.h"
#include "support/identity_fixture.h"
#include "support/log_capture.h"

namespace {

using Lines = std::vector<std::string>;

// Keys are made once: generating them dominates the run time otherwise.
KeyPtr copy_key(size_t i)
{
    static std::vector<KeyPtr> keys;
    if (keys.empty())
        for (auto [type, bits] : {std::pair{KEY_RSA, 1024u}, {KEY_ECDSA, 256u}, {KEY_DSA, 1024u}, {KEY_ECDSA, 384u},
                                  {KEY_ECDSA, 521u}})
            keys.push_back(key_generate(type, bits));
    KeyPtr key = key_new(keys.at(i)->type);
    key->pkey.reset(EVP_PKEY_dup(keys.at(i)->pkey.get()));
    key->ecdsa_nid = keys.at(i)->ecdsa_nid;
    return key;
}

// A store file's text with each PEM block and key text replaced by a
// marker, so that its whole layout compares at once.
std::string layout(const std::string &text)
{
    std::string out = std::regex_replace(text, std::regex("-----BEGIN ([A-Z ]+)-----\n[^-]+-----END [A-Z ]+-----\n"),
                                         "<$1>\n");
    return std::regex_replace(out, std::regex(" [A-Za-z0-9+/]{40,}=*"), " <base64>");
}

// Table 2 as "name|comment|private" lines, in order.
Lines table_two()
{
    Lines listed;
    for (auto &identity : identity_table_for_version(2)->identities) {
        const Key *key = identity->key.get();
        bool secret = key->pkey && pkey_get_bn(key->pkey.get(), key->type == KEY_RSA ? "d" : "priv") != nullptr;
        listed.push_back(key->name + "|" + identity->comment.value_or("<none>") + (secret ? "|private" : "|public"));
    }
    return listed;
}

// What the next start reads: the public file at once, the private file
// once the passphrase is known.
Lines restart_and_load()
{
    identity_tables_init();
    load_public_key_store();
    load_private_key_store();
    return table_two();
}

using KeyStore = AgentStateTest;

}  // namespace

TEST_F(KeyStore, SavesBothFilesLoadsThemBackAndReadsDamagedOrMovedRecords)
{
    LogCapture log;
    set_agent_passphrase("store pass", 0);
    add_test_identity(copy_key(0), "rsa comment", "id_RSA_1024");
    add_test_identity(copy_key(1), "ec comment", "id_ECDSA_256");
    add_test_identity(copy_key(2), "temporary", "id_DSA_1024", 0, 1);
    add_test_identity(copy_key(3), "", "")->comment.reset();
    identity_add(identity_table_for_version(1), make_identity_record(copy_key(4), std::string("v1"), 0, 0, 0));
    identity_table_for_version(1)->identities.back()->key->name = "v1 key";
    save_key_store();

    // Table 2 in order, then table 1; the temporary key nowhere; a key
    // without a name gets one; an absent comment leaves no blank.
    std::string pub = file_text(KEY_STORE_PUBLIC_FILE);
    EXPECT_EQ(layout(pub),
              "id_RSA_1024\nssh-rsa <base64> rsa comment\nid_ECDSA_256\necdsa-sha2-nistp256 <base64> ec comment\n"
              "id_ECDSA_384\necdsa-sha2-nistp384 <base64>\nv1 key\necdsa-sha2-nistp521 <base64> v1\n");
    std::string priv = file_text(KEY_STORE_PRIVATE_FILE);
    EXPECT_EQ(layout(priv), "id_RSA_1024\n<ENCRYPTED PRIVATE KEY>\n\nid_ECDSA_256\n<ENCRYPTED PRIVATE KEY>\n\n"
                            "id_ECDSA_384\n<ENCRYPTED PRIVATE KEY>\n\nv1 key\n<ENCRYPTED PRIVATE KEY>\n\n");

    // A new run decrypts every stored key and puts it in table 2. Damaged
    // public records before the good ones are skipped without shifting the
    // comments; a length field that claims more than the key line holds is
    // no fatal.
    write_file(KEY_STORE_PUBLIC_FILE, "bad 1\nssh-rsa AAAAB3NzaC1yc2H///// c\nbad 2\nx509v3-sign-rsa /////3NzaC1yc2EAAAAA\n"
                                      "bad 3\nssh-rsa !!!!\n" + pub);
    EXPECT_EQ(restart_and_load(), (Lines{"id_RSA_1024|rsa comment|private", "id_ECDSA_256|ec comment|private",
                                         "id_ECDSA_384|<none>|private", "v1 key|v1|private"}));
    EXPECT_EQ(identity_table_for_version(1)->nentries, 0);

    // The first private record moved last: each key takes the comment of
    // the identity at its position, not its own.
    size_t second = priv.find("id_ECDSA_256\n");
    write_file(KEY_STORE_PRIVATE_FILE, priv.substr(second) + priv.substr(0, second));
    EXPECT_EQ(restart_and_load(), (Lines{"id_ECDSA_256|rsa comment|private", "id_ECDSA_384|ec comment|private",
                                         "v1 key|<none>|private", "id_RSA_1024|v1|private"}));
    // More private keys than saved comments: the rest have none.
    write_file(KEY_STORE_PUBLIC_FILE, "");
    EXPECT_EQ(restart_and_load()[0], "id_ECDSA_256|<none>|private");
    // Neither file: nothing loads. (An empty or damaged private file under a
    // real agent is the key store recovery test.)
    std::filesystem::remove(path(KEY_STORE_PUBLIC_FILE));
    std::filesystem::remove(path(KEY_STORE_PRIVATE_FILE));
    EXPECT_TRUE(restart_and_load().empty());

    // Certificate records, names too long and key types that cannot be saved.
    identity_tables_init();
    add_test_identity(make_test_certificate_key("EC"), "cert", "my cert")->key->cert_reference = "reference 1";
    add_test_identity(make_test_certificate_key("EC"), "cert", "lost cert")->key->cert_source = CERT_SOURCE_NONE;
    add_test_identity(copy_key(1), "odd", "odd key")->key->type = KEY_UNSPEC;
    add_test_identity(copy_key(1), "plain", "plain");
    save_key_store();
    EXPECT_TRUE(log.contains("key_save_private: cannot save key type 6 in location 0"));
    EXPECT_TRUE(log.contains("key_save_private: cannot save key type 8"));
    priv = file_text(KEY_STORE_PRIVATE_FILE);
    EXPECT_EQ(layout(priv), "my cert#CERT_TARNWELL\nreference 1\n\nplain\n<ENCRYPTED PRIVATE KEY>\n\n");
    EXPECT_NE(file_text(KEY_STORE_PUBLIC_FILE).find("my cert\nx509v3-ecdsa-sha2-nistp256#CERT_TARNWELL "),
              std::string::npos);

    // A tag anywhere in the name line makes a certificate record: its next
    // line is the reference, and the records after it are still read. A
    // name line is cut at 511 characters; the rest of it comes before the
    // PEM block and is passed over; the same key again is not added twice.
    std::string plain = priv.substr(priv.find("plain\n"));
    for (size_t length : {511u, 512u, 600u}) {
        write_file(KEY_STORE_PRIVATE_FILE, "a#CERT_PKCS11b#CERT_SYSTEM\nref\n\n" + std::string(length, 'n') + "\n" +
                                               plain.substr(6) + plain);
        EXPECT_EQ(restart_and_load(), (Lines{std::string(511, 'n') + "|plain|private"})) << length;
    }
}

TEST_F(KeyStore, EncryptionFollowsThePassphraseAndIsNotRepeated)
{
    LogCapture log;
    set_agent_passphrase("", 1);
    add_test_identity(copy_key(0), "a", "a");
    add_test_identity(copy_key(1), "b", "b");
    save_key_store();
    EXPECT_EQ(layout(file_text(KEY_STORE_PRIVATE_FILE)), "a\n<PRIVATE KEY>\n\nb\n<PRIVATE KEY>\n\n");

    ASSERT_EQ(change_agent_passphrase("", "first", 0), 1);
    std::string first = file_text(KEY_STORE_PRIVATE_FILE);

    // Encryption uses a fresh salt each time: unchanged blocks show that a
    // save reuses what it encrypted before, even after a reload.
    add_test_identity(copy_key(3), "c", "c");
    save_key_store();
    std::string again = file_text(KEY_STORE_PRIVATE_FILE);
    EXPECT_EQ(again.substr(0, first.size()), first);
    ASSERT_EQ(restart_and_load().size(), 3u);
    save_key_store();
    EXPECT_EQ(file_text(KEY_STORE_PRIVATE_FILE), again);

    // A change encrypts everything again under the new passphrase.
    const Lines three = {"a|a|private", "b|b|private", "c|c|private"};
    ASSERT_EQ(change_agent_passphrase("first", "second", 0), 1);
    EXPECT_EQ(restart_and_load(), three);
    ASSERT_EQ(change_agent_passphrase("second", "", 1), 1);
    EXPECT_EQ(file_text(KEY_STORE_PRIVATE_FILE).find("ENCRYPTED"), std::string::npos);

    // The store is encrypted under the agent passphrase, so a passphrase
    // longer than the key reader takes is refused before anything is stored.
    std::string longest(PRIVATE_KEY_PEM_PASSWORD_MAX, 'p');
    ASSERT_EQ(change_agent_passphrase("", longest.c_str(), 0), 1);
    EXPECT_EQ(restart_and_load(), three);
    EXPECT_EQ(change_agent_passphrase(longest.c_str(), (longest + "p").c_str(), 0), 0);
    EXPECT_TRUE(log.contains("Change passphrase failed: this passphrase cannot be stored: it is longer than 1024 bytes"));
    EXPECT_EQ(restart_and_load(), three);

    // Nothing is written while the passphrase is unknown: the private keys
    // could not be.
    std::string pub = file_text(KEY_STORE_PUBLIC_FILE);
    forget_agent_passphrase();
    identity_tables_init();
    save_key_store();
    EXPECT_EQ(file_text(KEY_STORE_PUBLIC_FILE), pub);
}

// A save or a change of passphrase stopped after each of its steps, as a
// kill would stop it: the next start reads the whole old store or the whole
// new one, never a mixture, and no ".new" file is left behind.
TEST_F(KeyStore, InterruptedSaveOrPassphraseChangeLeavesOneWholeStore)
{
    set_agent_passphrase("pw", 0);
    const Lines old_store = {"one|c1|private", "two|c2|private"};
    const Lines new_store = {"one|c1|private", "two|c2|private", "three|c3|private"};
    for (int step = KEY_STORE_STEP_PRIVATE_WRITTEN; step <= KEY_STORE_STEP_DONE; ++step) {
        SCOPED_TRACE(step);
        identity_tables_init();
        add_test_identity(copy_key(0), "c1", "one");
        add_test_identity(copy_key(1), "c2", "two");
        save_key_store();
        add_test_identity(copy_key(3), "c3", "three");
        save_key_store_until(step);
        EXPECT_EQ(restart_and_load(), step >= KEY_STORE_STEP_COMMITTED ? new_store : old_store);
        EXPECT_FALSE(std::filesystem::exists(path("tAgentKeys.new")));
        EXPECT_FALSE(std::filesystem::exists(path("tAgentKeys.pub.new")));
    }

    // Killed while writing the new private file, or while discarding an
    // unfinished save after the public new file was already gone: the old
    // store stands. A save after a committed but unfinished one keeps the
    // committed keys.
    std::string priv = file_text(KEY_STORE_PRIVATE_FILE);
    write_file("tAgentKeys.new", priv.substr(0, priv.size() / 2));
    write_file("tAgentKeys.pub.new", "one\n");
    EXPECT_EQ(restart_and_load(), new_store);
    write_file("tAgentKeys.new", "");
    EXPECT_EQ(restart_and_load(), new_store);

    identity_remove(identity_table_for_version(2), identity_table_for_version(2)->identities.front().get());
    save_key_store_until(KEY_STORE_STEP_COMMITTED);
    save_key_store();
    EXPECT_EQ(restart_and_load(), (Lines{"two|c2|private", "three|c3|private"}));

    // A change of passphrase: the settings file accepts exactly one of the
    // two passphrases, and every stored key loads under it.
    for (int step = CHANGE_STEP_PRIVATE_WRITTEN; step <= CHANGE_STEP_DONE + 1; ++step) {
        SCOPED_TRACE(step);
        TearDown();  // a fresh folder and state for each step
        SetUp();
        set_agent_passphrase("old", 0);
        add_test_identity(copy_key(0), "c1", "one");
        add_test_identity(copy_key(2), "c2", "two");
        save_key_store();
        // One step past the end: the discarding of an uncommitted change
        // cut short, with the settings' ".change" file left alone.
        int until = step > CHANGE_STEP_DONE ? int(CHANGE_STEP_SETTINGS_WRITTEN) : step;
        ASSERT_EQ(change_agent_passphrase_until("old", "new", 0, until), 1);
        if (step > CHANGE_STEP_DONE) {
            std::filesystem::remove(path("tAgentKeys.pub.new"));
            std::filesystem::remove(path("tAgentKeys.new"));
        }
        forget_agent_passphrase();
        identity_tables_init();
        read_agent_settings();
        load_public_key_store();
        bool changed = step >= CHANGE_STEP_COMMITTED && step <= CHANGE_STEP_DONE;
        EXPECT_EQ(verify_agent_passphrase(changed ? "old" : "new"), 0);
        ASSERT_EQ(verify_agent_passphrase(changed ? "new" : "old"), 1);
        EXPECT_EQ(table_two(), (Lines{"one|c1|private", "two|c2|private"}));
        for (const char *left : {"tAgentKeys.new", "tAgentKeys.pub.new", "tAgent.change"})
            EXPECT_FALSE(std::filesystem::exists(path(left))) << left;
    }
}
