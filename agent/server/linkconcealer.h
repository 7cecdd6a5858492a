#ifndef TAMREL_AGENT_SERVER_LINKCONCEALER_H_
#define TAMREL_AGENT_SERVER_LINKCONCEALER_H_

#include <map>
#include <mutex>
#include <string>

// The library logs every link it downloads. It is handed a stand-in
// instead, the link with its query (a signed URL's signature) shown as
// "?…", and the transport fetches the link the stand-in names. Links that
// differ only in their query get stand-ins of their own. Thread-safe.
class LinkConcealer {
 public:
  // The stand-in for `url` (`url` itself when it has no query).
  std::string concealed(std::string const& url);
  // The link behind a stand-in (anything else as it is).
  std::string revealed(std::string const& link) const;
  // Drops them all (each deployment brings its own).
  void forget();

 private:
  mutable std::mutex lock_;
  std::map<std::string, std::string> links_;  // stand-in -> link
};

#endif  // TAMREL_AGENT_SERVER_LINKCONCEALER_H_
