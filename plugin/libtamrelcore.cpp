#include "plugin/libtamrelcore.h"

#include "ddi/verify_abort.h"
#include "io/logline.h"
#include "transport/curlmanager.h"

namespace {

// The transport a client makes for itself. Final, so it can be deleted
// through its own type although CurlManager's destructor is not virtual.
class OwnedTransport final : public CurlManager {};

void releaseOwned(CurlManager* transport) { delete static_cast<OwnedTransport*>(transport); }

}  // namespace

libtamrelcore::libtamrelcore(CurlManager* given)
    : transport(given), ownedTransport_(nullptr, releaseOwned) {
  if (transport == nullptr) {
    ownedTransport_.reset(new OwnedTransport());
    transport = ownedTransport_.get();
  }
}

libtamrelcore::~libtamrelcore() = default;

bool libtamrelcore::connectProperties(std::shared_ptr<lookup> const& table) {
  if (!table) return false;
  properties = table;
  lookup& settings = *table;
  std::shared_ptr<value_container> const token = settings["token"];
  std::shared_ptr<value_container> const tokenFile = settings["token-file"];
  settings["download-retries"];
  settings["download-timeout-s"];
  if (!tokenFile->valid() && !token->valid()) {
    logLine("[E] libtamrelcore -> No token was found in the configuration\n");
    return false;
  }
  if (tokenFile->valid() && tokenFile->is_link()) {
    transport->setTargetToken(tokenFile->link().text);
  } else if (token->valid() && token->is_string()) {
    transport->setTargetToken(token->string());
  }
  return true;
}

bool libtamrelcore::settingPair(lookup& table, std::string const& name, char const* missingFormat,
                                std::string& value) const {
  std::string const fileName = name + "-file";
  std::shared_ptr<value_container> const plain = table[name];
  std::shared_ptr<value_container> const file = table[fileName];
  if (!plain->valid() && !file->valid()) {
    logLine(missingFormat, name.c_str(), fileName.c_str());
    return false;
  }
  value = (file->valid() && file->is_link()) ? file->link().text : plain->string();
  return true;
}

void libtamrelcore::cancelTransfer() { transport->cancelTransfer(); }

void libtamrelcore::cancelVerifyArtifact() const { verifyAbort.store(true); }

std::string libtamrelcore::uuid() const { return "f5f95dd"; }

extern "C" {

void* create_object() { return new libtamrelcore(nullptr); }

void destroy_object(void* object) { delete static_cast<libtamrelcore*>(object); }
}
