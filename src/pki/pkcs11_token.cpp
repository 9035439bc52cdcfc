#include "pki/pkcs11_token.h"

#include <cstring>
#include <map>

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <p11-kit/pkcs11.h>

#include "log/log.h"
#include "platform/platform.h"

namespace {

struct Module {
    void *library = nullptr;
    CK_FUNCTION_LIST *f = nullptr;
    std::map<std::string, CK_SESSION_HANDLE> sessions;  // by token label
};

std::map<std::string, Module> &modules()
{
    static std::map<std::string, Module> loaded;
    return loaded;
}

std::string trimmed(const unsigned char *text, size_t len)
{
    std::string s(reinterpret_cast<const char *>(text), len);
    s.erase(s.find_last_not_of(' ') + 1);
    return s;
}

Module *load(const Pkcs11ModuleSpec &spec)
{
    std::string key = spec.path + "\n" + spec.init_text;
    auto found = modules().find(key);
    if (found != modules().end())
        return found->second.f ? &found->second : nullptr;
    Module &m = modules()[key];
    m.library = platform_load_library(spec.path);
    auto get_list = m.library ? reinterpret_cast<CK_C_GetFunctionList>(
                                    platform_library_symbol(m.library, "C_GetFunctionList"))
                              : nullptr;
    CK_FUNCTION_LIST *f = nullptr;
    if (!get_list || get_list(&f) != CKR_OK || !f) {
        error("pkcs11: cannot load the module %s: %s", spec.path.c_str(), platform_library_error().c_str());
        modules().erase(key);
        return nullptr;
    }
    CK_C_INITIALIZE_ARGS args = {};
    args.flags = CKF_OS_LOCKING_OK;
    std::string text = spec.init_text;
    args.pReserved = text.empty() ? nullptr : text.data();
    CK_RV rv = f->C_Initialize(&args);
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        error("pkcs11: the module %s failed to initialise (0x%lx)", spec.path.c_str(), rv);
        modules().erase(key);
        return nullptr;
    }
    m.f = f;
    return &m;
}

std::vector<CK_SLOT_ID> present_slots(Module *m)
{
    CK_ULONG count = 0;
    if (m->f->C_GetSlotList(CK_TRUE, nullptr, &count) != CKR_OK)
        return {};
    std::vector<CK_SLOT_ID> slots(count);
    if (m->f->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK)
        return {};
    slots.resize(count);
    return slots;
}

std::string token_label(Module *m, CK_SLOT_ID slot, CK_FLAGS *flags = nullptr)
{
    CK_TOKEN_INFO info;
    if (m->f->C_GetTokenInfo(slot, &info) != CKR_OK)
        return "";
    if (flags)
        *flags = info.flags;
    return trimmed(info.label, sizeof info.label);
}

std::vector<uint8_t> attribute(Module *m, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
{
    CK_ATTRIBUTE a = {type, nullptr, 0};
    if (m->f->C_GetAttributeValue(s, object, &a, 1) != CKR_OK || a.ulValueLen == CK_UNAVAILABLE_INFORMATION)
        return {};
    std::vector<uint8_t> value(a.ulValueLen);
    a.pValue = value.data();
    if (m->f->C_GetAttributeValue(s, object, &a, 1) != CKR_OK)
        return {};
    return value;
}

std::vector<CK_OBJECT_HANDLE> find(Module *m, CK_SESSION_HANDLE s, CK_ATTRIBUTE *match, CK_ULONG n, CK_RV *rv)
{
    std::vector<CK_OBJECT_HANDLE> found;
    if ((*rv = m->f->C_FindObjectsInit(s, match, n)) != CKR_OK)
        return found;
    CK_OBJECT_HANDLE batch[16];
    CK_ULONG got = 0;
    while ((*rv = m->f->C_FindObjects(s, batch, 16, &got)) == CKR_OK && got > 0)
        found.insert(found.end(), batch, batch + got);
    m->f->C_FindObjectsFinal(s);
    return found;
}

// The DER DigestInfo that PKCS #1 v1.5 signs: CKM_RSA_PKCS takes it whole.
SecureBytes digest_info(int hash_nid, const uint8_t *digest, size_t len)
{
    SecureBytes out;
    X509_SIG *sig = X509_SIG_new();
    X509_ALGOR *alg = nullptr;
    ASN1_OCTET_STRING *value = nullptr;
    if (sig) {
        X509_SIG_getm(sig, &alg, &value);
        unsigned char *der = nullptr;
        int n = -1;
        if (X509_ALGOR_set0(alg, OBJ_nid2obj(hash_nid), V_ASN1_NULL, nullptr) &&
            ASN1_OCTET_STRING_set(value, digest, static_cast<int>(len)))
            n = i2d_X509_SIG(sig, &der);
        if (n > 0)
            out.assign(der, der + n);
        OPENSSL_clear_free(der, n > 0 ? static_cast<size_t>(n) : 0);
        X509_SIG_free(sig);
    }
    return out;
}

bool session_gone(CK_RV rv)
{
    return rv == CKR_SESSION_HANDLE_INVALID || rv == CKR_SESSION_CLOSED || rv == CKR_DEVICE_REMOVED ||
           rv == CKR_TOKEN_NOT_PRESENT || rv == CKR_DEVICE_ERROR || rv == CKR_SLOT_ID_INVALID;
}

// The kept session of a token, opened when there is none. 0 when the token
// is not present.
CK_SESSION_HANDLE token_session(Module *m, const std::string &label, CK_FLAGS *flags)
{
    for (CK_SLOT_ID slot : present_slots(m)) {
        if (token_label(m, slot, flags) != label)
            continue;
        auto kept = m->sessions.find(label);
        if (kept != m->sessions.end())
            return kept->second;
        CK_SESSION_HANDLE s = 0;
        if (m->f->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &s) != CKR_OK)
            return 0;
        m->sessions[label] = s;
        return s;
    }
    return 0;
}

void drop_session(Module *m, const std::string &label)
{
    auto kept = m->sessions.find(label);
    if (kept == m->sessions.end())
        return;
    m->f->C_CloseSession(kept->second);
    m->sessions.erase(kept);
}

// Logs the user in when the token wants it and the session is not yet.
CK_RV login(Module *m, CK_SESSION_HANDLE s, CK_FLAGS flags, const std::string &label, SignPromptCallback prompt)
{
    CK_SESSION_INFO info;
    CK_RV rv = m->f->C_GetSessionInfo(s, &info);
    if (rv != CKR_OK)
        return rv;
    if (!(flags & CKF_LOGIN_REQUIRED) || info.state == CKS_RO_USER_FUNCTIONS || info.state == CKS_RW_USER_FUNCTIONS)
        return CKR_OK;
    SecretString pin;
    if (!(flags & CKF_PROTECTED_AUTHENTICATION_PATH)) {
        std::string text = "Enter the PIN of token \"" + label + "\"";
        if (!prompt || !prompt(text.c_str(), &pin)) {
            error("pkcs11: no PIN given for token \"%s\"", label.c_str());
            return CKR_FUNCTION_CANCELED;
        }
    }
    rv = m->f->C_Login(s, CKU_USER, pin.empty() ? nullptr : reinterpret_cast<CK_UTF8CHAR *>(pin.data()),
                       pin.size());
    if (rv == CKR_USER_ALREADY_LOGGED_IN)
        return CKR_OK;
    if (rv == CKR_PIN_INCORRECT)
        error("pkcs11: wrong PIN for token \"%s\"", label.c_str());
    else if (rv != CKR_OK)
        error("pkcs11: login to token \"%s\" failed (0x%lx)", label.c_str(), rv);
    return rv;
}

CK_RV sign_once(Module *m, const std::string &label, const std::vector<uint8_t> &id, int key_type, int hash_nid,
                const uint8_t *digest, size_t len, SignPromptCallback prompt, SecureBytes *raw)
{
    CK_FLAGS flags = 0;
    CK_SESSION_HANDLE s = token_session(m, label, &flags);
    if (!s) {
        error("pkcs11: token \"%s\" is not present", label.c_str());
        return CKR_TOKEN_NOT_PRESENT;
    }
    CK_RV rv = login(m, s, flags, label, prompt);
    if (rv != CKR_OK)
        return rv;
    CK_OBJECT_CLASS cls = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE match[] = {{CKA_CLASS, &cls, sizeof cls},
                            {CKA_ID, const_cast<uint8_t *>(id.data()), static_cast<CK_ULONG>(id.size())}};
    std::vector<CK_OBJECT_HANDLE> keys = find(m, s, match, 2, &rv);
    if (rv != CKR_OK)
        return rv;
    if (keys.empty()) {
        error("pkcs11: token \"%s\" holds no private key for the certificate", label.c_str());
        return CKR_KEY_HANDLE_INVALID;
    }
    SecureBytes input;
    CK_MECHANISM mechanism = {CKM_ECDSA, nullptr, 0};
    if (key_type == EVP_PKEY_RSA) {
        mechanism.mechanism = CKM_RSA_PKCS;
        input = digest_info(hash_nid, digest, len);
    } else {
        mechanism.mechanism = key_type == EVP_PKEY_DSA ? CKM_DSA : CKM_ECDSA;
        input.assign(digest, digest + len);
    }
    if ((rv = m->f->C_SignInit(s, &mechanism, keys[0])) != CKR_OK) {
        error("pkcs11: C_SignInit on token \"%s\" failed (0x%lx)", label.c_str(), rv);
        return rv;
    }
    SecureBytes out(1024);
    CK_ULONG out_len = out.size();
    if ((rv = m->f->C_Sign(s, input.data(), input.size(), out.data(), &out_len)) != CKR_OK) {
        error("pkcs11: C_Sign on token \"%s\" failed (0x%lx)", label.c_str(), rv);
        return rv;
    }
    out.resize(out_len);
    *raw = std::move(out);
    return CKR_OK;
}

}  // namespace

std::vector<Pkcs11Certificate> pkcs11_certificates(const Pkcs11ModuleSpec &spec)
{
    std::vector<Pkcs11Certificate> certs;
    Module *m = load(spec);
    if (!m)
        return certs;
    for (CK_SLOT_ID slot : present_slots(m)) {
        std::string label = token_label(m, slot);
        CK_SESSION_HANDLE s = 0;
        if (m->f->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &s) != CKR_OK)
            continue;
        CK_OBJECT_CLASS cls = CKO_CERTIFICATE;
        CK_CERTIFICATE_TYPE type = CKC_X_509;
        CK_ATTRIBUTE match[] = {{CKA_CLASS, &cls, sizeof cls}, {CKA_CERTIFICATE_TYPE, &type, sizeof type}};
        CK_RV rv = CKR_OK;
        for (CK_OBJECT_HANDLE object : find(m, s, match, 2, &rv)) {
            std::vector<uint8_t> der = attribute(m, s, object, CKA_VALUE);
            const uint8_t *in = der.data();
            X509Ptr cert(der.empty() ? nullptr : d2i_X509(nullptr, &in, static_cast<long>(der.size())));
            if (cert)
                certs.push_back({std::move(cert), label, attribute(m, s, object, CKA_ID)});
        }
        m->f->C_CloseSession(s);
    }
    return certs;
}

bool pkcs11_sign_digest(const Pkcs11ModuleSpec &spec, const std::string &label, const std::vector<uint8_t> &id,
                        int key_type, int hash_nid, const uint8_t *digest, size_t len, SignPromptCallback prompt,
                        SecureBytes *raw)
{
    Module *m = load(spec);
    if (!m)
        return false;
    CK_RV rv = sign_once(m, label, id, key_type, hash_nid, digest, len, prompt, raw);
    if (session_gone(rv)) {
        // The token was taken out (and maybe put back): a new session once.
        drop_session(m, label);
        rv = sign_once(m, label, id, key_type, hash_nid, digest, len, prompt, raw);
    }
    if (rv != CKR_OK && rv != CKR_PIN_INCORRECT && rv != CKR_FUNCTION_CANCELED)
        drop_session(m, label);
    return rv == CKR_OK;
}

void pkcs11_modules_reset()
{
    for (auto &[key, m] : modules()) {
        if (!m.f)
            continue;
        m.f->C_Finalize(nullptr);
    }
    modules().clear();
}
