// Owners of CryptoAPI and CNG handles: each is released exactly once, by
// the call its kind needs.
#pragma once

#include <windows.h>
#include <wincrypt.h>
#include <ncrypt.h>

#include <memory>

struct CertStoreClose {
    void operator()(void *store) const { CertCloseStore(static_cast<HCERTSTORE>(store), 0); }
};
using CertStorePtr = std::unique_ptr<void, CertStoreClose>;

struct CertContextFree {
    void operator()(const CERT_CONTEXT *context) const { CertFreeCertificateContext(context); }
};
using CertContextPtr = std::unique_ptr<const CERT_CONTEXT, CertContextFree>;

// A CryptoAPI provider or a CNG key handle from
// CryptAcquireCertificatePrivateKey or CryptAcquireContext.
class PrivateKeyHandle {
public:
    PrivateKeyHandle() = default;
    PrivateKeyHandle(HCRYPTPROV_OR_NCRYPT_KEY_HANDLE handle, DWORD spec, bool owned)
        : handle_(handle), spec_(spec), owned_(owned)
    {
    }
    ~PrivateKeyHandle() { reset(); }
    PrivateKeyHandle(const PrivateKeyHandle &) = delete;
    PrivateKeyHandle &operator=(const PrivateKeyHandle &) = delete;
    PrivateKeyHandle(PrivateKeyHandle &&other) noexcept { *this = std::move(other); }
    PrivateKeyHandle &operator=(PrivateKeyHandle &&other) noexcept
    {
        if (this != &other) {
            reset();
            handle_ = other.handle_;
            spec_ = other.spec_;
            owned_ = other.owned_;
            other.handle_ = 0;
        }
        return *this;
    }

    bool is_ncrypt() const { return spec_ == CERT_NCRYPT_KEY_SPEC; }
    HCRYPTPROV prov() const { return handle_; }
    NCRYPT_KEY_HANDLE ncrypt_key() const { return handle_; }
    DWORD spec() const { return spec_; }
    void set_spec(DWORD spec) { spec_ = spec; }
    explicit operator bool() const { return handle_ != 0; }

private:
    void reset()
    {
        if (handle_ && owned_) {
            if (is_ncrypt())
                NCryptFreeObject(handle_);
            else
                CryptReleaseContext(handle_, 0);
        }
        handle_ = 0;
    }

    HCRYPTPROV_OR_NCRYPT_KEY_HANDLE handle_ = 0;
    DWORD spec_ = 0;
    bool owned_ = false;
};

struct CryptHashDestroy {
    void operator()(void *hash) const { CryptDestroyHash(reinterpret_cast<HCRYPTHASH>(hash)); }
};
// HCRYPTHASH is an integer handle; held as a pointer-sized value.
using CryptHashPtr = std::unique_ptr<void, CryptHashDestroy>;
