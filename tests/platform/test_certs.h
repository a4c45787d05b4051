// Certificates made by the tests: a CA and what it signs, as PEM files.
#pragma once
#include <stdio.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <string>

struct test_ca {
    std::string dir, name;
    EVP_PKEY *key = EVP_EC_gen("P-256");
    X509 *cert = nullptr;
    long serial = 1;

    test_ca(const std::string &d, const std::string &n) : dir(d), name(n)
    {
        cert = make(key, n + " CA", "", 0, 86400, true);
        write(cert, key, n);
    }
    ~test_ca()
    {
        X509_free(cert);
        EVP_PKEY_free(key);
    }
    std::string ca_file() const { return dir + "/" + name + ".crt"; }

    // Writes <file>.crt and <file>.key: a certificate for cn with the subject
    // alternative names san ("DNS:a,IP:127.0.0.1", or ""), valid from `from` to `to`
    // seconds from now. Returns the path without the extension.
    std::string issue(const std::string &file, const std::string &cn, const std::string &san,
                      long from = -60, long to = 86400)
    {
        EVP_PKEY *k = EVP_EC_gen("P-256");
        X509 *x = make(k, cn, san, from, to, false);
        write(x, k, file);
        X509_free(x);
        EVP_PKEY_free(k);
        return dir + "/" + file;
    }

private:
    X509 *make(EVP_PKEY *k, const std::string &cn, const std::string &san, long from, long to, bool ca)
    {
        X509 *x = X509_new();
        X509_set_version(x, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(x), serial++);
        X509_gmtime_adj(X509_getm_notBefore(x), from);
        X509_gmtime_adj(X509_getm_notAfter(x), to);
        X509_set_pubkey(x, k);
        X509_NAME *n = X509_get_subject_name(x);
        X509_NAME_add_entry_by_txt(n, "CN", MBSTRING_ASC, (const unsigned char *)cn.c_str(), -1, -1, 0);
        X509_set_issuer_name(x, ca ? n : X509_get_subject_name(cert));
        X509V3_CTX ctx;
        X509V3_set_ctx_nodb(&ctx);
        X509V3_set_ctx(&ctx, ca ? x : cert, x, nullptr, nullptr, 0);
        auto ext = [&](int nid, const std::string &v) {
            X509_EXTENSION *e = X509V3_EXT_conf_nid(nullptr, &ctx, nid, v.c_str());
            X509_add_ext(x, e, -1);
            X509_EXTENSION_free(e);
        };
        ext(NID_basic_constraints, ca ? "critical,CA:TRUE" : "CA:FALSE");
        ext(NID_subject_key_identifier, "hash");
        if (ca)
            ext(NID_key_usage, "critical,keyCertSign,cRLSign");
        else
            ext(NID_authority_key_identifier, "keyid");
        if (!san.empty())
            ext(NID_subject_alt_name, san);
        X509_sign(x, ca ? k : key, EVP_sha256());
        return x;
    }
    void write(X509 *x, EVP_PKEY *k, const std::string &file)
    {
        FILE *f = fopen((dir + "/" + file + ".crt").c_str(), "w");
        PEM_write_X509(f, x);
        fclose(f);
        f = fopen((dir + "/" + file + ".key").c_str(), "w");
        PEM_write_PrivateKey(f, k, nullptr, nullptr, 0, nullptr, nullptr);
        fclose(f);
    }
};
