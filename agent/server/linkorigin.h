#ifndef TAMREL_AGENT_SERVER_LINKORIGIN_H_
#define TAMREL_AGENT_SERVER_LINKORIGIN_H_

#include <string>

// Where a link points, so that the target token (which the library sends
// with every request) goes only to the configured server and to hosts the
// operator trusts.

// "scheme://host:port" of an http or https URL, scheme and host in lower
// case, the default port filled in; "" for anything else.
std::string linkOrigin(std::string const& url);

// True when `url` points at the origin of `address`, or at a host listed in
// `trustedHosts` (comma-separated "host" or "host:port"; a host without a
// port stands for the default port of the link's scheme), and is not plain
// http while `address` is https. `host` gets the link's "host:port".
bool linkAllowed(std::string const& url, std::string const& address,
                 std::string const& trustedHosts, std::string& host);

// `url` with its query (a signature, say) shown as "?…", for log lines.
std::string shownLink(std::string const& url);

#endif  // TAMREL_AGENT_SERVER_LINKORIGIN_H_
