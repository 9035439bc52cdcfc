// The Assuan escaping of what the agent sends to pinentry and reads back;
// the prompts themselves are driven through the agent in prompts_test.cpp
// and by the real pinentry-tty in pinentry_tty_test.cpp.
#include <gtest/gtest.h>

#include "app/posix/pinentry.h"

TEST(Pinentry, EscapingBothWays)
{
    EXPECT_EQ(assuan_escape("50% off\nnow\r"), "50%25 off%0Anow%0D");
    EXPECT_EQ(assuan_unescape("a%25b%0Ac%zz%4"), "a%b\nc%zz%4");
    EXPECT_EQ(assuan_unescape(assuan_escape("se%cret\nwords")), "se%cret\nwords");
}
