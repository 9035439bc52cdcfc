#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/posix/pinentry.h"

namespace {

const std::string scripted = std::string(TARNWELL_SOURCE_DIR) + "/tests/support/scripted_pinentry.sh";

struct Environment {
    Environment() { setenv("TARNWELL_PINENTRY", scripted.c_str(), 1); }
    ~Environment()
    {
        for (const char *name : {"TARNWELL_PINENTRY", "PINENTRY_PIN", "PINENTRY_CONFIRM", "PINENTRY_CANCEL",
                                 "PINENTRY_LOG"})
            unsetenv(name);
    }
};

}  // namespace

TEST(Pinentry, EscapingBothWays)
{
    EXPECT_EQ(assuan_escape("50% off\nnow\r"), "50%25 off%0Anow%0D");
    EXPECT_EQ(assuan_unescape("a%25b%0Ac%zz%4"), "a%b\nc%zz%4");
}

TEST(Pinentry, GetPinConfirmAndCancel)
{
    Environment env;
    std::filesystem::path log = std::filesystem::temp_directory_path() / ("pinentry-" + std::to_string(getpid()));
    setenv("PINENTRY_LOG", log.c_str(), 1);
    setenv("PINENTRY_PIN", "se%cret words", 1);
    auto pin = pinentry_get_pin({"Title", "Say 100%", "Passphrase:", ""});
    ASSERT_TRUE(pin.has_value());
    EXPECT_EQ(std::string(pin->c_str()), "se%cret words");

    std::stringstream commands;
    commands << std::ifstream(log).rdbuf();
    EXPECT_NE(commands.str().find("SETTITLE Title\nSETDESC Say 100%25\nSETPROMPT Passphrase:\nGETPIN\nBYE\n"),
              std::string::npos);

    // An empty entry is a valid answer, distinct from Cancel.
    setenv("PINENTRY_PIN", "", 1);
    pin = pinentry_get_pin({"Title", "", "", ""});
    ASSERT_TRUE(pin.has_value());
    EXPECT_TRUE(pin->empty());

    setenv("PINENTRY_CANCEL", "1", 1);
    EXPECT_FALSE(pinentry_get_pin({"Title", "", "", ""}).has_value());

    setenv("PINENTRY_CONFIRM", "yes", 1);
    EXPECT_TRUE(pinentry_confirm({"Title", "Allow?", "", ""}));
    setenv("PINENTRY_CONFIRM", "no", 1);
    EXPECT_FALSE(pinentry_confirm({"Title", "Allow?", "", ""}));

    // No pinentry program at all counts as Cancel and No.
    setenv("TARNWELL_PINENTRY", "/nonexistent/pinentry", 1);
    EXPECT_FALSE(pinentry_get_pin({"Title", "", "", ""}).has_value());
    EXPECT_FALSE(pinentry_confirm({"Title", "", "", ""}));
    std::filesystem::remove(log);
}
