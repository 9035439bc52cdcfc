#include "pki/key_signer.h"

#include "crypto/dsa_signature.h"
#include "crypto/ecdsa_signature.h"
#include "crypto/ed25519_signature.h"
#include "crypto/rsa_signature.h"
#include "log/log.h"
#include "pki/x509_signer.h"
#include "pki/x509_verifier.h"

int key_sign(PkiObject *pki, uint64_t parent_window, const Key *key, SecureBytes *sigp, const uint8_t *data,
             size_t datalen, SignPromptCallback prompt, int compat)
{
    // The dialog parent belongs to the Windows shell's PIN dialog, which the
    // prompt callback already stands for.
    (void)pki;
    (void)parent_window;
    if (!key) {
        error("key_sign: no key");
        return -1;
    }
    // A certificate identity whose private key lives with its provider
    // signs there, as a certificate or as the plain key inside it.
    if (cert_identity_handle(key))
        return cert_identity_sign(key, sigp, data, datalen, prompt);
    switch (key->type) {
    case KEY_RSA:
        return ssh_rsa_sign(key, sigp, data, datalen, compat);
    case KEY_DSA:
        return ssh_dss_sign(key, sigp, data, datalen, compat);
    case KEY_ECDSA:
    case KEY_X509_ECDSA:
        return ssh_ecdsa_sign(key, sigp, data, datalen, compat);
    case KEY_ED25519: return ssh_ed25519_sign(key, sigp, data, datalen);
    case KEY_X509_RSA:
    case KEY_X509_DSA:
        error("key_sign: certificate signatures are not supported for key type %d", key->type);
        return -1;
    default:
        error("key_sign: illegal key type %d", key->type);
        return -1;
    }
}

int key_verify(const Key *key, const uint8_t *signature, size_t signaturelen, const uint8_t *data, size_t datalen)
{
    if (signaturelen == 0)
        return -1;
    if (!key) {
        error("key_verify: no key");
        return -1;
    }
    switch (key->type) {
    case KEY_RSA:
        return ssh_rsa_verify(key, signature, signaturelen, data, datalen, 0);
    case KEY_DSA:
        return ssh_dss_verify(key, signature, signaturelen, data, datalen, 0);
    case KEY_ECDSA:
    case KEY_X509_ECDSA: {
        // The ECDSA code reports an unusable key or a malformed blob with
        // its own codes; callers of the verifier see those as errors.
        int ret = ssh_ecdsa_verify(key, signature, signaturelen, data, datalen, 0);
        return ret == 1 || ret == 0 ? ret : -1;
    }
    case KEY_ED25519: return ssh_ed25519_verify(key, signature, signaturelen, data, datalen);
    case KEY_X509_RSA:
    case KEY_X509_DSA: return cert_identity_verify(key, signature, signaturelen, data, datalen);
    default:
        error("key_verify: illegal key type %d", key->type);
        return -1;
    }
}
