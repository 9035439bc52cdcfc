#include "app/win32/system_cert_signer.h"

#include <algorithm>
#include <cstring>

#include <openssl/evp.h>
#include <openssl/ecdsa.h>
#include <openssl/obj_mac.h>

#include "app/program_texts.h"
#include "app/win32/system_cert_store.h"
#include "crypto/signature_support.h"
#include "log/log.h"

namespace {

// Errors that mean "the provider wants the user (a PIN) before it signs".
bool wants_pin(DWORD status)
{
    return status == static_cast<DWORD>(NTE_SILENT_CONTEXT) || status == static_cast<DWORD>(SCARD_W_WRONG_CHV) ||
           status == static_cast<DWORD>(SCARD_W_CARD_NOT_AUTHENTICATED);
}

// The key passphrase prompt for a certificate: the same text as for a key.
bool ask_pin(const SystemCertKey &key, SignPromptCallback prompt, SecretString *pin)
{
    std::string text = std::string(program_text(TEXT_KEY_PASSPHRASE_PROMPT)) + " '" + key.name + "':";
    return prompt && prompt(text.c_str(), pin);
}

// A PIN as the zero-terminated UTF-16 text that CNG wants; wiped on release.
std::vector<wchar_t, WipingAllocator<wchar_t>> wide_pin(const SecretString &pin)
{
    int n = MultiByteToWideChar(CP_UTF8, 0, pin.data(), static_cast<int>(pin.size()), nullptr, 0);
    std::vector<wchar_t, WipingAllocator<wchar_t>> wide(static_cast<size_t>(std::max(n, 0)) + 1, L'\0');
    if (n > 0)
        MultiByteToWideChar(CP_UTF8, 0, pin.data(), static_cast<int>(pin.size()), wide.data(), n);
    return wide;
}

const wchar_t *cng_hash_name(int hash_nid)
{
    switch (hash_nid) {
    case NID_md5: return BCRYPT_MD5_ALGORITHM;
    case NID_sha1: return BCRYPT_SHA1_ALGORITHM;
    case NID_sha256: return BCRYPT_SHA256_ALGORITHM;
    case NID_sha384: return BCRYPT_SHA384_ALGORITHM;
    case NID_sha512: return BCRYPT_SHA512_ALGORITHM;
    default: return nullptr;
    }
}

ALG_ID capi_hash_id(int hash_nid)
{
    switch (hash_nid) {
    case NID_md5: return CALG_MD5;
    case NID_sha1: return CALG_SHA1;
    case NID_sha256: return CALG_SHA_256;
    case NID_sha384: return CALG_SHA_384;
    case NID_sha512: return CALG_SHA_512;
    default: return 0;
    }
}

// CNG: RSA with PKCS #1 padding; DSA and ECDSA give r||s as they are.
SECURITY_STATUS cng_sign(NCRYPT_KEY_HANDLE key, int key_type, int hash_nid, const uint8_t *digest, size_t len,
                         SecureBytes *raw)
{
    BCRYPT_PKCS1_PADDING_INFO padding = {cng_hash_name(hash_nid)};
    bool rsa = key_type == EVP_PKEY_RSA;
    void *info = rsa ? &padding : nullptr;
    DWORD flags = NCRYPT_SILENT_FLAG | (rsa ? BCRYPT_PAD_PKCS1 : 0);
    DWORD size = 0;
    PBYTE hash = const_cast<PBYTE>(digest);
    SECURITY_STATUS status = NCryptSignHash(key, info, hash, static_cast<DWORD>(len), nullptr, 0, &size, flags);
    if (status != ERROR_SUCCESS)
        return status;
    raw->assign(size, 0);
    status = NCryptSignHash(key, info, hash, static_cast<DWORD>(len), raw->data(), size, &size, flags);
    raw->resize(size);
    return status;
}

bool sign_with_cng(const SystemCertKey &key, NCRYPT_KEY_HANDLE handle, int hash_nid, const uint8_t *digest,
                   size_t len, SignPromptCallback prompt, SecureBytes *raw)
{
    SECURITY_STATUS status = cng_sign(handle, key.key_type, hash_nid, digest, len, raw);
    if (wants_pin(static_cast<DWORD>(status))) {
        SecretString pin;
        if (!ask_pin(key, prompt, &pin)) {
            error("system store: no PIN given for certificate %s", key.name.c_str());
            return false;
        }
        auto wide = wide_pin(pin);
        status = NCryptSetProperty(handle, NCRYPT_PIN_PROPERTY, reinterpret_cast<PBYTE>(wide.data()),
                                   static_cast<DWORD>(wide.size() * sizeof(wchar_t)), 0);
        if (status == ERROR_SUCCESS)
            status = cng_sign(handle, key.key_type, hash_nid, digest, len, raw);
    }
    if (status != ERROR_SUCCESS) {
        error("system store: signing with certificate %s failed (0x%08lx)", key.name.c_str(),
              static_cast<unsigned long>(status));
        return false;
    }
    return true;
}

std::vector<BYTE> context_property(const CERT_CONTEXT *context, DWORD id)
{
    DWORD size = 0;
    std::vector<BYTE> value;
    if (CertGetCertificateContextProperty(context, id, nullptr, &size)) {
        value.resize(size);
        if (!CertGetCertificateContextProperty(context, id, value.data(), &size))
            value.clear();
    }
    return value;
}

// The software RSA provider that the Microsoft providers import keys into
// cannot hash with SHA-2; the same key container opened under the AES
// provider can.
PrivateKeyHandle reopen_under_aes_provider(const CERT_CONTEXT *context, DWORD spec)
{
    std::vector<BYTE> bytes = context_property(context, CERT_KEY_PROV_INFO_PROP_ID);
    if (bytes.size() < sizeof(CRYPT_KEY_PROV_INFO))
        return {};
    auto *info = reinterpret_cast<const CRYPT_KEY_PROV_INFO *>(bytes.data());
    HCRYPTPROV prov = 0;
    DWORD flags = CRYPT_SILENT | (info->dwFlags & CRYPT_MACHINE_KEYSET);
    if (!CryptAcquireContextW(&prov, info->pwszContainerName, MS_ENH_RSA_AES_PROV_W, PROV_RSA_AES, flags))
        return {};
    return PrivateKeyHandle(prov, spec, true);
}

// The key pair of the container: the recorded key spec is not always the
// one the key was stored under.
bool settle_key_spec(PrivateKeyHandle *handle)
{
    for (DWORD spec : {handle->spec(), static_cast<DWORD>(AT_KEYEXCHANGE), static_cast<DWORD>(AT_SIGNATURE)}) {
        HCRYPTKEY user_key = 0;
        if ((spec == AT_KEYEXCHANGE || spec == AT_SIGNATURE) && CryptGetUserKey(handle->prov(), spec, &user_key)) {
            CryptDestroyKey(user_key);
            handle->set_spec(spec);
            return true;
        }
    }
    return false;
}

DWORD capi_sign(const PrivateKeyHandle &handle, ALG_ID alg, const uint8_t *digest, SecureBytes *raw)
{
    HCRYPTHASH hash = 0;
    if (!CryptCreateHash(handle.prov(), alg, 0, 0, &hash))
        return GetLastError();
    CryptHashPtr owned(reinterpret_cast<void *>(hash));
    DWORD size = 0;
    if (!CryptSetHashParam(hash, HP_HASHVAL, digest, 0) ||
        !CryptSignHashW(hash, handle.spec(), nullptr, 0, nullptr, &size))
        return GetLastError();
    raw->assign(size, 0);
    if (!CryptSignHashW(hash, handle.spec(), nullptr, 0, raw->data(), &size))
        return GetLastError();
    raw->resize(size);
    return ERROR_SUCCESS;
}

// True when r||s (big-endian halves) is a signature of the digest by the
// certificate's key.
bool dsa_signature_verifies(const SystemCertKey &key, const uint8_t *digest, size_t len, const SecureBytes &raw)
{
    size_t half = raw.size() / 2;
    ECDSA_SIG *sig = ECDSA_SIG_new();
    BIGNUM *r = BN_bin2bn(raw.data(), static_cast<int>(half), nullptr);
    BIGNUM *s = BN_bin2bn(raw.data() + half, static_cast<int>(half), nullptr);
    bool ok = false;
    if (sig && r && s && ECDSA_SIG_set0(sig, r, s)) {
        r = s = nullptr;
        unsigned char *der = nullptr;
        int der_len = i2d_ECDSA_SIG(sig, &der);
        SignatureDigest d;
        if (der_len > 0 && len <= sizeof d.bytes && key.public_key) {
            memcpy(d.bytes, digest, len);
            d.len = static_cast<unsigned>(len);
            ok = pkey_verify_digest(key.public_key.get(), EVP_sha1(), d, der, static_cast<size_t>(der_len)) == 1;
        }
        OPENSSL_free(der);
    }
    BN_free(r);
    BN_free(s);
    ECDSA_SIG_free(sig);
    return ok;
}

// CryptoAPI gives its numbers little-endian: the RSA signature as one
// number, a DSA signature as r and s one after the other. Wine's DSS
// provider gives r and s big-endian instead, so a DSA signature is taken in
// whichever order the certificate's key confirms.
bool to_big_endian(const SystemCertKey &key, const uint8_t *digest, size_t len, SecureBytes *raw)
{
    if (key.key_type != EVP_PKEY_DSA) {
        std::reverse(raw->begin(), raw->end());
        return true;
    }
    SecureBytes swapped = *raw;
    size_t half = swapped.size() / 2;
    std::reverse(swapped.begin(), swapped.begin() + static_cast<std::ptrdiff_t>(half));
    std::reverse(swapped.begin() + static_cast<std::ptrdiff_t>(half), swapped.end());
    if (dsa_signature_verifies(key, digest, len, swapped)) {
        *raw = std::move(swapped);
        return true;
    }
    return dsa_signature_verifies(key, digest, len, *raw);
}

bool sign_with_capi(const SystemCertKey &key, const CERT_CONTEXT *context, PrivateKeyHandle handle, int hash_nid,
                    const uint8_t *digest, size_t len, SignPromptCallback prompt, SecureBytes *raw)
{
    ALG_ID alg = capi_hash_id(hash_nid);
    if (key.key_type == EVP_PKEY_EC || !alg) {
        error("system store: certificate %s: its key provider cannot make this signature", key.name.c_str());
        return false;
    }
    if (!settle_key_spec(&handle)) {
        error("system store: certificate %s: no key pair in its key container (0x%08lx)", key.name.c_str(),
              static_cast<unsigned long>(GetLastError()));
        return false;
    }
    DWORD status = capi_sign(handle, alg, digest, raw);
    if (status == static_cast<DWORD>(NTE_BAD_ALGID) && key.key_type == EVP_PKEY_RSA) {
        if (PrivateKeyHandle aes = reopen_under_aes_provider(context, handle.spec())) {
            handle = std::move(aes);
            status = capi_sign(handle, alg, digest, raw);
        }
    }
    if (wants_pin(status)) {
        SecretString pin;
        if (!ask_pin(key, prompt, &pin)) {
            error("system store: no PIN given for certificate %s", key.name.c_str());
            return false;
        }
        DWORD param = handle.spec() == AT_SIGNATURE ? PP_SIGNATURE_PIN : PP_KEYEXCHANGE_PIN;
        if (CryptSetProvParam(handle.prov(), param, reinterpret_cast<const BYTE *>(pin.c_str()), 0))
            status = capi_sign(handle, alg, digest, raw);
        else
            status = GetLastError();
    }
    if (status != ERROR_SUCCESS) {
        error("system store: signing with certificate %s failed (0x%08lx)", key.name.c_str(),
              static_cast<unsigned long>(status));
        return false;
    }
    if (!to_big_endian(key, digest, len, raw)) {
        error("system store: the DSA signature of certificate %s does not verify", key.name.c_str());
        return false;
    }
    return true;
}

PrivateKeyHandle acquire_private_key(const CERT_CONTEXT *context, DWORD *status)
{
    HCRYPTPROV_OR_NCRYPT_KEY_HANDLE handle = 0;
    DWORD spec = 0;
    BOOL must_free = FALSE;
    // Silently first; a provider that refuses to work silently may then
    // show its own window. Wine's DSS provider refuses the silent flag
    // outright.
    for (DWORD silent : {static_cast<DWORD>(CRYPT_ACQUIRE_SILENT_FLAG), static_cast<DWORD>(0)}) {
        if (CryptAcquireCertificatePrivateKey(context, CRYPT_ACQUIRE_ALLOW_NCRYPT_KEY_FLAG | silent, nullptr,
                                              &handle, &spec, &must_free))
            return PrivateKeyHandle(handle, spec, must_free != FALSE);
        if (silent)
            *status = GetLastError();
    }
    // Wine does not open the recorded container of some CryptoAPI providers
    // (DSS) itself: open it from the recorded key information.
    std::vector<BYTE> bytes = context_property(context, CERT_KEY_PROV_INFO_PROP_ID);
    auto *info = reinterpret_cast<const CRYPT_KEY_PROV_INFO *>(bytes.data());
    if (bytes.size() < sizeof(CRYPT_KEY_PROV_INFO) || info->dwProvType == 0)
        return {};
    for (DWORD silent : {static_cast<DWORD>(CRYPT_SILENT), static_cast<DWORD>(0)}) {
        HCRYPTPROV prov = 0;
        if (CryptAcquireContextW(&prov, info->pwszContainerName, info->pwszProvName, info->dwProvType,
                                 silent | (info->dwFlags & CRYPT_MACHINE_KEYSET)))
            return PrivateKeyHandle(prov, info->dwKeySpec, true);
    }
    return {};
}

}  // namespace

bool system_cert_sign_digest(const SystemCertKey &key, int hash_nid, const uint8_t *digest, size_t len,
                             SignPromptCallback prompt, SecureBytes *raw)
{
    CertStorePtr store = system_store_open(L"MY");
    CertContextPtr context = store ? system_store_find_sha1(store.get(), key.sha1) : nullptr;
    if (!context) {
        error("system store: certificate %s (%s) is not in the user's \"MY\" store", key.sha1_hex.c_str(),
              key.name.c_str());
        return false;
    }
    DWORD status = 0;
    PrivateKeyHandle handle = acquire_private_key(context.get(), &status);
    if (!handle) {
        error("system store: the private key of certificate %s cannot be opened (0x%08lx)", key.name.c_str(),
              static_cast<unsigned long>(status));
        return false;
    }
    if (handle.is_ncrypt())
        return sign_with_cng(key, handle.ncrypt_key(), hash_nid, digest, len, prompt, raw);
    return sign_with_capi(key, context.get(), std::move(handle), hash_nid, digest, len, prompt, raw);
}
