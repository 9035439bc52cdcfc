#include "app/win32/user_security.h"

#include "platform/win32/win_handle.h"

namespace {

constexpr DWORD ACL_SIZE = 1024;

WinHandle open_token()
{
    HANDLE token = nullptr;
    if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token))
        return WinHandle(token);
    if (GetLastError() != ERROR_NO_TOKEN || !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return WinHandle();
    return WinHandle(token);
}

// The SID that TokenUser or TokenOwner names; both records begin with it.
std::vector<BYTE> token_sid(TOKEN_INFORMATION_CLASS which)
{
    WinHandle token = open_token();
    if (!token)
        return {};
    DWORD size = 0;
    GetTokenInformation(token.get(), which, nullptr, 0, &size);
    std::vector<BYTE> info(size ? size : 1);
    if (!GetTokenInformation(token.get(), which, info.data(), size, &size))
        return {};
    PSID sid = *reinterpret_cast<PSID *>(info.data());
    std::vector<BYTE> copy(GetLengthSid(sid));
    if (!CopySid(static_cast<DWORD>(copy.size()), copy.data(), sid))
        return {};
    return copy;
}

}  // namespace

std::vector<BYTE> current_user_sid() { return token_sid(TokenUser); }

std::vector<BYTE> default_owner_sid() { return token_sid(TokenOwner); }

std::unique_ptr<UserOnlySecurity> make_user_only_security()
{
    auto security = std::make_unique<UserOnlySecurity>();
    security->attributes.nLength = sizeof security->attributes;
    security->attributes.bInheritHandle = FALSE;
    security->sid = current_user_sid();
    security->acl.resize(ACL_SIZE);
    auto *acl = reinterpret_cast<PACL>(security->acl.data());
    bool built = !security->sid.empty() && InitializeAcl(acl, ACL_SIZE, ACL_REVISION) &&
                 AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, security->sid.data()) &&
                 InitializeSecurityDescriptor(&security->descriptor, SECURITY_DESCRIPTOR_REVISION) &&
                 SetSecurityDescriptorDacl(&security->descriptor, TRUE, acl, FALSE) &&
                 IsValidSecurityDescriptor(&security->descriptor);
    security->attributes.lpSecurityDescriptor = built ? &security->descriptor : nullptr;
    return security;
}
