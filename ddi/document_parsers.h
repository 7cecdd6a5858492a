#ifndef TAMREL_DDI_DOCUMENT_PARSERS_H_
#define TAMREL_DDI_DOCUMENT_PARSERS_H_

#include <string>
#include <vector>

#include "ddi/hawkbit_query.h"

struct cJSON;

// Readers of the server's documents: the poll answer, deploymentBase and
// cancelAction. A member matches a key when its name begins with the key;
// members of an unexpected type are skipped. None of them needs a transport.

// The polling interval and the three links of a poll answer; a default record
// for anything unreadable. A malformed interval raises
// std::invalid_argument/out_of_range.
hawkbit_query_t parse_status_response(std::string const& json);
// The deploymentBase, configData and cancelAction links among `first` and its
// siblings.
hawkbit_query_t parse_links(cJSON const* first);
// The polling interval among `first` and its siblings ("hh:mm:ss").
hawkbit_query_t::config_t parse_config(cJSON const* first);
// Fills `deployment` in place from a deploymentBase document: keeps the text
// first, then the action id and the chunks. False for an empty text, a text
// that is not one JSON value, or a value without members.
bool parse_deployment_base(std::string const& json, hawkbit_query_t::deployment_t& deployment);
// The chunks of the "deployment" member's children.
std::vector<hawkbit_query_t::deployment_t::chunk_t> parse_deployment(cJSON const* first);
std::vector<hawkbit_query_t::deployment_t::chunk_t::artifact_t> parse_artifacts(cJSON const* node);
std::vector<hawkbit_query_t::deployment_t::chunk_t::metadata_entry_t> parse_metadata(
    cJSON const* node);
// Fills `cancelAction` in place; true when it then holds a stop id.
bool parse_cancel_action(std::string const& json, hawkbit_query_t::cancel_action_t& cancelAction);

#endif  // TAMREL_DDI_DOCUMENT_PARSERS_H_
