// The curve tables: nids, curve names, algorithm names and bit sizes.
#include <cstring>

#include "keys/key.h"
#include "log/text_compare.h"

namespace {

struct Curve {
    int nid;
    const char *curve_name;
    const char *ecdsa_name;
    const char *x509_name;
    const char *group;
    int bits;
};

const Curve curves[] = {
    {KEY_NID_P256, "nistp256", "ecdsa-sha2-nistp256", "x509v3-ecdsa-sha2-nistp256", "P-256", 256},
    {KEY_NID_P384, "nistp384", "ecdsa-sha2-nistp384", "x509v3-ecdsa-sha2-nistp384", "P-384", 384},
    {KEY_NID_P521, "nistp521", "ecdsa-sha2-nistp521", "x509v3-ecdsa-sha2-nistp521", "P-521", 521},
};

const Curve *curve_by_nid(int nid)
{
    for (const Curve &c : curves)
        if (c.nid == nid)
            return &c;
    return nullptr;
}

}  // namespace

int key_curve_name_to_nid(const char *name)
{
    // Curve names compare exactly.
    for (const Curve &c : curves)
        if (name && strcmp(name, c.curve_name) == 0)
            return c.nid;
    return -1;
}

const char *key_curve_nid_to_name(int nid)
{
    const Curve *c = curve_by_nid(nid);
    return c ? c->curve_name : nullptr;
}

int key_ecdsa_name_to_nid(const char *name)
{
    for (const Curve &c : curves)
        if (name && (equals_ignore_case(name, c.ecdsa_name) || equals_ignore_case(name, c.x509_name)))
            return c.nid;
    return -1;
}

int key_ecdsa_bits_to_nid(int bits)
{
    for (const Curve &c : curves)
        if (c.bits == bits)
            return c.nid;
    return -1;
}

int key_ecdsa_nid_to_bits(int nid)
{
    const Curve *c = curve_by_nid(nid);
    return c ? c->bits : 0;
}

const char *key_curve_nid_to_group(int nid)
{
    const Curve *c = curve_by_nid(nid);
    return c ? c->group : nullptr;
}
