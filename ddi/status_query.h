#ifndef TAMREL_DDI_STATUS_QUERY_H_
#define TAMREL_DDI_STATUS_QUERY_H_

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "ddi/hawkbit_query.h"
#include "properties/lookup.h"

class CurlManager;

// Reads a deploymentBase document into the record (the client's virtual
// parseDeploymentBase, so that a derived client's version is the one used).
using deployment_reader =
    std::function<bool(std::string const& json, hawkbit_query_t::deployment_t& deployment)>;

// Polls the controller base resource named by the settings and follows its
// deploymentBase and cancelAction links; the deploymentBase is read with
// `readDeployment`, and its text is then kept in `deployment.json` whatever
// the reader did. A configData link is remembered in `links`. A default
// record when nothing could be read; a malformed polling interval raises
// std::invalid_argument/out_of_range.
hawkbit_query_t query_online_status(CurlManager& transport, std::weak_ptr<lookup> const& properties,
                                    std::unordered_map<std::string, std::string>& links,
                                    deployment_reader const& readDeployment);

#endif  // TAMREL_DDI_STATUS_QUERY_H_
