#ifndef TAMREL_DDI_CONTROLLER_URL_H_
#define TAMREL_DDI_CONTROLLER_URL_H_

#include <memory>
#include <string>

#include "properties/lookup.h"

// Reads connection setting `name` from the host's table: the link text of
// `name`-file when that is a valid link, else the text of `name`. False,
// after logging `missingFormat` with both names, when neither is valid.
bool read_setting_pair(lookup& table, std::string const& name, char const* missingFormat,
                       std::string& value);

// address/tenant/controller/v1/controller from the settings, joined as they
// are. Empty when the table is gone or a setting is missing (both logged) or
// empty.
std::string build_query_url(std::weak_ptr<lookup> const& properties);

// The query URL followed by /deploymentBase/<actionId>/feedback. Empty, after
// one log line, when the table is gone or a setting is missing (an empty
// setting is used as it is).
std::string build_feedback_url(std::weak_ptr<lookup> const& properties,
                               std::string const& actionId);

#endif  // TAMREL_DDI_CONTROLLER_URL_H_
