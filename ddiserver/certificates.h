// Certificates the DDI server generates for HTTPS: its own, and a client's
// for mutual TLS.
#pragma once

#include <string>

namespace tamrel::ddiserver {

// Writes RSA 2048 certificates and their keys as PEM files, the keys
// readable by their owner only. Each operation returns false on failure.
class Certificates {
 public:
  // A self-signed certificate (subject CN and subjectAltName commonName,
  // plus IP 127.0.0.1) and its key.
  static bool writeSelfSigned(std::string const& certFile, std::string const& keyFile,
                              std::string const& commonName = "localhost");
  // A new CA's certificate, and a certificate signed by that CA with its
  // key: for a server on 127.0.0.1 and localhost, or with `client` for a TLS
  // client. The CA's key is not kept.
  static bool writeCaSigned(std::string const& caFile, std::string const& certFile,
                            std::string const& keyFile, bool client = false);
  // What a client needs for mutual TLS, in `outDir`: client.pem and
  // client.key signed by a new client CA (written to `clientCaFile`, for
  // the server to trust), and the server's CA `serverCaFile` as ca.pem.
  static bool writeClientSet(std::string const& clientCaFile, std::string const& outDir,
                             std::string const& serverCaFile);
};

}  // namespace tamrel::ddiserver
