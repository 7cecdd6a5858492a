#ifndef TAMREL_DDI_STATUS_QUERY_H_
#define TAMREL_DDI_STATUS_QUERY_H_

#include <memory>
#include <string>
#include <unordered_map>

#include "ddi/hawkbit_query.h"
#include "properties/lookup.h"

class CurlManager;

// Polls the controller base resource named by the settings and follows its
// deploymentBase and cancelAction links. A configData link is remembered in
// `links`. A default record when nothing could be read; a malformed polling
// interval raises std::invalid_argument/out_of_range.
hawkbit_query_t query_online_status(CurlManager& transport, std::weak_ptr<lookup> const& properties,
                                    std::unordered_map<std::string, std::string>& links);

#endif  // TAMREL_DDI_STATUS_QUERY_H_
