// A small PKI made with the openssl command: a root CA, an intermediate CA
// and leaf certificates (RSA, DSA, ECDSA) issued by the intermediate, each
// also as a PKCS#12 file (password "p12pass") that carries the chain.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/tool_run.h"

class TestPki {
public:
    TestPki()
    {
        write("ca.ext", "basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign\n");
        ok("openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -out root.crt -days 3650 -subj '/CN=Test Root'"
           " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign");
        ok("openssl req -newkey rsa:2048 -nodes -keyout inter.key -out inter.csr -subj '/CN=Test Intermediate'");
        ok("openssl x509 -req -in inter.csr -CA root.crt -CAkey root.key -CAcreateserial -out inter.crt -days 3650"
           " -extfile ca.ext");
        ok("cat inter.crt root.crt > chain.pem");
    }

    // `keyopt` is "RSA:2048", "DSA" or "EC:P-256"; returns the leaf's base path.
    std::string leaf(const std::string &name, const std::string &keyopt)
    {
        std::string alg = keyopt.substr(0, keyopt.find(':'));
        std::string arg = keyopt.find(':') == std::string::npos ? "" : keyopt.substr(keyopt.find(':') + 1);
        if (alg == "RSA")
            ok("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:" + arg + " -out " + name + ".key");
        else if (alg == "EC")
            ok("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:" + arg + " -out " + name + ".key");
        else
            ok("openssl genpkey -genparam -algorithm DSA -pkeyopt dsa_paramgen_bits:1024"
               " -pkeyopt dsa_paramgen_q_bits:160 -out dsa.param && openssl genpkey -paramfile dsa.param -out " +
               name + ".key");
        ok("openssl req -new -key " + name + ".key -subj '/CN=" + name + "' -out " + name + ".csr");
        ok("openssl x509 -req -in " + name + ".csr -CA inter.crt -CAkey inter.key -CAcreateserial -days 365 -out " +
           name + ".crt");
        ok("openssl pkcs12 -export -inkey " + name + ".key -in " + name + ".crt -certfile chain.pem"
           " -passout pass:p12pass -out " + name + ".p12");
        return dir.path(name);
    }

    // The lower-case SHA-1 hex of a PEM certificate file.
    std::string sha1(const std::string &crt)
    {
        return run_tool("openssl x509 -noout -fingerprint -sha1 -in " + crt + " | cut -d= -f2 | tr -d ':\\n' | tr A-F a-f")
            .output;
    }

    void ok(const std::string &command)
    {
        ToolResult r = run_tool("cd " + dir.path() + " && (" + command + ")");
        ASSERT_EQ(r.status, 0) << command << "\n" << r.output;
    }
    void write(const std::string &name, const std::string &text) { std::ofstream(dir.path(name)) << text; }
    std::string path(const std::string &name) const { return dir.path(name); }

    TempFolder dir;
};
