// Certificate identities through the agent: the add request with a location
// and an identifier, and an agent restart that reads its key store again.
#pragma once

#include "agent/identity_table.h"
#include "agent/key_store.h"
#include "support/dispatch_helper.h"
#include "support/requests.h"

// SSH2_AGENTC_ADD_IDENTITY (17) of a certificate by reference.
inline Bytes certificate_add(uint8_t location, const std::string &identifier, const char *comment)
{
    return request_of(17, [&](Buffer *b) {
        buffer_put_cstring(b, "x509v3-sign-rsa");
        buffer_put_char(b, location);
        buffer_put_cstring(b, identifier.c_str());
        buffer_put_cstring(b, comment);
    });
}

inline void restart_agent()
{
    identity_tables_init();
    forget_agent_passphrase();
    load_public_key_store();
    verify_agent_passphrase("agent pass");  // loads the private file
}
