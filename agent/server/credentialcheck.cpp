#include "agent/server/credentialcheck.h"

#include "agent/base/settingcheck.h"

#include <curl/curl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "agent/base/settingcheck.h"

namespace {

using File = std::unique_ptr<FILE, int (*)(FILE*)>;
using Certificate = std::unique_ptr<X509, void (*)(X509*)>;
using Key = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;

File open(std::string const& path) { return File(std::fopen(path.c_str(), "rb"), std::fclose); }

Certificate readCertificate(FILE* file) {
  return Certificate(file != nullptr ? PEM_read_X509(file, nullptr, nullptr, nullptr) : nullptr,
                     X509_free);
}

int const kWarnDays = 30;

}  // namespace

CredentialCheck::CredentialCheck(AgentConfig const& config) : config_(config) {
  check();
  // What OpenSSL queued about files it could not read is not for libcurl.
  ERR_clear_error();
}

std::string CredentialCheck::where(char const* key) const {
  auto const line = config_.lines.find(key);
  return config_.path + ":" + (line != config_.lines.end() ? std::to_string(line->second) : "?") +
         ": ";
}

void CredentialCheck::check() {
  if (!config_.caFile.empty()) {
    File const file = open(config_.caFile);
    if (!file) {
      error_ = where("ca-file") + "cannot read " + config_.caFile + ": " + std::strerror(errno);
      return;
    }
    if (!readCertificate(file.get())) {
      error_ = where("ca-file") + config_.caFile + " holds no PEM certificate";
      return;
    }
  }
  struct stat info {};
  if (!config_.caPath.empty() &&
      (stat(config_.caPath.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))) {
    error_ = where("ca-path") + config_.caPath + " is not a directory";
    return;
  }
  if (!config_.sslEngine.empty()) {
    std::unique_ptr<CURL, void (*)(CURL*)> const probe(curl_easy_init(), curl_easy_cleanup);
    CURLcode const code =
        curl_easy_setopt(probe.get(), CURLOPT_SSLENGINE, config_.sslEngine.c_str());
    if (code != CURLE_OK) {
      error_ = where("ssl-engine") + "OpenSSL engine '" + config_.sslEngine +
               "' not available: " + curl_easy_strerror(code);
      return;
    }
  }
  if (config_.clientCert.empty()) {
    if (!config_.clientKey.empty()) error_ = where("client-key") + "client-key needs client-cert";
    return;
  }
  File const certFile = open(config_.clientCert);
  if (!certFile) {
    error_ =
        where("client-cert") + "cannot read " + config_.clientCert + ": " + std::strerror(errno);
    return;
  }
  Certificate const certificate = readCertificate(certFile.get());
  if (!certificate) {
    error_ = where("client-cert") + config_.clientCert + " holds no PEM certificate";
    return;
  }
  ASN1_TIME const* const notAfter = X509_get0_notAfter(certificate.get());
  int days = 0, seconds = 0;
  if (X509_cmp_current_time(notAfter) <= 0) {
    // Not a reason to stop: the agent stays to pick up a renewed one.
    bool const token = config_.targetToken || !config_.gatewayToken.empty();
    std::string const text = where("client-cert") + config_.clientCert + " has expired";
    if (token) {
      warnings_.push_back(text + "; the token still authenticates where the server accepts it");
    } else {
      expired_ = text +
                 "; every request fails until it is renewed; polling on, backing off, to pick up "
                 "a renewed one";
    }
  } else if (ASN1_TIME_diff(&days, &seconds, nullptr, notAfter) && days < kWarnDays) {
    warnings_.push_back(where("client-cert") + config_.clientCert + " expires in " +
                        std::to_string(days) + " day(s)");
  }
  // With an engine the key is the engine's id, not a file.
  if (!config_.sslEngine.empty()) return;
  std::string const keyPath = config_.clientKey.empty() ? config_.clientCert : config_.clientKey;
  char const* const keyKey = config_.clientKey.empty() ? "client-cert" : "client-key";
  File const keyFile = open(keyPath);
  if (!keyFile) {
    error_ = where(keyKey) + "cannot read " + keyPath + ": " + std::strerror(errno);
    return;
  }
  if (fstat(fileno(keyFile.get()), &info) == 0 &&
      !SettingCheck::secretFile(keyPath, info.st_mode).empty()) {
    error_ = where(keyKey) + keyKey + ": " + SettingCheck::secretFile(keyPath, info.st_mode);
    return;
  }
  // With a null callback OpenSSL takes the last argument as the password.
  std::string password = config_.keyPassword;
  Key const key(PEM_read_PrivateKey(keyFile.get(), nullptr, nullptr, &password[0]), EVP_PKEY_free);
  if (!key) {
    error_ = where(keyKey) + "cannot read the private key in " + keyPath +
             (config_.keyPassword.empty() ? " (no PEM key, or it needs client-key-password-file)"
                                          : " (no PEM key, or the password is wrong)");
    return;
  }
  if (X509_check_private_key(certificate.get(), key.get()) != 1) {
    error_ = where(keyKey) + "the key in " + keyPath + " does not match " + config_.clientCert;
  }
}
