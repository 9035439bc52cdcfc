// The logged-on user's security identifier and a security descriptor whose
// access list grants that identifier alone generic-all: for the agent's
// pipes and its folders.
#pragma once

#include <windows.h>

#include <memory>
#include <vector>

// The user's SID from the thread's token, or from the process token when the
// thread has none. Empty on failure.
std::vector<BYTE> current_user_sid();
// The owner the user's new objects get by default, from the same token: the
// user, or for an elevated administrator the Administrators group.
std::vector<BYTE> default_owner_sid();

// A descriptor and the attributes that point to it. Not movable: the
// attributes point into the record itself.
struct UserOnlySecurity {
    std::vector<BYTE> sid;
    std::vector<BYTE> acl;  // 1024 bytes
    SECURITY_DESCRIPTOR descriptor{};
    SECURITY_ATTRIBUTES attributes{};

    UserOnlySecurity() = default;
    UserOnlySecurity(const UserOnlySecurity &) = delete;
    UserOnlySecurity &operator=(const UserOnlySecurity &) = delete;
};

// When the descriptor cannot be built, the attributes point to no
// descriptor: the object gets default security.
std::unique_ptr<UserOnlySecurity> make_user_only_security();
