#include "ddiserver/certificates.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <utility>
#include <vector>

namespace tamrel::ddiserver {
namespace {

bool copyFile(std::string const& from, std::string const& to) {
  std::ifstream in(from, std::ios::binary);
  std::ofstream out(to, std::ios::binary);
  return in && out << in.rdbuf() && out.flush();
}

struct CertificateFree {
  void operator()(X509* cert) const { X509_free(cert); }
};
struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Certificate = std::unique_ptr<X509, CertificateFree>;
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;

Key newKey() { return Key(EVP_RSA_gen(2048)); }

// A certificate for `key` named `commonName` with the given extensions,
// signed by `issuerKey` in the name of `issuer` (itself when null); null on
// failure.
Certificate makeCertificate(EVP_PKEY* key, std::string const& commonName, X509* issuer,
                            EVP_PKEY* issuerKey,
                            std::vector<std::pair<int, std::string>> const& extensions) {
  Certificate owned(X509_new());
  X509* const cert = owned.get();
  bool ok = key != nullptr && issuerKey != nullptr && cert != nullptr;
  if (ok) {
    std::random_device random;
    ok = X509_set_version(cert, 2) == 1 &&
         ASN1_INTEGER_set(X509_get_serialNumber(cert), static_cast<long>(random() >> 1)) == 1 &&
         X509_gmtime_adj(X509_getm_notBefore(cert), -3600) != nullptr &&
         X509_gmtime_adj(X509_getm_notAfter(cert), 365L * 24 * 3600) != nullptr &&
         X509_set_pubkey(cert, key) == 1;
  }
  if (ok) {
    X509_NAME* name = X509_get_subject_name(cert);
    ok = X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                    reinterpret_cast<unsigned char const*>(commonName.c_str()), -1,
                                    -1, 0) == 1 &&
         X509_set_issuer_name(cert, issuer != nullptr ? X509_get_subject_name(issuer) : name) == 1;
  }
  if (ok) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer != nullptr ? issuer : cert, cert, nullptr, nullptr, 0);
    for (auto const& [nid, value] : extensions) {
      X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
      ok = ok && extension != nullptr && X509_add_ext(cert, extension, -1) == 1;
      X509_EXTENSION_free(extension);
    }
    ok = ok && X509_sign(cert, issuerKey, EVP_sha256()) > 0;
  }
  if (!ok) owned.reset();
  return owned;
}

bool writeCertificate(std::string const& file, X509* cert) {
  FILE* out = std::fopen(file.c_str(), "w");
  bool ok = out != nullptr && PEM_write_X509(out, cert) == 1;
  if (out != nullptr) ok = std::fclose(out) == 0 && ok;
  return ok;
}

bool writeKey(std::string const& file, EVP_PKEY* key) {
  // Readable by its owner only, as clients expect of a private key.
  int const fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  FILE* out = fd < 0 ? nullptr : fdopen(fd, "w");
  if (fd >= 0 && out == nullptr) close(fd);
  bool ok =
      out != nullptr && PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  if (out != nullptr) ok = std::fclose(out) == 0 && ok;
  return ok;
}

}  // namespace

bool Certificates::writeSelfSigned(std::string const& certFile, std::string const& keyFile,
                                   std::string const& commonName) {
  // Clients match the host against subjectAltName, not the CN.
  in_addr ip{};
  std::string const altName = inet_pton(AF_INET, commonName.c_str(), &ip) == 1
                                  ? "IP:" + commonName
                                  : "DNS:" + commonName + ",IP:127.0.0.1";
  Key const key = newKey();
  Certificate const cert = makeCertificate(key.get(), commonName, nullptr, key.get(),
                                           {{NID_basic_constraints, "critical,CA:TRUE"},
                                            {NID_subject_key_identifier, "hash"},
                                            {NID_subject_alt_name, altName}});
  return cert && writeCertificate(certFile, cert.get()) && writeKey(keyFile, key.get());
}

bool Certificates::writeCaSigned(std::string const& caFile, std::string const& certFile,
                                 std::string const& keyFile, bool client) {
  // The CA's key lives only here: nothing else can be signed with it.
  Key const caKey = newKey();
  Certificate const ca =
      makeCertificate(caKey.get(), client ? "tamrel-ddi-server client CA" : "tamrel-ddi-server CA",
                      nullptr, caKey.get(),
                      {{NID_basic_constraints, "critical,CA:TRUE"},
                       {NID_key_usage, "critical,keyCertSign,cRLSign"},
                       {NID_subject_key_identifier, "hash"}});
  Key const key = newKey();
  std::vector<std::pair<int, std::string>> extensions = {
      {NID_basic_constraints, "critical,CA:FALSE"},
      {NID_key_usage, "critical,digitalSignature,keyEncipherment"},
      {NID_ext_key_usage, client ? "clientAuth" : "serverAuth"},
      {NID_authority_key_identifier, "keyid"}};
  if (!client) extensions.push_back({NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"});
  Certificate const cert =
      ca ? makeCertificate(key.get(), client ? "tamrel-ddi-server client" : "localhost", ca.get(),
                           caKey.get(), extensions)
         : nullptr;
  return cert && writeCertificate(caFile, ca.get()) && writeCertificate(certFile, cert.get()) &&
         writeKey(keyFile, key.get());
}

bool Certificates::writeClientSet(std::string const& clientCaFile, std::string const& outDir,
                                  std::string const& serverCaFile) {
  return writeCaSigned(clientCaFile, outDir + "/client.pem", outDir + "/client.key", true) &&
         copyFile(serverCaFile, outDir + "/ca.pem");
}

}  // namespace tamrel::ddiserver
