#ifndef TAMREL_DDI_FEEDBACK_MESSAGES_H_
#define TAMREL_DDI_FEEDBACK_MESSAGES_H_

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ddi/hawkbit_query.h"
#include "properties/lookup.h"

class CurlManager;

// The device's messages to the server. The body builders make compact JSON
// text stamped with `time` (see feedbackTime()); the senders build a body
// stamped now and hand it to the transport.

// Update feedback: id, time, and a status with progress (chunks, completed
// chunks), the finished and execution words and every chunk's details. False,
// after one log line, for a finished or execution value without a word.
bool update_feedback_body(hawkbit_query_t::deployment_t const& deployment, std::string const& time,
                          std::string& body);
// Config data: "merge" mode, the attributes in their order, closed/success.
std::string config_data_body(std::vector<tamrel::value_pair_t> const& attributes,
                             std::string const& time);
// Cancel feedback: the words as given, `details` as the only detail line.
std::string cancel_feedback_body(std::string const& actionId, std::string const& execution,
                                 std::string const& finished, std::string const& details,
                                 std::string const& time);

// POSTs update feedback to the action's feedback resource under the settings.
// False without chunks (nothing logged), without settings, for an unknown
// status, or when the transfer failed; the HTTP status is not judged.
bool send_update_feedback(CurlManager& transport, std::weak_ptr<lookup> const& properties,
                          hawkbit_query_t::deployment_t const& deployment);
// PUTs config data to the "configData" entry of `links`.
bool send_config_data(CurlManager& transport,
                      std::unordered_map<std::string, std::string> const& links,
                      std::vector<tamrel::value_pair_t> const& attributes);
// POSTs cancel feedback to `url` + "/feedback".
bool send_cancel_action_feedback(CurlManager& transport, std::string const& url,
                                 std::string const& actionId, std::string const& execution,
                                 std::string const& finished, std::string const& details);

#endif  // TAMREL_DDI_FEEDBACK_MESSAGES_H_
